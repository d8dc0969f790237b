/**
 * @file zantrel.h
 * libzantrel — overlays for the camera's video pipeline. The public C
 * interface: records, constants and every exported function.
 *
 * Every record that crosses a process or the driver boundary has a fixed
 * byte layout (32-bit little-endian words); the main table differs between
 * word sizes only in the size of its trailing mutex.
 *
 * What holds for every function:
 * - Results: 0 or a non-negative value (a handle, a descriptor, a count) is
 *   success; failures are negative: -1 system or driver failure, or a table
 *   that cannot be mapped or locked; -2 bad argument or unsupported format;
 *   -3 not supported on this device; -4 channel above 15; -5 no stream
 *   table; -6 bad handle, handle not in use, not a member, nothing found; -9
 *   set full; -10 no free handle. Which of them a function gives, and when,
 *   its own documentation says. The driver's and the system's error numbers
 *   are not passed on.
 * - Messages go to syslog (LOG_ERR unless said), begin with "libzantrel: "
 *   and end with a newline (the two information messages of the text calls
 *   have no prefix). With the environment variable ZANTREL_LOG_STDERR set
 *   to anything but "" or "0", each one is also written to standard error
 *   (camsim-run and zantrel-vcam set it). Each function's documentation says
 *   what it logs; quoted messages are shown without the prefix.
 * - No C++ exception leaves the library: an internal failure (memory) is
 *   logged as "NAME: internal error" and returns -1 (NULL for a pointer).
 * - Shared memory is untrusted: whatever bytes another process wrote into a
 *   table, no function reads or writes outside it or loops for ever.
 * - The library starts no thread and installs no signal handler.
 */
#ifndef ZANTREL_H
#define ZANTREL_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZANTREL_API __attribute__((visibility("default")))
#else
#define ZANTREL_API
#endif

/* ------------------------------------------------------------------------ */
/* Constants                                                                */
/* ------------------------------------------------------------------------ */

/* overlay_position.coord_type: x and y are fractions of the frame. */
#define OVERLAY_COORDS_NORMALIZED 2

/* Overlay types, the `type` of a table entry. */
#define OVERLAY_TYPE_PLAIN 1
#define OVERLAY_TYPE_TEXT 2
#define OVERLAY_TYPE_MODIFIABLE_TEXT 3
#define OVERLAY_TYPE_IMAGE 4
#define OVERLAY_TYPE_SCALABLE_IMAGE 5

/* Limits of the shared tables. */
#define OVERLAY_MAX_HANDLES 100
#define OVERLAY_SET_PLACES 8
#define OVERLAY_NBR_CHANNELS 16
#define OVERLAY_PALETTE_SIZE 16

/* Stream filter bits (overlay_table_get_entries). */
#define OVERLAY_FILTER_LEGACY 1u
#define OVERLAY_FILTER_NON_LEGACY 2u
#define OVERLAY_FILTER_PLAIN 4u

/* Pixel formats. */
typedef uint32_t overlay_format;
enum {
  OVERLAY_FORMAT_FULL_COLOR = 0,
  OVERLAY_FORMAT_16BIT = 1,
  OVERLAY_FORMAT_8BIT = 2,
  OVERLAY_FORMAT_PALETTE_4BIT = 3,
  OVERLAY_FORMAT_PALETTE_4BIT_DUAL = 4,
  OVERLAY_FORMAT_ARGB32 = 7,
  OVERLAY_FORMAT_1BIT = 8,
  OVERLAY_FORMAT_PALETTE_8BIT = 9,
  OVERLAY_FORMAT_20BIT = 10,
  OVERLAY_FORMAT_YCBCR_ALPHA = 11
};

/* The six named colours of text overlays. */
typedef uint32_t overlay_color;
enum {
  OVERLAY_COLOR_BLACK = 0,
  OVERLAY_COLOR_WHITE = 1,
  OVERLAY_COLOR_RED = 2,
  OVERLAY_COLOR_TRANSPARENT = 3,
  OVERLAY_COLOR_SEMI_TRANSPARENT = 4,
  OVERLAY_COLOR_GREY = 5
};

/* ------------------------------------------------------------------------ */
/* Records                                                                  */
/* ------------------------------------------------------------------------ */

/* Where an overlay stands in the frame (20 bytes). */
typedef struct overlay_position {
  float x;
  float y;
  float visible_width;  /* fraction 0.0 to 1.0 of the content width shown */
  float visible_height; /* fraction 0.0 to 1.0 of the content height shown */
  uint32_t coord_type;  /* OVERLAY_COORDS_NORMALIZED, else pixels */
} overlay_position;

/* The description of every overlay (88 bytes). */
typedef struct overlay {
  int32_t priority;
  uint32_t ignore_stream_filter;
  uint32_t buffer_size; /* output of creation */
  uint32_t width;
  uint32_t height;
  uint32_t nbr_buffers;
  uint32_t palette_bank; /* 0 standard bank, 1 user bank */
  overlay_position position;
  overlay_format format;
  uint32_t reserved1;
  uint32_t reserved2;
  uint32_t palette_colors[4]; /* OVERLAY_FORMAT_1BIT only */
  uint32_t legacy;
  uint32_t reserved3;
  uint32_t reserved4;
} overlay;

/* The driver's description of one hardware overlay (76 bytes). */
typedef struct internal_overlay {
  uint32_t id;
  uint32_t x; /* pixels, or 1/16384 of the frame when normalized */
  uint32_t y;
  uint32_t width;
  uint32_t height;
  int32_t type;
  uint32_t nbr_buffers;
  uint32_t reserved1[2];
  uint32_t visible_width;
  uint32_t visible_height;
  uint32_t coord_type;
  uint32_t palette_bank;
  uint32_t palette_colors[4];
  uint32_t buffer_size;
  uint32_t reserved2;
} internal_overlay;

/* One colour of the shared palette copy (8 bytes): the ARGB bytes in
 * big-endian order, then the caller's flag word. */
typedef struct overlay_palette_color {
  uint8_t alpha;
  uint8_t red;
  uint8_t green;
  uint8_t blue;
  uint32_t flag;
} overlay_palette_color;

/* A text overlay as applications describe it (628 bytes). */
typedef struct overlay_text {
  overlay overlay;   /* size, format and buffers are filled by the library */
  char text[512];    /* NUL-terminated; "\n" separates lines; "#" and "%" start
                        modifiers */
  int32_t font_size; /* pixels, at most 200 */
  int32_t scalable;  /* 1: scaled by stream height / 1080 */
  overlay_color text_color;
  overlay_color background_color;
  overlay_color outline_color;
  int32_t scroll_speed; /* 0: still; otherwise scrolls and is modifiable */
  uint32_t text_length; /* output: bytes of the expanded text at creation */
} overlay_text;

/* An image overlay as applications describe it (608 bytes). */
typedef struct overlay_image {
  overlay overlay;
  char path[512]; /* an ".ovl" file, or a directory holding a bitmap "bmp" */
  uint32_t reserved;
  uint32_t modified_time; /* output: seconds since the epoch of path */
} overlay_image;

/* What a table entry holds (644 bytes). */
typedef struct overlay_entry_data {
  int32_t kernel_id; /* 0: no hardware overlay */
  int32_t type;      /* OVERLAY_TYPE_*, 0 in a free entry */
  uint32_t width;    /* content size before rounding */
  uint32_t height;
  union {
    overlay ovl;         /* every description record begins with an overlay */
    overlay_text text;   /* OVERLAY_TYPE_TEXT and OVERLAY_TYPE_MODIFIABLE_TEXT */
    overlay_image image; /* OVERLAY_TYPE_IMAGE and OVERLAY_TYPE_SCALABLE_IMAGE */
    unsigned char bytes[628];
  } description;
} overlay_entry_data;

/* One slot of the main table (652 bytes); handle h is slot h - 1. */
typedef struct overlay_table_entry {
  uint32_t stream_count;
  uint32_t in_use;
  overlay_entry_data data;
} overlay_table_entry;

/* The main shared table "/ovl_table". Handle sets hold handle - 1, and -1
 * for an empty place. table_mutex is the platform's pthread_mutex_t, kept as
 * bytes so that it starts at its fixed offset on every word size. */
