// The driver commands: one small function per command, each with its record,
// its message and the library's result convention (0, -1 refused, -2 bad
// argument, -3 not on this device).
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "common/log.h"
#include "device.h"
#include "zantrel-base/unique_fd.h"

namespace zantrel::device {
namespace {

constexpr const char* kDeviceNode = "/dev/cam0";
constexpr const char* kQuadNode = "/dev/camquad";
constexpr const char* kGpuNode = "/dev/galcore";
constexpr unsigned kChannels = OVERLAY_NBR_CHANNELS;
constexpr int kNotSupported = -3;

constexpr overlay_caps kCaps = {
    8,
    1,
    1,
    2,
    512,
    200,
    {OVERLAY_FORMAT_FULL_COLOR, OVERLAY_FORMAT_16BIT, OVERLAY_FORMAT_8BIT,
     OVERLAY_FORMAT_PALETTE_4BIT, OVERLAY_FORMAT_PALETTE_4BIT_DUAL, OVERLAY_FORMAT_ARGB32,
     OVERLAY_FORMAT_1BIT, OVERLAY_FORMAT_20BIT, OVERLAY_FORMAT_YCBCR_ALPHA, 0xFFFFFFFFU,
     0xFFFFFFFFU}};

// Logs "Internal error ..." style messages with the error of the failed call.
void log_errno(const char* format) { log_message(LOG_ERR, format, error_text(errno)); }

int source_command(int fd, int id, uint32_t operation) {
  cam_source_params params{operation, static_cast<uint32_t>(id), {}};
  if (device_ioctl(fd, CAM_IOC_SOURCE_PARAMS, &params) < 0) {
    log_errno("libzantrel: Internal error setting source overlay parameters: %s\n");
    return -1;
  }
  return 0;
}

// The per-channel node that answers the stream configuration commands.
std::array<char, 20> channel_node(unsigned channel) {
  std::array<char, 20> path{};
  if (channel == 0) {
    std::snprintf(path.data(), path.size(), "%s", kQuadNode);
  } else {
    std::snprintf(path.data(), path.size(), "/dev/cam%d", static_cast<int>(channel) - 1);
  }
  return path;
}

}  // namespace
}  // namespace zantrel::device

using namespace zantrel::device;  // NOLINT(google-build-using-namespace)
using zantrel::log_message;

