/*
 * libzantrel — overlays for the camera's video pipeline.
 *
 * Public C interface. Every record that crosses a process or the driver
 * boundary has a fixed byte layout (32-bit little-endian words); the main
 * table differs between word sizes only in the size of its trailing mutex.
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

/* Owner: opens the device (fd 0) or takes the caller's, makes the tables
 * afresh and loads the default palette. Returns the descriptor in use. */
ZANTREL_API int overlay_init(int fd);
/* Any other process: requires the main table. Returns the descriptor. */
ZANTREL_API int overlay_attach(int fd);
ZANTREL_API int overlay_deinit(void);
ZANTREL_API int overlay_detach(void);
ZANTREL_API int o_get_fd(void);
ZANTREL_API void overlay_get_max_resolution(unsigned int channel, uint32_t* width,
                                            uint32_t* height);
ZANTREL_API void overlay_get_caps(overlay_caps* caps);
ZANTREL_API const char* overlay_get_supported_gl_versions(void);
ZANTREL_API int overlay_set_pixelation_size(int handle, uint32_t size);

/* ------------------------------------------------------------------------ */
/* Overlay operations                                                       */
/* ------------------------------------------------------------------------ */

ZANTREL_API int overlay_create(overlay* ovl);
ZANTREL_API int overlay_destroy(int handle);
ZANTREL_API int overlay_update(int handle, const overlay* ovl);
ZANTREL_API int overlay_get_buffer(int handle, int32_t* offset);
ZANTREL_API int overlay_submit_buffer(int handle, int32_t offset, uint32_t param);
ZANTREL_API int overlay_find(const char* tag);
ZANTREL_API int overlay_add_globally(int handle);
ZANTREL_API int overlay_remove_globally(int handle);
ZANTREL_API int overlay_add_to_source(int fd, int handle);
ZANTREL_API int overlay_remove_from_source(int fd, int handle);
ZANTREL_API int overlay_add_to_channel(int handle, unsigned int channel);
ZANTREL_API int overlay_remove_from_channel(int handle, unsigned int channel);
ZANTREL_API int overlay_add_to_stream(int handle, int unused, int stream);
ZANTREL_API int overlay_remove_from_stream(int handle, int unused, int stream);
ZANTREL_API int overlay_clear_stream(int unused, int stream);
ZANTREL_API int overlay_palette_set_color(const overlay_palette_color* color, unsigned int index);
/* Stores a malloc'ed copy of the 16 shared colours; the caller frees it. */
ZANTREL_API int overlay_palette_get_all_colors(overlay_palette_color** colors, int32_t* count);
ZANTREL_API int utils_compare_overlay_position(const overlay_position* a,
                                               const overlay_position* b);

/* ------------------------------------------------------------------------ */
/* Device commands                                                          */
/* ------------------------------------------------------------------------ */

ZANTREL_API int o_open_fd(void);
ZANTREL_API int o_close_fd(int fd);
ZANTREL_API int o_create_overlay(int fd, overlay* ovl, int* id, const overlay_entry_data* data);
ZANTREL_API int o_destroy_overlay(int fd, int id);
ZANTREL_API int o_set_overlay_position(int fd, int id, const overlay_entry_data* data);
ZANTREL_API int o_get_overlay_buffer(int fd, int id);
ZANTREL_API int o_submit_overlay_buffer(int fd, int id, int32_t offset, uint32_t param);
ZANTREL_API int o_add_source_overlay(int fd, int id);
ZANTREL_API int o_remove_source_overlay(int fd, int id);
ZANTREL_API int o_force_refresh_overlays(int fd);
ZANTREL_API void o_get_overlay_caps(overlay_caps* caps);
ZANTREL_API void o_get_max_resolution(unsigned int channel, uint32_t* width, uint32_t* height);
ZANTREL_API const char* o_get_supported_gl_versions(void);
ZANTREL_API int o_get_overlay_by_tag(int fd, const char* tag);
ZANTREL_API int o_overlay_set_pixelation_size(int handle, uint32_t size);
ZANTREL_API uint32_t o_encode_get_version(const overlay_encreq* request);
ZANTREL_API void o_encode_set_version(overlay_encreq* request, uint32_t version);
ZANTREL_API int o_encode_set_overlay_id(overlay_encreq* request, int index, uint32_t id);
ZANTREL_API uint32_t o_encode_get_overlay_id(const overlay_encreq* request, int index);

