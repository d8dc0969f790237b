// Image overlays: an ".ovl" file loaded into one hardware overlay, or a
// bitmap directory whose per-stream copies the encoder makes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "api.h"
#include "common/log.h"
#include "zantrel-base/io.h"
#include "zantrel-base/unique_fd.h"

namespace zantrel::api {
namespace {

constexpr size_t kPathSize = sizeof(overlay_image{}.path);
constexpr size_t kBitmapHeaderBytes = 58;

// A path from a caller's record is used only when it ends within its field.
bool bounded(const overlay_image& image) {
  return std::memchr(image.path, '\0', kPathSize) != nullptr;
}

}  // namespace

int _get_ovl_file_modified_time(const char* path, uint32_t* time) {
  struct stat info {};
  if (stat(path, &info) != 0) {
    log_message(LOG_ERR, "libzantrel: Error getting info from ovl file: %s\n", error_text(errno));
    return -1;
  }
  *time = static_cast<uint32_t>(info.st_mtime);
  return 0;
}

}  // namespace zantrel::api

namespace zantrel::api {
namespace {
int create_image(overlay_image* image);
int update_image(int handle, overlay_image* image);
}  // namespace
}  // namespace zantrel::api

using zantrel::log_message;
using namespace zantrel::api;

extern "C" {

int overlay_is_scalable_image(const char* path) {
  struct stat info {};
  if (path == nullptr || stat(path, &info) != 0) {
    log_message(LOG_ERR, "libzantrel: Image overlay file doesn't exist, %s\n",
                path != nullptr ? path : "(null)");
    return -2;
  }
  return S_ISDIR(info.st_mode) ? 1 : 0;
}

int overlay_get_scalable_image_dimension(const char* directory, uint32_t* width, uint32_t* height) {
  char name[kPathSize];
  const int length = std::snprintf(name, sizeof name, "%s/bmp", directory);
  if (length < 0 || static_cast<size_t>(length) >= sizeof name) {
    log_message(LOG_ERR, "libzantrel: Error concatenating strings\n");
    return -1;
  }
  zantrel::UniqueFd file(open(name, O_RDONLY | O_CLOEXEC));
  if (!file) {
    log_message(LOG_ERR, "libzantrel: Could not open file: %s\n", name);
    return -1;
  }
  unsigned char block[kBitmapHeaderBytes];
  if (!zantrel::read_exactly(file.get(), block, sizeof block)) {
    log_message(LOG_ERR, "libzantrel: Could not read from file %s\n", name);
    return -1;
  }
  auto le32 = [&block](size_t at) {
    return static_cast<uint32_t>(block[at]) | static_cast<uint32_t>(block[at + 1]) << 8 |
           static_cast<uint32_t>(block[at + 2]) << 16 | static_cast<uint32_t>(block[at + 3]) << 24;
  };
  *width = le32(18);
  // A top-down bitmap stores its height negated.
  const auto height_field = static_cast<int32_t>(le32(22));
  *height = height_field < 0 ? 0u - static_cast<uint32_t>(height_field)
                             : static_cast<uint32_t>(height_field);
  return 0;
}

int overlay_image_create(overlay_image* image) {
  if (image == nullptr) return -2;
  return api_call("overlay_image_create", [&] { return create_image(image); });
}

int overlay_image_update(int handle, overlay_image* image) {
  if (image == nullptr) return -2;
  return api_call("overlay_image_update", [&] { return update_image(handle, image); });
}

}  // extern "C"