extern "C" {

int o_open_fd() {
  int fd = open(kDeviceNode, O_RDWR | O_CLOEXEC);
  // A process that closed its standard descriptors would get the device as
  // one of them: 0 reads as "no descriptor" everywhere, and 1 or 2 would
  // take the process's output. The device is kept above them.
  if (fd >= 0 && fd <= STDERR_FILENO) {
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int error = errno;
    close(fd);
    errno = error;
    fd = moved;
  }
  return fd;
}

int o_close_fd(int fd) { return close(fd); }

int o_create_overlay(int fd, overlay* ovl, int* id, const overlay_entry_data* data) {
  if (ovl == nullptr || id == nullptr || data == nullptr) {
    return -2;
  }
  int32_t type = internal_type(ovl->format);
  internal_overlay rec{};
  rec.width = ovl->width;
  rec.height = ovl->height;
  rec.type = type;
  rec.nbr_buffers = ovl->nbr_buffers;
  rec.coord_type = ovl->position.coord_type;
  if (type < 0) {
    return type;
  }
  o_set_standard_palette(&rec, ovl);
  int rc = o_calculate_overlay_position(&rec, &ovl->position, data->width, data->height);
  if (rc < 0) {
    return rc;
  }
  if (device_ioctl(fd, CAM_IOC_CREATE_OVERLAY, &rec) < 0) {
    log_errno("libzantrel: Internal error when adding overlay: %s\n");
    return -1;
  }
  *id = static_cast<int>(rec.id);
  ovl->buffer_size = rec.buffer_size;
  return 0;
}

int o_destroy_overlay(int fd, int id) {
  if (device_ioctl_value(fd, CAM_IOC_DESTROY_OVERLAY, static_cast<uint32_t>(id)) < 0) {
    const int error = errno;  // the caller may need to know why
    log_errno("libzantrel: Internal error when removing overlay: %s\n");
    errno = error;
    return -1;
  }
  return 0;
}

int o_set_overlay_position(int fd, int id, const overlay_entry_data* data) {
  if (data == nullptr) {
    return -2;
  }
  internal_overlay rec{};
  rec.id = static_cast<uint32_t>(id);
  if (device_ioctl(fd, CAM_IOC_GET_OVERLAY, &rec) < 0) {
    log_errno("libzantrel: Internal error when getting overlay: %s\n");
    log_message(LOG_ERR, "libzantrel: Failed to get overlay.\n");
    return -1;
  }
  if (o_calculate_overlay_position(&rec, &data->description.ovl.position, data->width,
                                   data->height) < 0) {
    log_message(LOG_ERR, "libzantrel: Failed to calculate overlay position.\n");
    return -2;
  }
  if (device_ioctl(fd, CAM_IOC_MODIFY_OVERLAY, &rec) < 0) {
    log_errno("libzantrel: Internal error when modifying overlay: %s\n");
    log_message(LOG_ERR, "libzantrel: Failed to update overlay.\n");
    return -1;
  }
  return 0;
}

int o_get_overlay_buffer(int fd, int id) {
  cam_buffer_query query{static_cast<uint32_t>(id), {}};
  return device_ioctl(fd, CAM_IOC_GET_BUFFER, &query);
}

int o_submit_overlay_buffer(int fd, int id, int32_t offset, uint32_t param) {
  cam_buffer_submit submit{static_cast<uint32_t>(id), param, static_cast<uint32_t>(offset)};
  if (device_ioctl(fd, CAM_IOC_SUBMIT_BUFFER, &submit) < 0) {
    log_errno("libzantrel: Internal error when submitting overlay buffer: %s\n");
    return -1;
  }
  return 0;
}

int o_add_source_overlay(int fd, int id) { return source_command(fd, id, CAM_SOURCE_ADD); }

int o_remove_source_overlay(int fd, int id) { return source_command(fd, id, CAM_SOURCE_REMOVE); }

int o_force_refresh_overlays(int fd) {
  if (device_ioctl(fd, CAM_IOC_MODIFY_OVERLAY, nullptr) < 0) {
    log_errno("libzantrel: Internal error when modifying overlay: %s\n");
    return -1;
  }
  return 0;
}

void o_get_overlay_caps(overlay_caps* caps) {
  if (caps != nullptr) {
    *caps = kCaps;
  }
}

void o_get_max_resolution(unsigned channel, uint32_t* width, uint32_t* height) {
  static constexpr const char* kFunction = "o_get_max_resolution";
  // 0 x 0 unless the driver answers.
  uint32_t unused = 0;
  uint32_t& out_width = width != nullptr ? *width : unused;
  uint32_t& out_height = height != nullptr ? *height : unused;
  out_width = 0;
  out_height = 0;

  if (channel >= kChannels) {
    log_message(LOG_ERR, "libzantrel: %s: Invalid channel.\n", kFunction);
    return;
  }
  std::array<char, 20> path = channel_node(channel);
  zantrel::UniqueFd fd(open(path.data(), O_RDWR | O_CLOEXEC));
  if (!fd) {
    int error = errno;
    log_message(LOG_ERR, "libzantrel: %s: Could not open file descriptor %s.\n", kFunction,
                path.data());
    log_message(LOG_ERR, "libzantrel: Internal error: %s\n", zantrel::error_text(error));
    return;
  }
  cam_stream_config config{};
  config.channel_key = ((channel - 1U) << 8) & 0xFFFFU;
  if (device_ioctl(fd.get(), CAM_IOC_GET_STREAM_CONFIG, &config) < 0) {
    int error = errno;
    fd.reset();
    log_message(LOG_ERR, "libzantrel: %s: Could not get stream configuration.\n", kFunction);
    log_message(LOG_ERR, "libzantrel: Internal error: %s\n", zantrel::error_text(error));
    return;
  }
  out_width = config.max_width;
  out_height = config.max_height;
  if (device_ioctl(fd.get(), CAM_IOC_RETURN_STREAM_CONFIG, &config) < 0) {
    log_message(LOG_ERR, "libzantrel: %s: Could not return stream configuration\n", kFunction);
  }
}

const char* o_get_supported_gl_versions() { return access(kGpuNode, F_OK) == 0 ? "GLES 2.0" : ""; }

int o_get_overlay_by_tag(int /*fd*/, const char* /*tag*/) { return kNotSupported; }

int o_overlay_set_pixelation_size(int /*handle*/, uint32_t /*size*/) {
  log_message(LOG_WARNING, "libzantrel: %s: not supported for Zorvex 6\n",
              "o_overlay_set_pixelation_size");
  return kNotSupported;
}

uint32_t o_encode_get_version(const overlay_encreq* request) {
  return request != nullptr ? request->version : 0;
}

void o_encode_set_version(overlay_encreq* request, uint32_t version) {
  if (request != nullptr) {
    request->version = version;
  }
}

int o_encode_set_overlay_id(overlay_encreq* request, int index, uint32_t id) {
  if (request == nullptr || index < 0 || index >= 8) {
    return -2;
  }
  request->overlay_ids[index] = id;
  return 0;
}

uint32_t o_encode_get_overlay_id(const overlay_encreq* request, int index) {
  if (request == nullptr || index < 0 || index >= 8) {
    return 0;
  }
  return request->overlay_ids[index];
}

}  // extern "C"