/* ------------------------------------------------------------------------ */
/* Overlay records and formats                                              */
/* ------------------------------------------------------------------------ */

ZANTREL_API int32_t o_get_overlay_internal_type(overlay_format format);
ZANTREL_API int32_t o_get_nbr_internal_slots(overlay_format format);
ZANTREL_API int32_t o_calculate_overlay_size(uint32_t width, uint32_t height,
                                             overlay_format format);
ZANTREL_API void o_set_standard_palette(internal_overlay* out, const overlay* in);
ZANTREL_API int o_calculate_overlay_position(internal_overlay* rec, const overlay_position* pos,
                                             uint32_t content_width, uint32_t content_height);

/* ------------------------------------------------------------------------ */
/* Image files (".ovl")                                                     */
/* ------------------------------------------------------------------------ */

#define OVL_HEADER_SIZE 78

/* header: the first OVL_HEADER_SIZE bytes of a file. */
ZANTREL_API int ovl_valid_header(const uint8_t* header);
/* '1', '2' or '4', else 255. */
ZANTREL_API uint8_t ovl_header_version(const uint8_t* header);
/* The transparency key compared with (luma << 8). */
ZANTREL_API uint32_t ovl_get_alpha(const uint8_t* header);
/* Loads image->path into a new hardware overlay of OVERLAY_FORMAT_YCBCR_ALPHA;
 * sets data's width and height to the image's size. 0 or -1. */
ZANTREL_API int o_create_image_overlay_from_ovl_file(overlay_image* image, int fd, int* id,
                                                     overlay_entry_data* data);
/* The same for the bitmap directory image->path, scaled for one stream. */
ZANTREL_API int o_create_scaled_image_overlay_from_ovl_file(overlay_image* image, int fd, int* id,
                                                            unsigned int channel,
                                                            uint32_t stream_width,
                                                            uint32_t stream_height,
                                                            overlay_entry_data* data);

/* ------------------------------------------------------------------------ */
/* Palette                                                                  */
/* ------------------------------------------------------------------------ */

/* Default colours, ARGB. */
ZANTREL_API extern const uint32_t static_palette[OVERLAY_PALETTE_SIZE];
/* BT.601 full-range coefficients in 16.16 fixed point: rows Y, Cb, Cr;
 * columns red, green, blue. */
ZANTREL_API extern const int32_t rgb2ycbcr[9];

ZANTREL_API int palette_set_default(int fd);
ZANTREL_API int palette_get_default(const uint32_t** colors, int* first);
ZANTREL_API int palette_set_color_argb(int fd, uint32_t argb, int index, int flag);
ZANTREL_API int32_t palette_get_color(int index);
ZANTREL_API int palette_get_color_index(overlay_color color);

/* ------------------------------------------------------------------------ */
/* Shared table: store and lock                                             */
/* ------------------------------------------------------------------------ */

ZANTREL_API int overlay_table_init(void);
ZANTREL_API int overlay_table_deinit(void);
ZANTREL_API int overlay_table_exists(void);
/* Returns MAP_FAILED when the table cannot be mapped. */
ZANTREL_API overlay_table* overlay_table_map(void);
ZANTREL_API int overlay_table_unmap(overlay_table* table);
ZANTREL_API int overlay_table_lock(overlay_table* table);
ZANTREL_API int overlay_table_try_lock(overlay_table* table);
ZANTREL_API int overlay_table_unlock(overlay_table* table);

/* ------------------------------------------------------------------------ */
/* Shared table: entries and membership (caller holds the table lock)       */
/* ------------------------------------------------------------------------ */