typedef struct overlay_table {
  uint32_t version;
  int8_t source_handles[OVERLAY_SET_PLACES];
  int8_t global_handles[OVERLAY_SET_PLACES];
  int8_t channel_handles[OVERLAY_NBR_CHANNELS][OVERLAY_SET_PLACES];
  overlay_table_entry entries[OVERLAY_MAX_HANDLES];
  overlay_palette_color palette_copy[OVERLAY_PALETTE_SIZE];
  unsigned char table_mutex[sizeof(pthread_mutex_t)];
} overlay_table;

/* The table of one stream "/ovl_strm_%d" (16 bytes). */
typedef struct overlay_stream_table {
  uint32_t active;
  uint32_t version;
  int8_t handles[OVERLAY_SET_PLACES];
} overlay_stream_table;

/* The device's fixed capabilities (17 words). */
typedef struct overlay_caps {
  uint32_t max_slots;       /* request positions per stream */
  uint32_t slots_plain;     /* positions one plain overlay takes */
  uint32_t slots_text;      /* ... one text or modifiable text overlay */
  uint32_t slots_image;     /* ... one image or scalable image overlay */
  uint32_t max_text_length; /* bytes of a text overlay's text buffer */
  uint32_t max_font_size;
  uint32_t formats[11]; /* supported overlay_format values, then 0xFFFFFFFF */
} overlay_caps;

/* The part of the encoder's per-frame request that the library uses. */
typedef struct overlay_encreq {
  uint32_t reserved;
  uint32_t overlay_ids[8]; /* kernel overlay ids, 0 for an empty position */
  uint32_t version;        /* the stream context version the ids come from */
} overlay_encreq;

struct _GHashTable;

/* The encoder's context of one stream; lives in the encoder's process. */
typedef struct overlay_stream_context {
  int32_t version;         /* raised at every gathering, stamped on requests */
  uint32_t table_version;  /* main table version at the last gathering */
  uint32_t stream_version; /* stream table version at the last gathering */
  int32_t fd;              /* device descriptor for this stream's overlays */
  uint32_t channel;
  uint32_t stream;
  uint32_t width;
  uint32_t height;
  uint32_t filter;                     /* OVERLAY_FILTER_* bits */
  int32_t handles[OVERLAY_SET_PLACES]; /* gathered handles, -6 for none */
  overlay_table_entry* slots;          /* 8 local copies of gathered entries */
  struct _GHashTable* text_contexts;   /* handle -> modifiable text context */
  overlay_table* table;                /* mapped main table, or NULL */
  overlay_stream_table* stream_table;  /* mapped stream table, or NULL */
} overlay_stream_context;

