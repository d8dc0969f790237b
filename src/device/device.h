// Device layer internals: the driver command wrapper and the palette
// conversion, shared by the device files and their tests.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/result.h"
#include "zantrel-driver/cam_ioctl.h"
#include "zantrel.h"

// The records cross into the driver and into shared memory: their layout is
// the camera's, whatever the word size of the machine.
static_assert(sizeof(overlay_position) == 20);
static_assert(offsetof(overlay_position, visible_width) == 8);
static_assert(offsetof(overlay_position, coord_type) == 16);
static_assert(sizeof(overlay) == 88);
static_assert(offsetof(overlay, ignore_stream_filter) == 4);
static_assert(offsetof(overlay, buffer_size) == 8);
static_assert(offsetof(overlay, width) == 12);
static_assert(offsetof(overlay, height) == 16);
static_assert(offsetof(overlay, nbr_buffers) == 20);
static_assert(offsetof(overlay, palette_bank) == 24);
static_assert(offsetof(overlay, position) == 28);
static_assert(offsetof(overlay, format) == 48);
static_assert(offsetof(overlay, reserved1) == 52);
static_assert(offsetof(overlay, reserved2) == 56);
static_assert(offsetof(overlay, palette_colors) == 60);
static_assert(offsetof(overlay, legacy) == 76);
static_assert(offsetof(overlay, reserved3) == 80);
static_assert(offsetof(overlay, reserved4) == 84);
static_assert(sizeof(internal_overlay) == 76);
static_assert(offsetof(internal_overlay, x) == 4);
static_assert(offsetof(internal_overlay, y) == 8);
static_assert(offsetof(internal_overlay, width) == 12);
static_assert(offsetof(internal_overlay, height) == 16);
static_assert(offsetof(internal_overlay, type) == 20);
static_assert(offsetof(internal_overlay, nbr_buffers) == 24);
static_assert(offsetof(internal_overlay, visible_width) == 36);
static_assert(offsetof(internal_overlay, visible_height) == 40);
static_assert(offsetof(internal_overlay, coord_type) == 44);
static_assert(offsetof(internal_overlay, palette_bank) == 48);
static_assert(offsetof(internal_overlay, palette_colors) == 52);
static_assert(offsetof(internal_overlay, buffer_size) == 68);
static_assert(offsetof(internal_overlay, reserved2) == 72);
static_assert(sizeof(cam_palette_color) == 9);
static_assert(offsetof(cam_palette_color, alpha) == 5);
static_assert(offsetof(cam_palette_color, flag) == 8);
static_assert(sizeof(cam_buffer_submit) == 12);
static_assert(sizeof(cam_buffer_query) == 24);
static_assert(sizeof(cam_source_params) == 20);
static_assert(sizeof(cam_stream_config) == 436);
static_assert(offsetof(cam_stream_config, max_width) == 48);
static_assert(offsetof(cam_stream_config, max_height) == 52);
static_assert(sizeof(overlay_caps) == 17 * 4);
static_assert(sizeof(overlay_encreq) == 40);
static_assert(offsetof(overlay_encreq, overlay_ids) == 4);
static_assert(offsetof(overlay_encreq, version) == 36);
// The command numbers carry their record sizes (bits 16 to 29).
static_assert(((CAM_IOC_CREATE_OVERLAY >> 16) & 0x3FFF) == sizeof(internal_overlay));
static_assert(((CAM_IOC_SUBMIT_BUFFER >> 16) & 0x3FFF) == sizeof(cam_buffer_submit));
static_assert(((CAM_IOC_GET_BUFFER >> 16) & 0x3FFF) == sizeof(cam_buffer_query));
static_assert(((CAM_IOC_SOURCE_PARAMS >> 16) & 0x3FFF) == sizeof(cam_source_params));
static_assert(((CAM_IOC_SET_PALETTE_COLOR >> 16) & 0x3FFF) == sizeof(cam_palette_color));
static_assert(((CAM_IOC_GET_STREAM_CONFIG >> 16) & 0x3FFF) == sizeof(cam_stream_config));

// Text and image descriptions are stored in shared memory as an entry's
// description, so their layouts are fixed.
static_assert(sizeof(overlay_text) == 628);
static_assert(offsetof(overlay_text, text) == 88);
static_assert(offsetof(overlay_text, font_size) == 600);
static_assert(offsetof(overlay_text, scalable) == 604);
static_assert(offsetof(overlay_text, text_color) == 608);
static_assert(offsetof(overlay_text, background_color) == 612);
static_assert(offsetof(overlay_text, outline_color) == 616);
static_assert(offsetof(overlay_text, scroll_speed) == 620);
static_assert(offsetof(overlay_text, text_length) == 624);
static_assert(sizeof(overlay_image) == 608);
static_assert(offsetof(overlay_image, path) == 88);
static_assert(offsetof(overlay_image, reserved) == 600);
static_assert(offsetof(overlay_image, modified_time) == 604);

namespace zantrel::device {

// Driver type of a pixel format, or -2 (logged) for one the driver lacks.
int32_t internal_type(overlay_format format);

// The command numbers the driver answers to are 32-bit; one wrapper issues
// them all and repeats a command that a signal interrupted.
int device_ioctl(int fd, uint32_t request, void* arg);
// Commands whose argument is a plain value rather than a record.
int device_ioctl_value(int fd, uint32_t request, unsigned long value);

// Fills luma, cb, cr and alpha of a palette record from an ARGB colour.
void palette_argb_to_ycbcr(cam_palette_color* out, uint32_t argb);

}  // namespace zantrel::device