ZANTREL_API int overlay_table_create_overlay(overlay_table* table, const overlay_entry_data* data);
ZANTREL_API int overlay_table_destroy_overlay(overlay_table* table, int handle);
ZANTREL_API overlay_table_entry* overlay_table_get_entry(overlay_table* table, int handle);
ZANTREL_API int overlay_table_update_overlay(overlay_table* table, int handle,
                                             const overlay_entry_data* data,
                                             int* replaced_kernel_id);
ZANTREL_API int overlay_table_find_handle_by_kernel_id(overlay_table* table, int kernel_id);
ZANTREL_API int overlay_table_add_overlay_globally(overlay_table* table, int handle);
ZANTREL_API int overlay_table_remove_overlay_globally(overlay_table* table, int handle);
ZANTREL_API int overlay_table_add_overlay_to_source(overlay_table* table, int handle);
ZANTREL_API int overlay_table_remove_overlay_from_source(overlay_table* table, int handle);
ZANTREL_API int overlay_table_add_overlay_to_channel(overlay_table* table, int handle,
                                                     unsigned int channel);
ZANTREL_API int overlay_table_remove_overlay_from_channel(overlay_table* table, int handle,
                                                          unsigned int channel);
/* Refuses an index above 15 with -2. */
ZANTREL_API int overlay_table_set_palette_color(overlay_table* table,
                                                const overlay_palette_color* color,
                                                unsigned int index);
ZANTREL_API int overlay_table_palette_get_all_colors(overlay_table* table,
                                                     overlay_palette_color* colors);
ZANTREL_API void overlay_print_table_entry(const overlay_table_entry* entry);

/* ------------------------------------------------------------------------ */
/* Shared table: stream tables and queries                                  */
/* ------------------------------------------------------------------------ */

/* Returns MAP_FAILED when the stream has no table. */
ZANTREL_API overlay_stream_table* overlay_table_map_stream(int stream);
ZANTREL_API int overlay_table_unmap_stream(overlay_stream_table* stream_table);
ZANTREL_API int overlay_table_add_overlay_to_stream(overlay_table* table, int handle, int stream);
ZANTREL_API int overlay_table_remove_overlay_from_stream(overlay_table* table, int handle,
                                                         int stream);
ZANTREL_API int overlay_table_get_stream_table_version(int stream, unsigned int* version);
ZANTREL_API int overlay_table_remove_stream(int stream);
/* Gathers at most 8 entries of the global, channel and stream sets that pass
 * the filter, by falling priority. A channel above 15 gives -4 with every
 * handle set to -6. */
ZANTREL_API int overlay_table_get_entries(overlay_table* table, overlay_stream_table* stream_table,
                                          overlay_table_entry entries[OVERLAY_SET_PLACES],
                                          int32_t handles[OVERLAY_SET_PLACES], unsigned int channel,
                                          int stream, unsigned int filter);
ZANTREL_API int overlay_table_get_source_entries(overlay_table* table,
                                                 overlay_table_entry** entries, unsigned int count);
ZANTREL_API int overlay_table_is_source_entry(overlay_table* table, int handle);

/* ------------------------------------------------------------------------ */
/* Text rendering                                                           */
/* ------------------------------------------------------------------------ */

/* A renderer for one pixel size and colour scheme, with its glyph cache. */
typedef struct render_text_context render_text_context;

/* A packed pixel buffer. The leftmost pixel of a word is in its least
 * significant bits; rendered buffers are a multiple of 16 pixels wide. A
 * buffer returned by a renderer owns data, which the caller frees. */
typedef struct sized_buffer {
  uint32_t stride; /* 32-bit words a row */
  uint32_t rows;
  uint32_t width; /* pixels */
  uint32_t height;
  uint32_t content_width; /* what the text occupies */
  uint32_t content_height;
  uint32_t* data; /* stride * rows words, released with free() */
  overlay_format format;
} sized_buffer;

