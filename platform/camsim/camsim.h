/*
 * camsim — the simulated camera driver, seen from tests and tools.
 *
 * libcamsim.so stands in for the camera's kernel driver on a workstation. In a
 * process that loads it (through camsim-run, LD_PRELOAD, or by linking it
 * before the C library) the nodes "/dev/cam0", "/dev/camquad" and
 * "/dev/cam1" to "/dev/cam14" open, and "/dev/galcore" answers access(). A
 * node's descriptor is a real descriptor of an empty shared-memory file of
 * that node ("/camsim_node_N"), so close(), dup() and inheritance over fork
 * and exec are the kernel's; ioctl() on it runs the simulated driver, and
 * mmap() on it maps an overlay buffer out of the simulator's state file
 * "/camsim_state", which itself is never mappable through a node.
 *
 * There is one driver state per machine (per /dev/shm), shared by every
 * process, created with the defaults on first use. Everything below works
 * on that shared state and may be called from any process.
 *
 * Driver choices worth knowing when writing tests:
 * - Ids run from 1 upwards, never 0, unique among live overlays, always
 *   below 2^31. At most CAMSIM_MAX_OVERLAYS overlays live at once (fewer
 *   after camsim_set_overlay_limit); one more create fails with ENOMEM, as
 *   does a create whose buffers do not fit in the buffer arena
 *   (CAMSIM_ARENA_BYTES). Freed arena space is reused. Every buffer of
 *   a new overlay holds CAMSIM_FRESH_BYTE throughout, not zeros, so that code
 *   relying on cleared buffers is caught.
 * - Every record's reserved bytes must be zero (EINVAL otherwise), and a
 *   get overlay record must be zero apart from its id.
 * - Create and modify refuse (EINVAL) a visible size larger than the overlay
 *   and normalized coordinates above 16384; create also refuses a palette
 *   bank above 1, palette colours for any type but 6 (1 bit), and an odd
 *   width or height for type 8 (luma/chroma/alpha). Modify takes the
 *   position, visible size and coordinate type of the record and ignores its
 *   other fields.
 * - Submit accepts only a buffer of the overlay that get buffer handed out
 *   and that was not submitted since (EINVAL otherwise); the record's param
 *   is kept (camsim_overlay_info.last_param).
 * - Source list: adding an overlay already in the list succeeds without a
 *   second place; removing an id that is not a live overlay is EINVAL,
 *   removing a live overlay that is not in the list is ENOENT; an operation
 *   other than add or remove is EINVAL. Destroy takes an overlay out of it.
 * - Commands act only on the nodes that own them: overlay, buffer and
 *   palette commands on "/dev/cam0" (ENOTTY on any other node), stream
 *   configuration on every node. A stream configuration key other than
 *   ((channel - 1) << 8) & 0xFFFF for a channel 0 to 15 is EINVAL; the
 *   answer depends on the key alone, and the driver records the node and key
 *   of the last get (camsim_last_stream_config).
 * - mmap() of a node maps only a buffer that get buffer handed out, at its
 *   own offset, at most its size rounded up to whole pages (EINVAL
 *   otherwise), on "/dev/cam0" only (ENODEV on others), and needs the
 *   access that the mapping asks for (EACCES).
 * - A null record is EFAULT (except for modify, where it asks for a
 *   refresh); a command number the driver does not know is ENOTTY.
 */
#ifndef CAMSIM_H
#define CAMSIM_H

#include <stddef.h>
#include <stdint.h>

#include "zantrel-driver/cam_ioctl.h" /* the driver records; includes zantrel.h */

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define CAMSIM_API __attribute__((visibility("default")))
#else
#define CAMSIM_API
#endif

/* The shared-memory object that holds the driver state and its buffers. */
#define CAMSIM_STATE_NAME "/camsim_state"

/* Live overlays at once: the default limit and the most it can be. */
#define CAMSIM_MAX_OVERLAYS 256
#define CAMSIM_MAX_BUFFERS 4
#define CAMSIM_SOURCE_SLOTS 8
#define CAMSIM_NBR_CHANNELS 16
#define CAMSIM_PALETTE_ENTRIES 16
#define CAMSIM_ARENA_BYTES (128u * 1024u * 1024u)
#define CAMSIM_DEFAULT_WIDTH 1920
#define CAMSIM_DEFAULT_HEIGHT 1080
#define CAMSIM_FRESH_BYTE 0xA5
/* Device nodes: N for "/dev/camN" (0 to 14), and "/dev/camquad". */
#define CAMSIM_NODE_CAMQUAD 15
#define CAMSIM_NBR_NODES 16