/* ------------------------------------------------------------------------ */
/* Library lifecycle and device handle                                      */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup lifecycle Library lifecycle and device handle
 * Binding a process to the camera device and the shared tables. The bind
 * and unbind calls belong to a process's start-up and shutdown: call them
 * before any other thread uses the library and after the last one stopped.
 * In between, the descriptor they leave is only read, from any thread.
 * @{
 */

/**
 * Starts the overlay system: the owner's bind call. Removes every shared
 * table an earlier run left ("/dev/shm/ovl_*"), creates the main table
 * "/ovl_table" afresh (open to every user), and loads the default palette
 * into both banks of the driver.
 *
 * @param fd  0: the library opens "/dev/cam0" itself (and closes it in
 *            overlay_deinit()); positive: a descriptor of the device that
 *            the caller opened and keeps (never closed by the library).
 * @return the descriptor in use (positive); -2 when @p fd is negative
 *         (nothing changed); -1 when the device cannot be opened, the table
 *         cannot be created or the driver refuses the palette (an own
 *         descriptor is closed again, no table is left).
 *
 * Logs "Warning, reinitalizing overlay library." (warning) when the process
 * was bound already (the state is then replaced); the reason of a failure
 * (the device with the system's error and a hint to run under camsim-run on
 * a workstation, the table, the palette).
 *
 * Caller: the one owning process, once, before every other process attaches.
 * Its own descriptor is never 0, 1 or 2.
 */
ZANTREL_API int overlay_init(int fd);
/**
 * Binds an application, configuration or encoder process to a running
 * overlay system. Changes nothing in the tables.
 *
 * @param fd  as for overlay_init().
 * @return the descriptor in use; -2 when @p fd is negative; -1 when the
 *         device cannot be opened or there is no main table (no owner ran
 *         overlay_init()); an own descriptor is then closed again.
 *
 * Logs what is missing: "Could not open the camera device /dev/cam0: ..."
 * (on a workstation, run the program under camsim-run) or "Could not attach:
 * there is no overlay table /ovl_table. Is the overlay system running?".
 *
 * Caller: every process but the owner, before its first other call.
 */
ZANTREL_API int overlay_attach(int fd);
/**
 * Ends the overlay system: the owner's unbind call. Closes the library's own
 * descriptor (a caller's one stays open) and removes every shared table.
 *
 * @return 0; -1 when the process is not bound (with one message), when
 *         closing the descriptor fails (then the descriptor and the tables
 *         stay), or when the tables cannot all be removed.
 *
 * Caller: the owner, last. Processes still attached then find no tables:
 * stop them (and the encoder's stream contexts) first.
 */
ZANTREL_API int overlay_deinit(void);
/**
 * Unbinds an attached process: closes the library's own descriptor (a
 * caller's one stays open). The tables and the overlays the process made
 * stay; overlays belong to the table, not to the process.
 *
 * @return 0; -1 when the process is not bound (with one message) or closing
 *         fails (the descriptor then stays bound).
 *
 * Caller: a process that called overlay_attach(), last.
 */
ZANTREL_API int overlay_detach(void);
/**
 * The device descriptor that the bind call left.
 *
 * @return the descriptor, or 0 when the process is not bound. Never fails,
 *         never logs. Any thread.
 */
ZANTREL_API int o_get_fd(void);
/**
 * The largest picture that a video channel delivers, asked of the driver
 * through the channel's node ("/dev/camquad" for channel 0, "/dev/camN" for
 * channel N + 1).
 *
 * @param channel  0 to 15.
 * @param width, height  receive the size; both 0 when the channel is out of
 *                 range or the driver cannot be asked.
 *
 * Logs "Must provide valid pointers as input" and writes nothing for a NULL
 * pointer; the reason (with the function's name) when the driver cannot be
 * asked. Any process, any thread; needs no bind call.
 */
ZANTREL_API void overlay_get_max_resolution(unsigned int channel, uint32_t* width,
                                            uint32_t* height);
/**
 * The device's fixed capabilities: 8 request positions a stream; 1 position
 * for a plain or text overlay, 2 for an image; texts of at most 512 bytes
 * and font sizes of at most 200; and the overlay formats the driver takes,
 * ended by 0xFFFFFFFF (see the README's table of formats).
 *
 * @param caps  receives the record; must not be NULL. Never fails, never
 *              logs. Any process, any thread; needs no bind call.
 */
ZANTREL_API void overlay_get_caps(overlay_caps* caps);
/**
 * The graphics library version the device offers for overlays drawn with a
 * GPU.
 *
 * @return "GLES 2.0" when "/dev/galcore" exists, else "". A constant string:
 *         never free it. Never logs. Any process, any thread.
 */
ZANTREL_API const char* overlay_get_supported_gl_versions(void);
/**
 * Pixelation of an overlay's area. Not supported by this chip family.
 *
 * @return -3, always; the arguments are not looked at.
 *
 * Logs "o_overlay_set_pixelation_size: not supported for Zorvex 6"
 * (warning).
 */
ZANTREL_API int overlay_set_pixelation_size(int handle, uint32_t size);

/** @} */

/* ------------------------------------------------------------------------ */
/* Overlay operations                                                       */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup operations Overlay operations
 * Plain overlays whose buffer the caller fills, and where any overlay shows.
 *
 * Every call of this group but utils_compare_overlay_position() (and the
 * create, update and destroy calls of the text and image group) needs a bound
 * process: before overlay_init() or overlay_attach(), and after
 * overlay_detach() or overlay_deinit(), it returns -1 with one message
 * ("the overlay library is not bound") and touches nothing. Any thread of
 * any bound process may call them at any time: each one maps the main
 * table, holds its lock only for its table work and unmaps it again; none
 * holds the lock across creating or destroying a hardware overlay. -1 is
 * also the result when the table cannot be mapped or its lock cannot be
 * taken (nothing done then).
 *
 * Where an overlay shows: in the global set (every stream), a channel's set,
 * a stream's set, or the source set (handed to the video source itself).
 * Each set holds 8 overlays, ordered by falling priority. Overlays belong
 * to the table, not to the process that made them: they stay when it ends,
 * until someone destroys them.
 * @{
 */

/**
 * Creates a plain overlay: a hardware overlay whose pixel buffer the caller
 * fills (overlay_get_buffer(), overlay_submit_buffer()), and its entry in
 * the shared table.
 *
 * @param ovl  what to make: width, height, format (one that
 *             overlay_get_caps() lists), nbr_buffers (1 to 4), position,
 *             priority, ignore_stream_filter; palette_colors for
 *             OVERLAY_FORMAT_1BIT. Written: palette_bank becomes 1 (the
 *             user bank, first, also on failure) and buffer_size the
 *             buffer's size in bytes.
 * @return the new handle, 1 to 100; -2 for a format the driver does not
 *         take (logged), or a position out of range; -1 when the driver
 *         refuses (logged with its reason); -10 when all 100 handles are in
 *         use ("No more handles available.", the hardware overlay is
 *         destroyed again). The new overlay shows nowhere until it is added
 *         to a set.
 */
ZANTREL_API int overlay_create(overlay* ovl);
/**
 * Destroys an overlay of any kind: its entry (taken out of every set, the
 * stream sets included) and its hardware overlay.
 *
 * @return 0 (also for a handle whose entry is already free); -1 for a
 *         handle outside 1 to 100 ("Could not get overlay for this
 *         handle."), or when the driver refuses to destroy the hardware
 *         overlay (logged; the entry is kept, so that a retry destroys it).
 */
ZANTREL_API int overlay_destroy(int handle);
/**
 * Changes where and in which order an overlay shows: priority,
 * ignore_stream_filter and position of @p ovl are taken; size, format,
 * buffers and palette are ignored. Raises the table's version, so every
 * encoder gathers again (a new priority moves the overlay in sets it joins
 * later).
 *
 * @return 0; -6 for a handle outside 1 to 100 or one not in use (logged,
 *         nothing changed); -1 when the driver refuses the new position
 *         (logged; the stored fields keep the new values).
 */
ZANTREL_API int overlay_update(int handle, const overlay* ovl);
/**
 * Hands out a buffer of a plain overlay to fill. Map buffer_size bytes of
 * the descriptor from the bind call at the offset (PROT_WRITE, MAP_SHARED),
 * fill it in the overlay's format, unmap it and hand it back with
 * overlay_submit_buffer(). The buffer shown is never handed out.
 *
 * @param offset  receives the mapping offset.
 * @return 0; -1 (nothing stored) for a handle outside 1 to 100 or without
 *         a hardware overlay, a NULL @p offset, or when the driver has no
 *         buffer to hand out.
 */
ZANTREL_API int overlay_get_buffer(int handle, int32_t* offset);
/**
 * Shows a buffer that overlay_get_buffer() handed out; the one shown before
 * is released.
 *
 * @param param  handed to the driver unchanged.
 * @return 0; -1 for a handle outside 1 to 100 or without a hardware
 *         overlay, or when the driver refuses (a buffer it did not hand out
 *         or that was submitted already; logged).
 */
ZANTREL_API int overlay_submit_buffer(int handle, int32_t offset, uint32_t param);
/**
 * Finds an overlay by a tag the driver keeps. This chip family keeps no
 * tags.
 *
 * @return -6 (nothing found), always; -1 when the table cannot be mapped.
 */
ZANTREL_API int overlay_find(const char* tag);
/**
 * Shows an overlay on every stream of every channel.
 *
 * @return 0 (also when it is a member already); -6 for a handle not in use;
 *         -9 when the global set holds 8 overlays.
 */
ZANTREL_API int overlay_add_globally(int handle);
/**
 * Takes an overlay out of the global set.
 *
 * @return 0; -6 for a bad handle or one that is not a member.
 */
ZANTREL_API int overlay_remove_globally(int handle);
/**
 * Hands an overlay to the video source itself, so that it is in the video
 * before any stream is made: the driver is told first, then the source set.
 *
 * @param fd  the descriptor from the bind call.
 * @return 0; -6 for a handle not in use; -2 for a scalable image (logged;
 *         it has no hardware overlay of its own); -1 when the driver refuses
 *         (logged); -9 when the source set is full (the driver's change
 *         stays). A modifiable text is added with a warning: it is not drawn
 *         again there.
 */
ZANTREL_API int overlay_add_to_source(int fd, int handle);
/**
 * Takes an overlay away from the video source.
 *
 * @param fd  the descriptor from the bind call.
 * @return 0; -6 for a bad handle or one that is not a member.
 */
ZANTREL_API int overlay_remove_from_source(int fd, int handle);
/**
 * Shows an overlay on every stream of one channel.
 *
 * @return 0; -6 for a handle not in use; -4 for a channel above 15; -9 when
 *         the channel's set is full.
 */
ZANTREL_API int overlay_add_to_channel(int handle, unsigned int channel);
/**
 * Takes an overlay out of a channel's set.
 *
 * @return 0; -6 for a bad handle or one that is not a member; -4 for a
 *         channel above 15.
 */
ZANTREL_API int overlay_remove_from_channel(int handle, unsigned int channel);
/**
 * Shows an overlay on one stream. The stream's table "/ovl_strm_N" is made
 * on first use.
 *
 * @param unused  ignored.
 * @param stream  0 or above; an encoder's stream context names it.
 * @return 0; -2 for a negative stream; -6 for a handle not in use; -9 when
 *         the stream's set is full; -1 when the stream table cannot be made.
 */
ZANTREL_API int overlay_add_to_stream(int handle, int unused, int stream);
/**
 * Takes an overlay out of a stream's set.
 *
 * @return 0; -2 for a negative stream; -6 for a bad handle or one that is
 *         not a member; -1 when the stream has no table or it cannot be
 *         mapped ("Could not map the stream overlay table.").
 */
ZANTREL_API int overlay_remove_from_stream(int handle, int unused, int stream);
/**
 * Removes a stream's table and with it the stream's set (the overlays
 * themselves stay). Runs without the table lock.
 *
 * @param unused  ignored.
 * @return 0; -2 for a negative stream; -5 when the stream has no table; -1
 *         when it cannot be removed (logged).
 */
ZANTREL_API int overlay_clear_stream(int unused, int stream);
/**
 * Sets one colour of the user palette bank (bank 1, which plain overlays
 * use) in the driver, and then in the table's copy.
 *
 * @param color  alpha, red, green, blue; a non-zero flag is handed on to the
 *               driver.
 * @param index  0 to 15.
 * @return 0; -1 for an index above 15 ("Can't set palette color, invalid
 *         index") or when the driver refuses (logged; the copy is unchanged).
 *         Does not raise the table's version.
 */
ZANTREL_API int overlay_palette_set_color(const overlay_palette_color* color, unsigned int index);
/**
 * The table's copy of the 16 palette colours.
 *
 * @param colors  receives a malloc'ed array of 16 colours, which the caller
 *                frees with free(); NULL on failure.
 * @param count   receives 16, first, also on failure.
 * @return 0; -1 when memory or the table cannot be had (logged).
 */
ZANTREL_API int overlay_palette_get_all_colors(overlay_palette_color** colors, int32_t* count);
/**
 * Compares two positions: x, y, coord_type, visible_width and
 * visible_height, floats by equality (a NaN equals nothing).
 *
 * @return 0 when they are equal, 1 when they differ. No table, no bind
 *         call, no message; any thread.
 */
ZANTREL_API int utils_compare_overlay_position(const overlay_position* a,
                                               const overlay_position* b);

/** @} */

/* ------------------------------------------------------------------------ */
/* Device commands                                                          */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup device Device commands
 * The driver layer under the overlay operations, for the library's own use
 * and for programs that talk to the driver directly. None of these touches
 * the shared tables or needs a bind call; they work on the descriptor they
 * are given. Driver failures are logged with the system's reason and
 * returned as -1 (the error number is not passed on). Any thread.
 * @{
 */

/**
 * Opens the camera device "/dev/cam0" for reading and writing, close-on-exec,
 * never as descriptor 0, 1 or 2.
 *
 * @return the descriptor, or -1 with errno set. No message.
 */
ZANTREL_API int o_open_fd(void);
/**
 * Closes a descriptor.
 * @return close()'s result: 0, or -1 with errno set. No message.
 */
ZANTREL_API int o_close_fd(int fd);
/**
 * Creates a hardware overlay for @p ovl: its format's driver type, size,
 * buffers, palette bank, and its position computed for the content size
 * (width and height of @p data; the shown part is clipped to it).
 *
 * @param id  receives the driver's id.
 * @return 0, with ovl->buffer_size set; -2 for a format without a driver
 *         type ("Overlay format not supported / implemented.") or a position
 *         out of range ("Failed to calculate overlay position."), before any
 *         driver call; -1 when the driver refuses (logged). -2 also for a
 *         NULL argument.
 */
ZANTREL_API int o_create_overlay(int fd, overlay* ovl, int* id, const overlay_entry_data* data);
/**
 * Destroys a hardware overlay.
 * @return 0; -1 when the driver refuses ("Internal error when removing
 *         overlay: ...").
 */
ZANTREL_API int o_destroy_overlay(int fd, int id);
/**
 * Moves a hardware overlay to the position in @p data's description, for
 * its content size.
 * @return 0; -1 when the driver cannot read or change the overlay (logged);
 *         -2 for a position out of range ("Failed to calculate overlay
 *         position.").
 */
ZANTREL_API int o_set_overlay_position(int fd, int id, const overlay_entry_data* data);
/**
 * Asks the driver for a buffer of the overlay to fill.
 * @return the buffer's mapping offset (positive), or the driver's negative
 *         answer. No message.
 */
ZANTREL_API int o_get_overlay_buffer(int fd, int id);
/**
 * Shows a buffer that o_get_overlay_buffer() handed out.
 * @return 0; -1 when the driver refuses ("Internal error when submitting
 *         overlay buffer: ...").
 */
ZANTREL_API int o_submit_overlay_buffer(int fd, int id, int32_t offset, uint32_t param);
/**
 * Makes a hardware overlay a source overlay.
 * @return 0; -1 when the driver refuses ("Internal error setting source
 *         overlay parameters: ...").
 */
ZANTREL_API int o_add_source_overlay(int fd, int id);
/**
 * Takes a hardware overlay out of the source overlays.
 * @return 0; -1 when the driver refuses (logged as for adding).
 */
ZANTREL_API int o_remove_source_overlay(int fd, int id);
/**
 * Tells the driver to apply the overlays' latest buffers and positions.
 * @return 0; -1 when the driver refuses ("Internal error when modifying
 *         overlay: ...").
 */
ZANTREL_API int o_force_refresh_overlays(int fd);
/** The device's capabilities, as overlay_get_caps(). Never fails. */
ZANTREL_API void o_get_overlay_caps(overlay_caps* caps);
/**
 * A channel's largest picture, as overlay_get_max_resolution() but without
 * the check of the pointers: both must be valid. 0 x 0 on any failure, with
 * a message naming the function.
 */
ZANTREL_API void o_get_max_resolution(unsigned int channel, uint32_t* width, uint32_t* height);
/** As overlay_get_supported_gl_versions(). */
ZANTREL_API const char* o_get_supported_gl_versions(void);
/**
 * The kernel id of the overlay that carries a tag. This device keeps no
 * tags.
 * @return -3, always. No message.
 */
ZANTREL_API int o_get_overlay_by_tag(int fd, const char* tag);
/**
 * Pixelation, not supported by this chip family.
 * @return -3, always, with the warning of overlay_set_pixelation_size().
 */
ZANTREL_API int o_overlay_set_pixelation_size(int handle, uint32_t size);
/** The version word of an encode request. */
ZANTREL_API uint32_t o_encode_get_version(const overlay_encreq* request);
/** Stores the version word of an encode request. */
ZANTREL_API void o_encode_set_version(overlay_encreq* request, uint32_t version);
/**
 * Stores a kernel overlay id at a request position.
 * @param index  0 to 7; the caller keeps it in range.
 * @return 0.
 */
ZANTREL_API int o_encode_set_overlay_id(overlay_encreq* request, int index, uint32_t id);
/**
 * The kernel overlay id at a request position.
 * @param index  0 to 7; the caller keeps it in range.
 */
ZANTREL_API uint32_t o_encode_get_overlay_id(const overlay_encreq* request, int index);

/** @} */

/* ------------------------------------------------------------------------ */
/* Overlay records and formats                                              */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup formats Overlay records and formats
 * Pure functions over the overlay record and the pixel formats: no state,
 * no lock, no driver call; any thread. Messages go to syslog at LOG_ERR.
 * @{
 */

/**
 * The driver's type of a pixel format.
 * @return 0 to 8; -2 for a format the driver does not take (5, 6, 9 and
 *         every value above 11), with "Overlay format not supported /
 *         implemented.".
 */
ZANTREL_API int32_t o_get_overlay_internal_type(overlay_format format);
/**
 * The number of driver slots one overlay of the format takes.
 * @return 2 for OVERLAY_FORMAT_20BIT and OVERLAY_FORMAT_YCBCR_ALPHA, else 1
 *         (an unsupported format logs as o_get_overlay_internal_type()).
 */
ZANTREL_API int32_t o_get_nbr_internal_slots(overlay_format format);
/**
 * The size in bytes of a buffer of the format (the README's table of
 * formats gives each).
 * @return the size; a format without a size is taken as
 *         OVERLAY_FORMAT_FULL_COLOR, with a message saying so.
 */
ZANTREL_API int32_t o_calculate_overlay_size(uint32_t width, uint32_t height,
                                             overlay_format format);
/**
 * Copies the palette bank of @p in into the driver record @p out, and for
 * OVERLAY_FORMAT_1BIT also its 4 palette colours; nothing else.
 */
ZANTREL_API void o_set_standard_palette(internal_overlay* out, const overlay* in);
/**
 * Computes the driver's position fields of @p rec (x, y, visible size,
 * coordinate type) from a position and the content size; rec->width and
 * rec->height must hold the overlay's size.
 * @return 0; -2 (nothing written, no message) for x or y below 0, a visible
 *         fraction outside 0.0 to 1.0, normalized x or y above 1.0, or NaN.
 */
ZANTREL_API int o_calculate_overlay_position(internal_overlay* rec, const overlay_position* pos,
                                             uint32_t content_width, uint32_t content_height);

/** @} */

/* ------------------------------------------------------------------------ */
/* Image files (".ovl")                                                     */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup ovl Image files (".ovl")
 * The ".ovl" image file: a 78-byte header, then the pixels (the README says
 * how ovlconv makes one from a PNG). Header functions are pure and read
 * OVL_HEADER_SIZE bytes; the loaders read the file and talk to the driver on
 * the descriptor they are given, without the table. Any thread.
 * @{
 */

/** The size of an ".ovl" file's header in bytes. */
#define OVL_HEADER_SIZE 78

/**
 * Whether the first OVL_HEADER_SIZE bytes of a file are an ".ovl" header.
 * @return 1 when bytes 0 and 1 are 'o', 'g' and byte 5 is 16, else 0.
 */
ZANTREL_API int ovl_valid_header(const uint8_t* header);
/**
 * The header's version byte.
 * @return '1', '2' or '4', else 255.
 */
ZANTREL_API uint8_t ovl_header_version(const uint8_t* header);
/**
 * The header's transparency key: pixels whose luma (shifted left by 8)
 * equals it are made transparent by the loader.
 */
ZANTREL_API uint32_t ovl_get_alpha(const uint8_t* header);
/**
 * Loads the ".ovl" file image->path into a new hardware overlay of
 * OVERLAY_FORMAT_YCBCR_ALPHA (one buffer) and shows it.
 *
 * @param id    receives the new overlay's id.
 * @param data  receives the image's size (width, height).
 * @return 0; -1 when the file cannot be opened or read, its header or size
 *         is wrong, or the driver refuses (each logged, naming the file
 *         where it matters). A refused submission is logged and still gives
 *         0 with the overlay (its buffer is filled; see the README's
 *         behaviour choices).
 */
ZANTREL_API int o_create_image_overlay_from_ovl_file(overlay_image* image, int fd, int* id,
                                                     overlay_entry_data* data);
/**
 * The same for the bitmap directory image->path: libgridfit makes (or
 * reuses) an ".ovl" file scaled for a stream of the given size, which is
 * loaded as above.
 * @return 0; -1 when the scaling or the load fails ("Failed to create
 *         scalable image overlay" and the load's messages).
 */
ZANTREL_API int o_create_scaled_image_overlay_from_ovl_file(overlay_image* image, int fd, int* id,
                                                            unsigned int channel,
                                                            uint32_t stream_width,
                                                            uint32_t stream_height,
                                                            overlay_entry_data* data);

/** @} */

/* ------------------------------------------------------------------------ */
/* Palette                                                                  */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup palette Palette
 * The 16-colour palette of 4-bit overlays. The driver keeps two banks: 0,
 * the standard bank (texts and images), and 1, the user bank (plain
 * overlays, overlay_palette_set_color()). No table, no bind call; any
 * thread.
 * @{
 */

/** Default colours, ARGB: index 0 white, 1 black, 2 red, 3 grey, 4
 * semi-transparent black, 5 transparent; the README lists all 16. */
ZANTREL_API extern const uint32_t static_palette[OVERLAY_PALETTE_SIZE];
/** BT.601 full-range coefficients in 16.16 fixed point: rows Y, Cb, Cr;
 * columns red, green, blue. */
ZANTREL_API extern const int32_t rgb2ycbcr[9];

/**
 * Loads the default palette's entries 0 to 14 into both banks of the
 * driver.
 * @return 0; -1 when the driver refused the last command. No message (the
 *         caller says what failed).
 */
ZANTREL_API int palette_set_default(int fd);
/**
 * The default palette.
 * @param colors  receives static_palette.
 * @param first   receives 0, the first usable index; may be NULL.
 * @return 16.
 */
ZANTREL_API int palette_get_default(const uint32_t** colors, int* first);
/**
 * Sets one colour of the user bank (1) in the driver, converted to YCbCr.
 * @param index  0 to 15.
 * @param flag   handed to the driver.
 * @return 0; -1 for an index outside 0 to 15 ("Invalid index when setting
 *         palette", nothing sent) or when the driver refuses ("Could not set
 *         palette color at index ...").
 */
ZANTREL_API int palette_set_color_argb(int fd, uint32_t argb, int index, int flag);
/**
 * A colour of the default palette (never the driver's or the table's).
 * @return the ARGB colour; -1 with "Not a valid index" for an index outside
 *         0 to 15. Note that white, colour 0, is 0xFFFFFFFF, which is -1 too.
 */
ZANTREL_API int32_t palette_get_color(int index);
/**
 * The palette index of a named text colour (see overlay_color).
 * @return the index; -1 with "Not a valid overlay color" for a value above
 *         5.
 */
ZANTREL_API int palette_get_color_index(overlay_color color);

/** @} */

/* ------------------------------------------------------------------------ */
/* Shared table: store and lock                                             */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup table_store Shared table: store and lock
 * The main table "/ovl_table" and its one robust, process-shared mutex,
 * which guards the main table and every stream table. The overlay
 * operations use these; a program of its own that reads the table maps it,
 * locks, reads, unlocks and unmaps. No bind call needed; any thread (the
 * mutex is not recursive: a thread that holds it must not take it again).
 * @{
 */

/**
 * Creates the main table afresh: removes every "/dev/shm/ovl_*" object
 * first, then makes the table with every set empty, every entry free, the
 * default palette in its copy and version 0; mode 0666.
 * @return 0; -1 on any failure (logged, and no table is left).
 * Caller: overlay_init(), or the owner of a table of its own.
 */
ZANTREL_API int overlay_table_init(void);
/**
 * Removes the main table and every stream table (every "/dev/shm/ovl_*"
 * object). Processes that still map them keep their images.
 * @return 0; -1 when the search for the tables failed (logged). A table that
 *         cannot be removed is logged and the sweep goes on.
 */
ZANTREL_API int overlay_table_deinit(void);
/**
 * Whether the main table exists and can be opened for reading and writing.
 * @return 1 or 0. No message.
 */
ZANTREL_API int overlay_table_exists(void);
/**
 * Maps the whole main table, read-write and shared.
 * @return the mapping; MAP_FAILED when there is no table (no message) or it
 *         cannot be mapped (a warning with the reason).
 */
ZANTREL_API overlay_table* overlay_table_map(void);
/**
 * Unmaps a mapping that overlay_table_map() gave.
 * @return munmap()'s result: 0 or -1.
 */
ZANTREL_API int overlay_table_unmap(overlay_table* table);
/**
 * Takes the table lock, waiting for it. When its holder died, the lock
 * checks and mends the main table and every stream table first (see the
 * README's behaviour choices), raises the version and logs one warning with
 * what was mended.
 * @return 0 when the caller holds the lock; an error number otherwise
 *         (logged), and the caller must not touch the tables.
 */
ZANTREL_API int overlay_table_lock(overlay_table* table);
/**
 * Takes the table lock if it is free.
 * @return pthread_mutex_trylock()'s result unchanged: 0, EBUSY,
 *         EOWNERDEAD (the caller holds it and must make it consistent), ...
 */
ZANTREL_API int overlay_table_try_lock(overlay_table* table);
/**
 * Releases the table lock.
 * @return pthread_mutex_unlock()'s result.
 */
ZANTREL_API int overlay_table_unlock(overlay_table* table);

/** @} */

/* ------------------------------------------------------------------------ */
/* Shared table: entries and membership (caller holds the table lock)       */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup table_entries Shared table: entries and membership
 * Entries and handle sets of a mapped main table. The caller holds the table
 * lock for the whole of a read-then-write sequence. None of these maps,
 * locks or talks to the driver; each is a bounded scan. Handles are 1 to
 * 100 (-6 otherwise); sets hold 8 members by falling priority, and among
 * equal priorities the later addition first. A NULL or MAP_FAILED table is
 * refused with -2 (NULL for a pointer).
 * @{
 */

/**
 * Stores new entry data in the lowest free entry and raises the version.
 * @return the new handle; -2 for a type outside 1 to 5; -10 when every
 *         entry is in use ("No more handles available.").
 */
ZANTREL_API int overlay_table_create_overlay(overlay_table* table, const overlay_entry_data* data);
/**
 * Frees an entry and takes its handle out of every set (stream sets
 * included); raises the version when it was in a main table set.
 * @return 0 (also for a free entry); -6 for a handle outside 1 to 100 ("Not
 *         a valid handle (was N)"); -1 when a stream table naming it cannot
 *         be reached (logged).
 */
ZANTREL_API int overlay_table_destroy_overlay(overlay_table* table, int handle);
/**
 * The entry of a handle, in use or free.
 * @return a pointer into the mapping; NULL for a handle outside 1 to 100.
 */
ZANTREL_API overlay_table_entry* overlay_table_get_entry(overlay_table* table, int handle);
/**
 * Replaces an entry's data (sets keep their order) and raises the version.
 * @param replaced_kernel_id  receives the former kernel id when it was not 0
 *                            and differs from the new one; left alone
 *                            otherwise. The caller destroys that overlay.
 * @return 0; -6 for a handle outside 1 to 100.
 */
ZANTREL_API int overlay_table_update_overlay(overlay_table* table, int handle,
                                             const overlay_entry_data* data,
                                             int* replaced_kernel_id);
/**
 * The handle of the first entry in use with this kernel id.
 * @return the handle; -6 when none has it.
 */
ZANTREL_API int overlay_table_find_handle_by_kernel_id(overlay_table* table, int kernel_id);
/**
 * Adds a handle to the global set; raises the version.
 * @return 0 (also for a member); -6 for a handle not in use; -9 when full.
 */
ZANTREL_API int overlay_table_add_overlay_globally(overlay_table* table, int handle);
/**
 * Takes a handle out of the global set; raises the version.
 * @return 0; -6 for a bad handle or a non-member.
 */
ZANTREL_API int overlay_table_remove_overlay_globally(overlay_table* table, int handle);
/**
 * Adds a handle to the source set (the version stays: encoders do not read
 * it).
 * @return 0; -6 for a handle not in use; -9 when full.
 */
ZANTREL_API int overlay_table_add_overlay_to_source(overlay_table* table, int handle);
/**
 * Takes a handle out of the source set.
 * @return 0; -6 for a bad handle or a non-member.
 */
ZANTREL_API int overlay_table_remove_overlay_from_source(overlay_table* table, int handle);
/**
 * Adds a handle to a channel's set; raises the version.
 * @return 0; -6 for a handle not in use; -4 for a channel above 15; -9 when
 *         full.
 */
ZANTREL_API int overlay_table_add_overlay_to_channel(overlay_table* table, int handle,
                                                     unsigned int channel);
/**
 * Takes a handle out of a channel's set; raises the version.
 * @return 0; -6 for a bad handle or a non-member; -4 for a channel above 15.
 */
ZANTREL_API int overlay_table_remove_overlay_from_channel(overlay_table* table, int handle,
                                                          unsigned int channel);
/**
 * Stores a colour in the table's palette copy (the driver is not told, the
 * version stays).
 * @return 0; -2 for an index above 15.
 */
ZANTREL_API int overlay_table_set_palette_color(overlay_table* table,
                                                const overlay_palette_color* color,
                                                unsigned int index);
/**
 * Copies the table's 16 palette colours into @p colors (room for 16).
 * @return 0.
 */
ZANTREL_API int overlay_table_palette_get_all_colors(overlay_table* table,
                                                     overlay_palette_color* colors);
/** Diagnostics: hands an entry in use to the print call of its type; prints
 * nothing on this system. */
ZANTREL_API void overlay_print_table_entry(const overlay_table_entry* entry);

/** @} */

/* ------------------------------------------------------------------------ */
/* Shared table: stream tables and queries                                  */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup table_streams Shared table: stream tables and queries
 * The table of one stream, "/ovl_strm_N" (16 bytes: active, version, 8
 * handles), made on the first addition to the stream; and the encoder's
 * gathering of what a stream shows. Calls that take a main table need the
 * table lock held; those that take only a stream number do not. Stream
 * numbers are 0 or above (-2 otherwise).
 * @{
 */

/**
 * Maps an existing stream table, read-write and shared.
 * @return the mapping; MAP_FAILED when it does not exist or cannot be
 *         mapped. No message.
 */
ZANTREL_API overlay_stream_table* overlay_table_map_stream(int stream);
/**
 * Unmaps a stream table.
 * @return munmap()'s result: 0 or -1.
 */
ZANTREL_API int overlay_table_unmap_stream(overlay_stream_table* stream_table);
/**
 * Adds a handle to a stream's set, making the stream table (mode 0666) on
 * first use; raises the stream table's version, and the main version when
 * the table is new. Lock held.
 * @return 0; -2 for a negative stream; -6 for a handle not in use; -9 when
 *         full; -1 when the stream table cannot be made or mapped (logged).
 */
ZANTREL_API int overlay_table_add_overlay_to_stream(overlay_table* table, int handle, int stream);
/**
 * Takes a handle out of a stream's set; raises the stream table's version.
 * Lock held.
 * @return 0; -2 for a negative stream; -6 for a bad handle or a non-member;
 *         -1 when the stream has no table or it cannot be mapped (logged).
 */
ZANTREL_API int overlay_table_remove_overlay_from_stream(overlay_table* table, int handle,
                                                         int stream);
/**
 * Reads a stream table's version, without the lock.
 * @return 0 with @p version set; -2 for a negative stream or a NULL
 *         @p version; -5 when the stream has no table; -1 otherwise.
 */
ZANTREL_API int overlay_table_get_stream_table_version(int stream, unsigned int* version);
/**
 * Removes a stream table, without the lock.
 * @return 0; -2 for a negative stream; -5 when it did not exist; -1 when it
 *         cannot be removed ("could not remove overlay stream file ...").
 */
ZANTREL_API int overlay_table_remove_stream(int stream);
/**
 * Gathers what a stream shows: at most 8 entries of the global, channel
 * and stream sets that pass the filter, by falling priority, copied into
 * @p entries with their handles (-6 and a free entry for an empty place).
 * A plain overlay passes with OVERLAY_FILTER_PLAIN, a legacy text with
 * OVERLAY_FILTER_LEGACY, any other with OVERLAY_FILTER_NON_LEGACY, and any
 * overlay whose ignore_stream_filter is 1. Lock held.
 * @param stream_table  the stream's mapped table, or NULL for none.
 * @param stream        not read.
 * @return 0; -4 for a channel above 15, with every handle set to -6.
 */
ZANTREL_API int overlay_table_get_entries(overlay_table* table, overlay_stream_table* stream_table,
                                          overlay_table_entry entries[OVERLAY_SET_PLACES],
                                          int32_t handles[OVERLAY_SET_PLACES], unsigned int channel,
                                          int stream, unsigned int filter);
/**
 * Pointers to the entries of the source set's first @p count places (at
 * most 8); NULL for an empty place or a free entry, whose place is then
 * cleared in the table. The pointers are valid while the table is mapped;
 * read them under the lock.
 * @return 0.
 */
ZANTREL_API int overlay_table_get_source_entries(overlay_table* table,
                                                 overlay_table_entry** entries, unsigned int count);
/**
 * Whether a handle is in the source set. Lock held.
 * @return 0 when it is; -1 when it is not or the handle is outside 1 to 100.
 */
ZANTREL_API int overlay_table_is_source_entry(overlay_table* table, int handle);

/** @} */

/* ------------------------------------------------------------------------ */
/* Text rendering                                                           */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup rendering Text rendering
 * The camera's font ("/usr/share/fonts/truetype/wqy/wqy-microhei.ttc", face
 * 1) drawn with an outline and a background into packed pixel buffers. A
 * render context belongs to one thread at a time; different contexts may be
 * used at once. The font face is opened on the first rendering and kept for
 * the life of the process; the process stops with GLib's assertion report
 * when the font file cannot be opened. No table, no bind call.
 * @{
 */

/** A renderer for one pixel size and colour scheme, with its glyph cache. */
typedef struct render_text_context render_text_context;

/** A packed pixel buffer. The leftmost pixel of a word is in its least
 * significant bits; rendered buffers are a multiple of 16 pixels wide. A
 * buffer returned by a renderer owns data, which the caller frees. */
typedef struct sized_buffer {
  uint32_t stride; /**< 32-bit words a row */
  uint32_t rows;
  uint32_t width; /**< pixels */
  uint32_t height;
  uint32_t content_width; /**< what the text occupies */
  uint32_t content_height;
  uint32_t* data; /**< stride * rows words, released with free() */
  overlay_format format;
} sized_buffer;

/**
 * Makes a renderer.
 * @param format  OVERLAY_FORMAT_PALETTE_4BIT, OVERLAY_FORMAT_ARGB32 or
 *                OVERLAY_FORMAT_PALETTE_8BIT (one index a byte).
 * @return the context, released with render_text_destroy(); NULL for
 *         another format (logged) or when memory runs out (not logged).
 */
ZANTREL_API render_text_context* render_text_init(overlay_format format);
/** Releases a renderer and its glyph cache; NULL does nothing. */
ZANTREL_API void render_text_destroy(render_text_context* context);
/** The size of a buffer's data in bytes: stride * rows * 4. */
ZANTREL_API uint32_t sized_buffer_datalen(const sized_buffer* buffer);

/**
 * Splits a text at newlines ("\n"; a "\r" stays in its line).
 * @param lines  receives an array of malloc'ed lines; the caller frees each
 *               line and the array.
 * @param count  receives the number of lines (-1 for a NULL text).
 * @return 0; -1 when memory runs out (nothing left allocated); -2 for more
 *         than 512 lines (outputs untouched); non-zero for a NULL text.
 */
ZANTREL_API int split_into_lines(char*** lines, int* count, const char* text);
/**
 * Draws lines, left aligned, into a buffer as wide as the widest line and
 * as high as the lines need, in the context's format.
 * @param size  the text size in pixels (the em size is 0.7 of it).
 * @return the buffer (its data for the caller to free); data NULL and every
 *         field 0 when rendering failed (logged).
 */
ZANTREL_API sized_buffer render_text_buffer_multiline(render_text_context* context,
                                                      char* const* lines, int count,
                                                      overlay_color text_color,
                                                      overlay_color outline_color,
                                                      overlay_color background_color, int size);
/**
 * Draws one line into a band @p width pixels wide (a legacy text, as wide as
 * the stream), with @p extra_rows rows of @p extra_color below it.
 * @return as render_text_buffer_multiline().
 */
ZANTREL_API sized_buffer render_text_buffer_legacy(render_text_context* context, const char* text,
                                                   overlay_color text_color,
                                                   overlay_color outline_color,
                                                   overlay_color background_color,
                                                   overlay_color extra_color, int size,
                                                   uint32_t width, int extra_rows);

struct _cairo;
/** Sets a cairo context's source to a named colour of the default
 * palette; an invalid colour logs as palette_get_color_index(). */
ZANTREL_API void set_source_color(struct _cairo* cr, overlay_color color);
/**
 * The palette entry nearest to a colour (pixel_distance()).
 * @return the index in [start, end), or -1 when the range is empty.
 */
ZANTREL_API int32_t get_palette_value(uint32_t color, const uint32_t* palette, int32_t end,
                                      int32_t start);
/** The squared distance of two ARGB colours, alpha included. */
ZANTREL_API uint32_t pixel_distance(uint32_t a, uint32_t b);
/**
 * Fills a buffer's first @p rows1 rows with @p color1 and the next
 * @p rows2 with @p color2 (counts clamped to the buffer's rows).
 * @return 0; -2 when rows1 + rows2 is not the buffer's height ("not matching
 *         destination heights"); -1 for a format other than the 4-bit,
 *         8-bit palette and ARGB32 ones (logged). The buffer is unchanged on
 *         failure.
 */
ZANTREL_API int set_background(sized_buffer* buffer, overlay_color color1, int32_t rows1,
                               overlay_color color2, int32_t rows2);
/**
 * Whether a renderer is set up for a text record's colours and size
 * (font_size scaled by @p scale, em size 0.7).
 * @return 0 when it is, 1 when it is not (not a failure).
 */
ZANTREL_API int utils_compare_overlay_text_color_and_size(const render_text_context* context,
                                                          const overlay_text* text, float scale);
/** Diagnostics; prints nothing on this system. */
ZANTREL_API void print_image(void);

/** @} */

/* ------------------------------------------------------------------------ */
/* Device text overlays and modifiable text                                 */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup device_text Device text overlays and modifiable text
 * Texts drawn into hardware overlays, and the encoder's per-stream state of
 * a modifiable text (a clock, a scrolling ticker). The encoder's stream
 * contexts call these; a context and its text contexts belong to one
 * thread. Driver failures are logged and give -1 (0 for an id).
 * @{
 */

struct timeval;

/**
 * What the encoder hands in for expanding a text's modifiers each frame:
 * the expansion context of libtokenfill (tokenfill.h) and the frame's time.
 */
typedef struct overlay_expansion_params {
  void* tokenfill_context;    /**< from tokenfill_init() */
  const struct timeval* time; /**< the frame's time */
} overlay_expansion_params;

/** One modifiable text on one stream: its last text, overlay and renderer. */
typedef struct modifiable_text_context modifiable_text_context;

/**
 * Renders a text record as a text overlay gets it: its font size (scaled by
 * the stream's height / 1080 for a scalable text, at least 16), colours and
 * lines, or one band as wide as the stream for a legacy text.
 * @param text    the text to draw, or NULL for t->text.
 * @param stream  the stream to draw for, or NULL for unscaled.
 * @return 0, with out->data for the caller to free; -1 (logged).
 */
ZANTREL_API int o_render_text(sized_buffer* out, const overlay_text* t, render_text_context* render,
                              const overlay_stream_context* stream, const char* text);
/**
 * Renders a text and loads it into a new hardware overlay
 * (OVERLAY_FORMAT_PALETTE_4BIT_DUAL, one buffer), on the stream's
 * descriptor or, without a stream, the process's (o_get_fd()). Sets t's
 * size, format and buffer fields.
 * @param data  receives the content size and a copy of @p t.
 * @param id    receives the new id.
 * @return 0; -1 when rendering or the driver fails (logged; no overlay is
 *         left).
 */
ZANTREL_API int o_create_text_overlay(render_text_context* render,
                                      const overlay_stream_context* stream, overlay_text* t,
                                      overlay_entry_data* data, const char* text, int* id);
/**
 * A new text context for the device descriptor @p fd.
 * @return the context, or NULL ("Could not allocate memory for modifiable
 *         text context").
 */
ZANTREL_API modifiable_text_context* o_modifiable_text_context_create(int fd);
/**
 * The stream's text context for a handle, made on first use.
 * @return the context (owned by the stream context); NULL when it cannot be
 *         made.
 */
ZANTREL_API modifiable_text_context* o_modifiable_text_context_get(overlay_stream_context* stream,
                                                                   int handle);
/** Records the request position where the text's id goes. */
ZANTREL_API void o_modifiable_text_context_update_count(modifiable_text_context* context,
                                                        int count);
/** Releases a text context and destroys its hardware overlay. NULL does
 * nothing. */
ZANTREL_API void o_modifiable_text_context_destroy(modifiable_text_context* context);
/**
 * For g_hash_table_foreach_remove() over a stream's text contexts.
 * @param user_data  the stream's 8 gathered handles.
 * @return 1 (remove) when @p key is not among them, else 0.
 */
ZANTREL_API int o_remove_unused_modifiable_text_context(void* key, void* value, void* user_data);
/**
 * The hardware overlay that shows a modifiable text for this frame. The
 * text is expanded for the frame's time and drawn again only when what it
 * would draw changed (its text, colours or size); into a fresh buffer of
 * the same overlay, or a new overlay when its size changed.
 * @param params  NULL: the text is drawn unexpanded.
 * @return the id; 0 when it cannot be drawn (logged).
 */
ZANTREL_API uint32_t o_get_modifiable_text_overlay_id(overlay_stream_context* stream,
                                                      modifiable_text_context* context,
                                                      overlay_table_entry* slot,
                                                      const overlay_expansion_params* params);
/**
 * Moves a scrolling text one step to the right (by its scroll speed),
 * starting again at the left edge; shows only what fits before the
 * frame's right edge.
 * @return 1 when the overlay was moved, 0 otherwise (a still text, or the
 *         driver refused, logged).
 */
ZANTREL_API int o_update_scrolling_text(overlay_entry_data* data,
                                        const modifiable_text_context* context,
                                        uint32_t stream_width, uint32_t kernel_id);

/** @} */

/* ------------------------------------------------------------------------ */
/* Text and image overlays                                                  */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup text_image Text and image overlays
 * Overlays whose pixels the library makes: texts (fixed, or modifiable:
 * with "#" or "%" modifiers, which the encoder expands every frame, or
 * scrolling) and images (an ".ovl" file, or a directory holding a bitmap
 * "bmp" that is scaled for every stream). The create, update and destroy
 * calls follow the rules of the overlay operations: a bound process, any
 * thread, -1 when the table cannot be mapped or locked. All are destroyed
 * with overlay_destroy().
 * @{
 */

/**
 * Creates a text overlay: the text, expanded for now (local time), drawn in
 * the camera's font into a new hardware overlay, and its entry. A text with
 * a "#" or "%" or a scroll speed becomes OVERLAY_TYPE_MODIFIABLE_TEXT, which
 * the encoder draws again as it changes; any other OVERLAY_TYPE_TEXT. A
 * legacy text (overlay.legacy 1) is drawn by the encoder as a band as wide
 * as each stream; a scalable one (scalable 1) at font_size * height / 1080.
 *
 * @param t  the text and its font_size, colours, scroll_speed, position,
 *           priority. Written: overlay.palette_bank (0), the overlay's
 *           width, height, format, buffer_size, nbr_buffers, and
 *           text_length (bytes of the expanded text).
 * @return the handle, 1 to 100; -2 for a font_size above 200 (nothing
 *         touched); -1 when the text cannot be drawn or loaded (logged);
 *         -10 when every handle is in use (the hardware overlay is destroyed
 *         again). Logs "text overlay created N, scalable = S, (ovl_id I)"
 *         (information).
 */
ZANTREL_API int overlay_text_create(overlay_text* t);
/**
 * Replaces a text overlay's text and look with those of @p t (a new
 * hardware overlay, then the old one is destroyed; a source overlay stays
 * one). Written into @p t as by overlay_text_create(), but palette_bank.
 *
 * @return 0; -2 for a font_size above 200; -6 for a handle outside 1 to 100
 *         or not in use (nothing made); -1 when the text cannot be drawn or
 *         loaded (logged; the overlay stays as it was). Logs "text overlay
 *         updated ..." (information).
 */
ZANTREL_API int overlay_text_update(int handle, overlay_text* t);
/** As overlay_destroy(). */
ZANTREL_API int overlay_text_destroy(int handle);
/**
 * Renders a text record into pixels for the caller, as it would show on a
 * stream, without making anything.
 *
 * @param stream  the stream to draw for (its size scales a scalable text
 *                and is a legacy band's width), or NULL for unscaled.
 * @param text    the text to draw, or NULL for t->text (unexpanded).
 * @param format  the render format (see render_text_init()).
 * @return the pixels, malloc'ed, for the caller to free(), with t's
 *         overlay.width, height and format (OVERLAY_FORMAT_PALETTE_4BIT)
 *         describing them; NULL when it cannot be drawn (logged). Needs no
 *         bind call.
 */
ZANTREL_API uint32_t* overlay_text_render(const overlay_stream_context* stream, overlay_text* t,
                                          const char* text, overlay_format format);
/**
 * Creates an image overlay from image->path: an ".ovl" file (loaded into a
 * hardware overlay of OVERLAY_FORMAT_YCBCR_ALPHA and placed) or a directory
 * holding a bitmap "bmp" (OVERLAY_TYPE_SCALABLE_IMAGE: no hardware overlay
 * of its own; the encoder makes one scaled for each stream).
 *
 * @param image  Written: overlay.palette_bank (0), the overlay's size and
 *               format, and modified_time (the path's, in seconds).
 * @return the handle; -2 when the path does not exist ("Image overlay file
 *         doesn't exist, PATH"); -1 when the file cannot be loaded or the
 *         bitmap's header read (logged); -10 when every handle is in use; 0
 *         (no handle, nothing left) when the path's time cannot be read
 *         (logged).
 */
ZANTREL_API int overlay_image_create(overlay_image* image);
/**
 * Replaces an image overlay's image: a changed path or file time loads the
 * file again into a new hardware overlay (the old one is destroyed after),
 * an unchanged one only moves it. Written into @p image as by
 * overlay_image_create().
 *
 * @return 0; -2 when the path does not exist; -6 for a handle not in use
 *         (nothing made); -1 when the load fails (the overlay stays as it
 *         was), the time cannot be read, or a scalable image would replace
 *         a source overlay (each logged).
 */
ZANTREL_API int overlay_image_update(int handle, overlay_image* image);
/** As overlay_destroy(). */
ZANTREL_API int overlay_image_destroy(int handle);
/**
 * Whether a path is a scalable image (a directory). Needs no bind call.
 * @return 1 for a directory, 0 for anything else, -2 when it does not exist
 *         ("Image overlay file doesn't exist, PATH").
 */
ZANTREL_API int overlay_is_scalable_image(const char* path);
/**
 * The size of the bitmap "DIRECTORY/bmp", from its header. Needs no bind
 * call.
 * @return 0 with @p width and @p height set; -1 when the file cannot be
 *         opened or its header read (logged with the file's name).
 */
ZANTREL_API int overlay_get_scalable_image_dimension(const char* directory, uint32_t* width,
                                                     uint32_t* height);

/** @} */

/* ------------------------------------------------------------------------ */
/* Encoder: stream contexts and the per-frame request                       */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup encoder Encoder: stream contexts and the per-frame request
 * The video encoder's side: one stream context per encoded stream, and once
 * a frame overlay_setup_in_encreq(). A context belongs to one thread of the
 * encoder's process (the library does not lock it); different contexts are
 * independent. It keeps the tables mapped for its life and reads their
 * change counters without the lock, so a frame without change costs no
 * system call; the table lock is taken only to gather after a change.
 * @{
 */

/**
 * Makes the context of one stream. May be made before the overlay system
 * runs: it maps the tables when they exist.
 *
 * @param fd      the device descriptor (from the bind call) for the
 *                stream's own hardware overlays.
 * @param channel 0 to 15; @p stream names the stream's table "/ovl_strm_N".
 * @param unused  ignored.
 * @param width, height  the stream's size; 1080 is the height at which a
 *                scalable text has its own size.
 * @param filter  OVERLAY_FILTER_* bits: which kinds the stream shows.
 * @return the context, released with overlay_stream_context_destroy(); NULL
 *         when memory runs out (not logged).
 */
ZANTREL_API overlay_stream_context* overlay_stream_context_create(int fd, unsigned int channel,
                                                                  unsigned int stream,
                                                                  uint32_t unused, uint32_t width,
                                                                  uint32_t height, uint32_t filter);
/**
 * Releases a context with the hardware overlays it made for its stream
 * (never a table entry's). NULL does nothing.
 */
ZANTREL_API void overlay_stream_context_destroy(overlay_stream_context* context);
/**
 * Once a frame: fills the frame's request with the kernel ids of what the
 * stream shows, at most 8 positions by falling priority (an image takes 2),
 * and its version. After a change of the tables it gathers again and makes
 * the stream's own copies (legacy and scaled texts, scaled images); every
 * frame it draws modifiable texts again when their expansion changed, moves
 * scrolling texts, and tells the driver to refresh when anything moved. A
 * request that carries the context's version is left as it is but for
 * those.
 *
 * @param request  the frame's request; NULL is answered with 0 and nothing
 *                 done.
 * @param params   the expansion context and the frame's time, or NULL: texts
 *                 are drawn unexpanded.
 * @return 0, also when the tables do not exist yet or cannot be locked (the
 *         request is then untouched, and the next frame tries again); -1
 *         for a NULL context ("Need a valid stream context to setup a encode
 *         request"). A copy or text that cannot be drawn is logged, left
 *         out of the frame and tried again on the next one.
 *
 * What the context drew for its stream (copies, modifiable texts with their
 * glyph caches and scroll positions) is kept across gatherings while the
 * entry it was drawn from is unchanged; the drawing of one call is bounded
 * (overlay_stream_context_set_work_bound()).
 */
ZANTREL_API int overlay_setup_in_encreq(overlay_stream_context* context, overlay_encreq* request,
                                        const overlay_expansion_params* params);
/**
 * Bounds the drawing that one overlay_setup_in_encreq() call of this context
 * may do, so that no change of the scene costs the encoder a frame. The
 * bound counts pixels drawn: each glyph its pixels, at least 64 x 64 (its
 * outline costs about as much whatever its size), and a scaled image its
 * pixels. Drawing that does not fit goes on in the following calls, in
 * priority order: until an overlay's new copy is complete, the request shows
 * its former copy, or leaves its place empty when there is none; a copy is
 * never shown half drawn. The pictures are the same whatever the bound.
 *
 * The default, 28672 (seven glyphs), keeps a call below about 2 million
 * instructions and a scene's cold start within a few frames. Called from
 * the stream's encoding thread, like overlay_setup_in_encreq().
 *
 * @param pixels  the bound; 0 means unbounded (everything is drawn in the
 *                call that needs it).
 * @return 0; -2 for a NULL context ("Need a valid stream context to set a
 *         work bound").
 */
ZANTREL_API int overlay_stream_context_set_work_bound(overlay_stream_context* context,
                                                      uint32_t pixels);

/** @} */

/* ------------------------------------------------------------------------ */
/* Diagnostics                                                              */
/* ------------------------------------------------------------------------ */

/**
 * @defgroup diagnostics Diagnostics
 * Print calls kept for programs that call them; on this system they print
 * nothing and never fail. Any thread.
 * @{
 */

/** Prints an overlay record (its position). */
ZANTREL_API void overlay_print_overlay(const overlay* ovl);
/** Prints a position. */
ZANTREL_API void overlay_print_overlay_position(const overlay_position* position);
/** Prints a named colour. */
ZANTREL_API void overlay_print_overlay_color(overlay_color color);
/** Prints a text record (its colours and overlay). */
ZANTREL_API void overlay_print_overlay_text(const overlay_text* text);
/** Prints an image record (its overlay). */
ZANTREL_API void overlay_print_overlay_image(const overlay_image* image);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* ZANTREL_H */