/* format: OVERLAY_FORMAT_PALETTE_4BIT, OVERLAY_FORMAT_ARGB32 or
 * OVERLAY_FORMAT_PALETTE_8BIT. */
ZANTREL_API render_text_context* render_text_init(overlay_format format);
ZANTREL_API void render_text_destroy(render_text_context* context);
ZANTREL_API uint32_t sized_buffer_datalen(const sized_buffer* buffer);

/* Splits text at newlines into at most 512 separately allocated lines; the
 * caller frees each line and the array. 0, -1 out of memory, -2 too many
 * lines, non-zero for a NULL text. */
ZANTREL_API int split_into_lines(char*** lines, int* count, const char* text);
/* data is NULL (and every field 0) when rendering failed. */
ZANTREL_API sized_buffer render_text_buffer_multiline(render_text_context* context,
                                                      char* const* lines, int count,
                                                      overlay_color text_color,
                                                      overlay_color outline_color,
                                                      overlay_color background_color, int size);
ZANTREL_API sized_buffer render_text_buffer_legacy(render_text_context* context, const char* text,
                                                   overlay_color text_color,
                                                   overlay_color outline_color,
                                                   overlay_color background_color,
                                                   overlay_color extra_color, int size,
                                                   uint32_t width, int extra_rows);

struct _cairo;
ZANTREL_API void set_source_color(struct _cairo* cr, overlay_color color);
/* Index of the palette entry in [start, end) nearest to color, or -1. */
ZANTREL_API int32_t get_palette_value(uint32_t color, const uint32_t* palette, int32_t end,
                                      int32_t start);
ZANTREL_API uint32_t pixel_distance(uint32_t a, uint32_t b);
ZANTREL_API int set_background(sized_buffer* buffer, overlay_color color1, int32_t rows1,
                               overlay_color color2, int32_t rows2);
/* 1 when context is not set up for the record's colours and size. */
ZANTREL_API int utils_compare_overlay_text_color_and_size(const render_text_context* context,
                                                          const overlay_text* text, float scale);
ZANTREL_API void print_image(void);

/* ------------------------------------------------------------------------ */
/* Device text overlays and modifiable text                                 */
/* ------------------------------------------------------------------------ */

struct timeval;

/* What the encoder hands in for expanding a text's modifiers each frame. */
typedef struct overlay_expansion_params {
  void* tokenfill_context;    /* from tokenfill_init */
  const struct timeval* time; /* the frame's time */
} overlay_expansion_params;

/* One modifiable text on one stream: its last text, overlay and renderer. */
typedef struct modifiable_text_context modifiable_text_context;

/* Renders t (or text when not NULL) for stream, or unscaled when stream is
 * NULL. 0, with out->data for the caller to free, or -1. */
ZANTREL_API int o_render_text(sized_buffer* out, const overlay_text* t, render_text_context* render,
                              const overlay_stream_context* stream, const char* text);
/* Renders and loads a text into a new hardware overlay (dual 4-bit, one
 * buffer); data receives the content size and a copy of t. 0 or -1. */
ZANTREL_API int o_create_text_overlay(render_text_context* render,
                                      const overlay_stream_context* stream, overlay_text* t,
                                      overlay_entry_data* data, const char* text, int* id);
ZANTREL_API modifiable_text_context* o_modifiable_text_context_create(int fd);
/* The stream's context for handle, made on first use; NULL on failure. */
ZANTREL_API modifiable_text_context* o_modifiable_text_context_get(overlay_stream_context* stream,
                                                                   int handle);
ZANTREL_API void o_modifiable_text_context_update_count(modifiable_text_context* context,
                                                        int count);
/* Also destroys the context's hardware overlay. NULL does nothing. */
ZANTREL_API void o_modifiable_text_context_destroy(modifiable_text_context* context);
/* For g_hash_table_foreach_remove over a stream's text contexts; user_data
 * is the stream's 8 gathered handles. 1 when key is not among them. */