/* The driver commands, for counters, faults and stalls. */
typedef enum camsim_command {
  CAMSIM_CREATE_OVERLAY = 0,
  CAMSIM_MODIFY_OVERLAY,
  CAMSIM_GET_OVERLAY,
  CAMSIM_SUBMIT_BUFFER,
  CAMSIM_GET_BUFFER,
  CAMSIM_DESTROY_OVERLAY,
  CAMSIM_SOURCE_PARAMS,
  CAMSIM_SET_PALETTE_COLOR,
  CAMSIM_GET_STREAM_CONFIG,
  CAMSIM_RETURN_STREAM_CONFIG,
  CAMSIM_UNKNOWN_COMMAND, /* every other request on a node descriptor */
  CAMSIM_NBR_COMMANDS
} camsim_command;

/* What the driver holds about one live overlay. */
typedef struct camsim_overlay_info {
  internal_overlay record;                     /* as received, with id and buffer_size filled in
                                                  and the position of the last modify */
  uint32_t buffer_offsets[CAMSIM_MAX_BUFFERS]; /* mapping offsets; 0 unused */
  int32_t shown;                               /* index of the shown buffer, -1 when none */
  uint32_t submit_count;                       /* buffers submitted so far */
  uint32_t last_param;                         /* param of the last submission */
  uint32_t in_source;                          /* 1 while in the source list */
} camsim_overlay_info;

/* Results of camsim_read_shown_buffer besides a size. */
#define CAMSIM_NO_OVERLAY (-1)
#define CAMSIM_NOTHING_SHOWN (-2)

/* Every function returns 0 (or a count) on success and -1 with errno set
 * when the state cannot be reached or an argument is out of range. */

/* All overlays gone, the buffer arena empty, counters, faults and stalls
 * cleared, both palette banks zero and unwritten, every channel at the
 * default resolution, "/dev/galcore" present, ids starting again at 1. */
CAMSIM_API int camsim_reset(void);

/* Number of live overlays. */
CAMSIM_API int camsim_live_count(void);

/* Ids of the live overlays, lowest first; returns how many there are (at
 * most `capacity` are stored). */
CAMSIM_API int camsim_live_ids(uint32_t* ids, int capacity);

/* The record of a live overlay; -1 with ENOENT for an unknown id. */
CAMSIM_API int camsim_get_overlay(uint32_t id, internal_overlay* out);
CAMSIM_API int camsim_get_overlay_info(uint32_t id, camsim_overlay_info* out);

/* Copies at most `capacity` bytes of the overlay's shown buffer to `dst`
 * and returns the buffer's full size; CAMSIM_NO_OVERLAY (errno ENOENT) for an unknown id,
 * CAMSIM_NOTHING_SHOWN when no buffer was submitted yet. */
CAMSIM_API long camsim_read_shown_buffer(uint32_t id, void* dst, size_t capacity);

/* Calls of a command since the last reset, refused ones included. */
CAMSIM_API long camsim_call_count(camsim_command command);
/* Sum of camsim_call_count over every command. */
CAMSIM_API long camsim_total_calls(void);
/* Refreshes asked for (modify with a null argument). */
CAMSIM_API long camsim_refresh_count(void);
/* Node opens since the last reset. */
CAMSIM_API long camsim_open_count(void);

/* The next `count` calls of `command`, from any process, fail with `error`
 * (a positive errno value) before the driver looks at them. A count of 0
 * clears the fault. */
CAMSIM_API int camsim_inject_fault(camsim_command command, int count, int error);

/* Kinds of call for a sweep over failure points. */
#define CAMSIM_CALL_COMMAND 1u   /* any driver command on a node */
#define CAMSIM_CALL_MMAP 2u      /* mmap of a file or node (not anonymous memory) */
#define CAMSIM_CALL_SHM_OPEN 4u  /* shm_open */
#define CAMSIM_CALL_FTRUNCATE 8u /* ftruncate */
#define CAMSIM_CALL_OPEN 16u     /* open, openat and fopen of any path, nodes included */
#define CAMSIM_CALL_ALL 31u

/* From now on, counts the calls of the kinds in `kinds` that any process
 * makes in a program that loads the simulator, and makes the `k`-th of them
 * (1: the next) fail with `error` before it is made; k = 0 only counts. A
 * kinds of 0 stops counting and keeps the count. The simulator's own files
 * are not counted. */
CAMSIM_API int camsim_fail_call(unsigned kinds, long k, int error);
/* Calls counted since camsim_fail_call; `failed` (may be null) receives 1
 * when the chosen call has failed. */
CAMSIM_API long camsim_counted_calls(int* failed);

/* The next call of `command` (create, destroy or submit only) stops half
 * done, holding the driver lock, until its process is killed. For tests of
 * a client that dies in the middle of a command. */
CAMSIM_API int camsim_inject_stall(camsim_command command);
/* Number of callers stopped by a stall right now; reads without the lock. */
CAMSIM_API int camsim_stalled_count(void);

