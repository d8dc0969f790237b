/*
 * The camera driver's command numbers and records, as the kernel driver
 * defines them. Shared by the device layer and the simulated driver, so it
 * stays plain C. Every record is little-endian with a fixed layout.
 */
#ifndef ZANTREL_CAM_IOCTL_H
#define ZANTREL_CAM_IOCTL_H

#include <stdint.h>

#include "zantrel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Overlay commands, type '7'. */
#define CAM_IOC_CREATE_OVERLAY 0x404C3701u
#define CAM_IOC_MODIFY_OVERLAY 0x404C3702u
#define CAM_IOC_GET_OVERLAY 0x804C3703u
#define CAM_IOC_SUBMIT_BUFFER 0x400C3704u
#define CAM_IOC_GET_BUFFER 0x80183705u
#define CAM_IOC_DESTROY_OVERLAY 0x40043706u
#define CAM_IOC_SOURCE_PARAMS 0x40143707u
#define CAM_IOC_SET_PALETTE_COLOR 0x40093709u
/* Stream configuration commands, type '/', on the per-channel nodes. */
#define CAM_IOC_GET_STREAM_CONFIG 0x41B42F0Au
#define CAM_IOC_RETURN_STREAM_CONFIG 0x41B42F0Bu

/* Submit buffer (12 bytes). */
typedef struct cam_buffer_submit {
  uint32_t id;
  uint32_t param;
  uint32_t offset;
} cam_buffer_submit;

/* Get buffer (24 bytes); the command's result is the mapping offset. */
typedef struct cam_buffer_query {
  uint32_t id;
  uint32_t reserved[5];
} cam_buffer_query;

/* Source overlay parameters (20 bytes). */
#define CAM_SOURCE_ADD 0u
#define CAM_SOURCE_REMOVE 1u
typedef struct cam_source_params {
  uint32_t operation;
  uint32_t id;
  uint32_t reserved[3];
} cam_source_params;

/* Set palette colour (9 bytes). */
typedef struct cam_palette_color {
  uint8_t index;
  uint8_t bank; /* 0 standard, 1 user */
  uint8_t luma;
  uint8_t cb;
  uint8_t cr;
  uint8_t alpha;
  uint8_t reserved[2];
  uint8_t flag;
} cam_palette_color;

/* Stream configuration (436 bytes); the driver owns the unnamed bytes. */
typedef struct cam_stream_config {
  uint32_t channel_key; /* ((channel - 1) << 8) & 0xFFFF */
  uint8_t reserved1[44];
  uint32_t max_width;
  uint32_t max_height;
  uint8_t reserved2[380];
} cam_stream_config;

#ifdef __cplusplus
}
#endif

#endif /* ZANTREL_CAM_IOCTL_H */