ZANTREL_API int o_remove_unused_modifiable_text_context(void* key, void* value, void* user_data);
/* The id of the hardware overlay showing the text for this frame, drawn
 * again only when it changed; 0 on failure. */
ZANTREL_API uint32_t o_get_modifiable_text_overlay_id(overlay_stream_context* stream,
                                                      modifiable_text_context* context,
                                                      overlay_table_entry* slot,
                                                      const overlay_expansion_params* params);
/* Moves a scrolling text one step; 1 when the overlay was moved. */
ZANTREL_API int o_update_scrolling_text(overlay_entry_data* data,
                                        const modifiable_text_context* context,
                                        uint32_t stream_width, uint32_t kernel_id);

/* ------------------------------------------------------------------------ */
/* Text and image overlays                                                  */
/* ------------------------------------------------------------------------ */

/* A handle, -2 when font_size is above 200, or a negative failure. */
ZANTREL_API int overlay_text_create(overlay_text* t);
ZANTREL_API int overlay_text_update(int handle, overlay_text* t);
ZANTREL_API int overlay_text_destroy(int handle);
/* The text rendered in format for stream (or unscaled), or NULL; t's width,
 * height and format describe it. The caller frees the pixels. */
ZANTREL_API uint32_t* overlay_text_render(const overlay_stream_context* stream, overlay_text* t,
                                          const char* text, overlay_format format);
/* A handle; -2 when the path does not exist; 0 when its time is unreadable. */
ZANTREL_API int overlay_image_create(overlay_image* image);
ZANTREL_API int overlay_image_update(int handle, overlay_image* image);
ZANTREL_API int overlay_image_destroy(int handle);
/* 1 for a directory (a scalable image), 0 for a file, -2 when missing. */
ZANTREL_API int overlay_is_scalable_image(const char* path);
ZANTREL_API int overlay_get_scalable_image_dimension(const char* directory, uint32_t* width,
                                                     uint32_t* height);

/* ------------------------------------------------------------------------ */
/* Encoder: stream contexts and the per-frame request                       */
/* ------------------------------------------------------------------------ */

/* May be made before the table exists; NULL when out of memory. */
ZANTREL_API overlay_stream_context* overlay_stream_context_create(int fd, unsigned int channel,
                                                                  unsigned int stream,
                                                                  uint32_t unused, uint32_t width,
                                                                  uint32_t height, uint32_t filter);
ZANTREL_API void overlay_stream_context_destroy(overlay_stream_context* context);
/* Once a frame: fills request with the stream's overlay ids. params may be
 * NULL (texts are drawn unexpanded). -1 for a NULL context, else 0. */
ZANTREL_API int overlay_setup_in_encreq(overlay_stream_context* context, overlay_encreq* request,
                                        const overlay_expansion_params* params);
/* Bounds the drawing that one overlay_setup_in_encreq call of this context
 * may do, in glyph pixels drawn (a scaled image counts its pixels); 0 means
 * unbounded. Work left over goes on in the following calls: until an
 * overlay's new copy is complete the request shows its previous copy, or
 * nothing at its place when there is none. The default, 28672 (seven glyphs of 64x64 pixels), keeps
 * every call of a full scene far inside a frame on the camera. The encoder's thread of the stream
 * calls it, like overlay_setup_in_encreq. Returns 0, or -2 (logged) for a NULL context. */
ZANTREL_API int overlay_stream_context_set_work_bound(overlay_stream_context* context,
                                                      uint32_t pixels);

/* ------------------------------------------------------------------------ */
/* Diagnostics                                                              */
/* ------------------------------------------------------------------------ */

ZANTREL_API void overlay_print_overlay(const overlay* ovl);
ZANTREL_API void overlay_print_overlay_position(const overlay_position* position);
ZANTREL_API void overlay_print_overlay_color(overlay_color color);
ZANTREL_API void overlay_print_overlay_text(const overlay_text* text);
ZANTREL_API void overlay_print_overlay_image(const overlay_image* image);

#ifdef __cplusplus
}
#endif

#endif /* ZANTREL_H */