/* The 16 entries of a palette bank (0 or 1) as the set palette colour
 * command received them; `written[i]` is 1 when entry i was set since the
 * last reset. Either output may be null. */
CAMSIM_API int camsim_read_palette(unsigned int bank, cam_palette_color* entries,
                                   uint8_t written[CAMSIM_PALETTE_ENTRIES]);

/* The maximum resolution that the stream configuration of a channel (0 to
 * 15) reports. */
CAMSIM_API int camsim_set_resolution(unsigned int channel, uint32_t width, uint32_t height);

/* The node (0 to 14 for "/dev/camN", CAMSIM_NODE_CAMQUAD) and the channel
 * key of the last get stream configuration command; -1 with ENOENT when
 * there was none since the reset. Either output may be null. */
CAMSIM_API int camsim_last_stream_config(int* node, uint32_t* channel_key);

/* Lowers the number of overlays that may live at once (1 to
 * CAMSIM_MAX_OVERLAYS), for tests of exhaustion; overlays already live stay.
 * A reset restores CAMSIM_MAX_OVERLAYS. */
CAMSIM_API int camsim_set_overlay_limit(int limit);

/* Whether "/dev/galcore" exists for access(). */
CAMSIM_API int camsim_set_galcore(int present);

/*
 * Draws the 8 overlay ids of an encode request (its words 1 to 8) over a
 * test picture of width x height pixels and writes it as a PNG file.
 *
 * The test picture is a checkerboard of 16 x 16 squares, 0xFF404040 where
 * (x / 16 + y / 16) is even and 0xFF606060 elsewhere. Place 7 is drawn
 * first and place 0 last, so place 0 is on top; id 0 is an empty place; an
 * id that is not live, or an overlay with nothing shown, draws nothing.
 * An overlay stands at (x, y) of its record, in pixels, or in 1/16384 of the
 * picture's width and height when coord_type is 2, and shows only its top
 * left visible_width x visible_height pixels. Like the camera's compositor,
 * it keeps an overlay inside the picture: one that would reach past the
 * right or bottom edge is moved left or up until it ends there (so a band at
 * normalized y 1.0 lies along the bottom edge). Its shown buffer is read in
 * the driver's layout of its internal type (overlay format in brackets); N =
 * w*h, rows in order, no padding unless said:
 * - 0 (PALETTE_4BIT), N/2 bytes: 4-bit palette indices, pixel 0 in the low
 *   nibble of byte 0. The indices go through the overlay's palette bank,
 *   whose Y/Cb/Cr/alpha entries are turned back into RGB (full-range
 *   BT.601).
 * - 5 (PALETTE_4BIT_DUAL), N bytes: the first half as type 0; the second
 *   half, the same image with the nibbles of each byte swapped, is not read.
 * - 1 (FULL_COLOR), N*3/2 bytes: 4:2:0, opaque: luma (N bytes), then for
 *   each 2 x 2 block one (Cr, Cb) pair, pair j of image row y at byte 2j of
 *   chroma row y/2 (rows of w bytes).
 * - 7 (20BIT), N*20/8 bytes: type 1's luma and chroma planes, then alpha
 *   (N bytes, 255 opaque).
 * - 8 (YCBCR_ALPHA), 3*N bytes: type 1's luma and chroma planes, a second
 *   chroma plane (N/2 bytes, the same pairs as (Cb, Cr), not read), alpha
 *   (N bytes).
 * - 2 (8BIT), N bytes: ARGB 2:2:2:2, alpha in the two high bits, blue in the
 *   two low ones; each 2-bit value v is v * 85.
 * - 3 (16BIT), 2*N bytes: ARGB 4:4:4:4 in little-endian 16-bit words, alpha
 *   in the high 4 bits, blue in the low 4; each 4-bit value v is v * 17.
 * - 4 (ARGB32), 4*N bytes: one native-endian 32-bit word a pixel, not
 *   premultiplied.
 * - 6 (1BIT), ((w+7)/8)*h bytes: 1 bit a pixel, rows padded to whole bytes,
 *   the leftmost pixel of a byte in its least significant bit: clear bits
 *   take palette_colors[0], set bits palette_colors[1], both ARGB.
 * Chroma that an odd last row or column lacks is taken as neutral (128).
 * Returns the number of overlays drawn, or -1 with errno set (for a file
 * that cannot be written, the system's reason, as ENOENT for a missing
 * directory).
 */
CAMSIM_API int camsim_compose(const uint32_t ids[8], int width, int height, const char* png_path);

/* The same composition into pixels: width * height opaque 0xAARRGGBB words,
 * rows top first, no padding. For video, which needs no PNG on the way. */
CAMSIM_API int camsim_compose_argb(const uint32_t ids[8], int width, int height, uint32_t* pixels);

#ifdef __cplusplus
}
#endif

#endif /* CAMSIM_H */
