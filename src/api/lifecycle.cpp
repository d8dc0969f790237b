// Binding a process to the camera device and the shared tables: the owner
// with overlay_init / overlay_deinit, every other process with
// overlay_attach / overlay_detach.
#include <cerrno>

#include "common/log.h"
#include "kept_overlays.h"
#include "zantrel.h"

namespace zantrel::api {
namespace {

// Written only by the bind and unbind calls, which belong to a process's
// start-up and shutdown; read from any thread in between.
struct LibraryState {
  int device_fd = 0;  // 0: not bound
  bool fd_from_caller = false;
};

LibraryState g_state;

// Takes the caller's descriptor or opens the device; -2 or -1 on failure.
int bind(int fd) {
  if (fd < 0) {
    return -2;
  }
  if (fd > 0) {
    g_state = {fd, true};
    return 0;
  }
  int own = o_open_fd();
  if (own < 0) {
    // Says what is missing: on a workstation the device exists only under
    // the simulated driver.
    zantrel::log_message(LOG_ERR,
                         "libzantrel: Could not open the camera device /dev/cam0: %s (on a "
                         "workstation, run the program under camsim-run)\n",
                         zantrel::error_text(errno));
    g_state = {};
    return -1;
  }
  g_state = {own, false};
  return 0;
}

// A failed bind gives back a descriptor the library opened itself.
void unbind_after_failure() {
  if (!g_state.fd_from_caller) {
    o_close_fd(g_state.device_fd);
    g_state = {};
  }
}

// Closes the library's own descriptor; -1 (state kept) when closing fails,
// when the process is not bound, or when hardware overlays kept from a failed
// destroy still cannot be destroyed: the descriptor stays for another try, so
// that none of them is lost.
int unbind(const char* name) {
  if (g_state.device_fd == 0) {
    log_message(LOG_ERR, "libzantrel: %s: the overlay library is not bound\n", name);
    return -1;
  }
  if (const int kept = device::destroy_kept(g_state.device_fd); kept > 0) {
    log_message(LOG_ERR, "libzantrel: %s: %d overlays could not be destroyed yet\n", name, kept);
    return -1;
  }
  if (g_state.fd_from_caller) {
    g_state = {};
    return 0;
  }
  if (o_close_fd(g_state.device_fd) != 0) {
    return -1;
  }
  g_state = {};
  return 0;
}

}  // namespace
}  // namespace zantrel::api

using zantrel::api::g_state;

extern "C" {

int overlay_init(int fd) {
  if (g_state.device_fd != 0) {
    zantrel::log_message(LOG_WARNING, "libzantrel: Warning, reinitalizing overlay library.\n");
  }
  if (int rc = zantrel::api::bind(fd); rc < 0) {
    return rc;
  }
  if (overlay_table_init() != 0) {
    zantrel::api::unbind_after_failure();
    return -1;
  }
  // Without its palette the camera shows every text in the wrong colours, so
  // a refused palette command fails the start; nothing of it stays behind.
  if (palette_set_default(g_state.device_fd) != 0) {
    zantrel::log_message(LOG_ERR, "libzantrel: Could not load the default palette\n");
    overlay_table_deinit();
    zantrel::api::unbind_after_failure();
    return -1;
  }
  return g_state.device_fd;
}

int overlay_attach(int fd) {
  if (int rc = zantrel::api::bind(fd); rc < 0) {
    return rc;
  }
  if (overlay_table_exists() == 0) {
    zantrel::log_message(LOG_ERR,
                         "libzantrel: Could not attach: there is no overlay table /ovl_table. "
                         "Is the overlay system running? (its owner calls overlay_init; on a "
                         "workstation, zantrel-vcam --serve)\n");
    zantrel::api::unbind_after_failure();
    return -1;
  }
  return g_state.device_fd;
}

int overlay_deinit() {
  if (zantrel::api::unbind("overlay_deinit") != 0) {
    return -1;
  }
  return overlay_table_deinit();
}

int overlay_detach() { return zantrel::api::unbind("overlay_detach"); }

int o_get_fd() { return g_state.device_fd; }

void overlay_get_max_resolution(unsigned channel, uint32_t* width, uint32_t* height) {
  if (width == nullptr || height == nullptr) {
    zantrel::log_message(LOG_ERR, "libzantrel: Must provide valid pointers as input\n");
    return;
  }
  o_get_max_resolution(channel, width, height);
}

void overlay_get_caps(overlay_caps* caps) { o_get_overlay_caps(caps); }

const char* overlay_get_supported_gl_versions() { return o_get_supported_gl_versions(); }

int overlay_set_pixelation_size(int handle, uint32_t size) {
  return o_overlay_set_pixelation_size(handle, size);
}

}  // extern "C"