namespace zantrel::api {
namespace {

int create_image(overlay_image* image) {
  int kernel_id = 0;
  overlay_entry_data data{};
  zantrel::table::MappedTable table = zantrel::table::map_table();
  if (!table) return -1;
  image->overlay.palette_bank = 0;
  const int scalable = bounded(*image) ? overlay_is_scalable_image(image->path)
                                       : overlay_is_scalable_image("(unterminated path)");
  if (scalable == -2) return -2;
  const int fd = o_get_fd();
  if (scalable == 0) {
    if (int rc = o_create_image_overlay_from_ovl_file(image, fd, &kernel_id, &data); rc != 0) {
      return rc;
    }
    if (_get_ovl_file_modified_time(image->path, &image->modified_time) != 0) {
      zantrel::device::destroy_or_keep(fd, kernel_id);
      return 0;
    }
    data.type = OVERLAY_TYPE_IMAGE;
  } else {
    const int rc = overlay_get_scalable_image_dimension(image->path, &image->overlay.width,
                                                        &image->overlay.height);
    data.width = image->overlay.width;
    data.height = image->overlay.height;
    if (rc != 0) return -1;
    if (_get_ovl_file_modified_time(image->path, &image->modified_time) != 0) return 0;
    data.type = OVERLAY_TYPE_SCALABLE_IMAGE;
  }
  data.kernel_id = kernel_id;
  std::memcpy(&data.description.image, image, sizeof *image);
  if (zantrel::has_overlay(kernel_id)) o_set_overlay_position(fd, kernel_id, &data);

  int handle = -1;
  {
    zantrel::table::TableLock lock(table.get());
    if (lock.result() == 0) handle = overlay_table_create_overlay(table.get(), &data);
  }
  table.reset();
  if (handle <= 0 && zantrel::has_overlay(kernel_id))
    zantrel::device::destroy_or_keep(fd, kernel_id);
  return handle;
}

int update_image(int handle, overlay_image* image) {
  zantrel::table::MappedTable table = zantrel::table::map_table();
  if (!table) return -1;
  const int scalable = bounded(*image) ? overlay_is_scalable_image(image->path)
                                       : overlay_is_scalable_image("(unterminated path)");
  if (scalable == -2) return -2;
  const int fd = o_get_fd();

  std::optional<zantrel::table::TableLock> lock;
  lock.emplace(table.get());
  if (lock->result() != 0) return -1;
  const bool in_source = overlay_table_is_source_entry(table.get(), handle) == 0;
  const overlay_table_entry* entry = overlay_table_get_entry(table.get(), handle);
  if (entry == nullptr) return -1;
  if (const int used = entry_in_use_locked(table.get(), handle); used != 0) return used;
  int current = entry->data.kernel_id;
  overlay_entry_data data = entry->data;
  int loaded = 0;

  if (scalable == 1) {
    if (in_source) {
      lock.reset();
      log_message(LOG_ERR,
                  "libzantrel: Attempted update of scalable image source overlay (handle:%d)\n",
                  handle);
      return -1;
    }
    overlay_get_scalable_image_dimension(image->path, &image->overlay.width,
                                         &image->overlay.height);
    data.width = image->overlay.width;
    data.height = image->overlay.height;
    data.type = OVERLAY_TYPE_SCALABLE_IMAGE;
  } else {
    uint32_t modified = 0;
    if (_get_ovl_file_modified_time(image->path, &modified) != 0) return -1;
    image->modified_time = modified;
    const overlay_image& stored = data.description.image;
    if (std::memcmp(stored.path, image->path, kPathSize) != 0 ||
        stored.modified_time != image->modified_time) {
      // Loading takes long; the table is not held meanwhile.
      lock.reset();
      // A failed load is the call's failure: the entry keeps its image,
      // path and time, so that the same call can be made again.
      if (o_create_image_overlay_from_ovl_file(image, fd, &loaded, &data) != 0) return -1;
      current = loaded;
      lock.emplace(table.get());
      if (lock->result() != 0) {
        zantrel::device::destroy_or_keep(fd, loaded);
        return -1;
      }
      // Destroyed while the file was loaded: the handle is free again.
      if (const int used = entry_in_use_locked(table.get(), handle); used != 0) {
        lock.reset();
        zantrel::device::destroy_or_keep(fd, loaded);
        return used;
      }
    }
    data.type = OVERLAY_TYPE_IMAGE;
  }
  data.kernel_id = current;
  std::memcpy(&data.description.image, image, sizeof *image);
  int former = 0;
  const int rc = overlay_table_update_overlay(table.get(), handle, &data, &former);
  if (current != 0) o_set_overlay_position(fd, current, &data);
  lock.reset();
  table.reset();
  if (rc != 0) {
    zantrel::device::destroy_or_keep(fd, loaded);
    return rc;
  }
  zantrel::device::destroy_or_keep(fd, former);
  return 0;
}

}  // namespace
}  // namespace zantrel::api

extern "C" {

int overlay_image_destroy(int handle) { return overlay_destroy(handle); }

}  // extern "C"
