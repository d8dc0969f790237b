// What text work costs a long-running process in address space, font
// mappings and descriptors: 2000 updates of a text overlay, then 300 stream
// contexts that each gather a clock text and a scalable text, draw them and
// go. Prints the process's figures before the first text, after the first
// text (the font is open then), and at the end.
#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "camsim.h"
#include "tokenfill.h"
#include "zantrel-base/private_dev_shm.h"
#include "zantrel.h"

namespace {

struct Figures {
  long vm_size_kib = 0;
  long vm_rss_kib = 0;
  int font_mappings = 0;
  int descriptors = 0;
};

long status_kib(const std::string& status, const char* name) {
  const size_t at = status.find(name);
  return at == std::string::npos ? -1 : std::stol(status.substr(at + std::strlen(name)));
}

Figures measure() {
  Figures figures;
  std::ifstream status_file("/proc/self/status");
  const std::string status((std::istreambuf_iterator<char>(status_file)),
                           std::istreambuf_iterator<char>());
  figures.vm_size_kib = status_kib(status, "VmSize:");
  figures.vm_rss_kib = status_kib(status, "VmRSS:");
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("wqy-microhei") != std::string::npos) ++figures.font_mappings;
  }
  if (DIR* fds = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(fds)) {
      if (entry->d_name[0] != '.') ++figures.descriptors;
    }
    closedir(fds);
    --figures.descriptors;  // the directory's own
  }
  return figures;
}

void print(const char* when, const Figures& f) {
  std::printf("%-26s VmSize %7.1f MiB  VmRSS %6.1f MiB  font mappings %3d  descriptors %d\n", when,
              f.vm_size_kib / 1024.0, f.vm_rss_kib / 1024.0, f.font_mappings, f.descriptors);
}

overlay_text text_record(const char* text, int32_t font_size, int32_t scalable) {
  overlay_text t{};
  std::snprintf(t.text, sizeof t.text, "%s", text);
  t.overlay.priority = 50;
  t.overlay.position = {0.05F, 0.05F, 1, 1, OVERLAY_COORDS_NORMALIZED};
  t.font_size = font_size;
  t.scalable = scalable;
  t.text_color = OVERLAY_COLOR_WHITE;
  t.outline_color = OVERLAY_COLOR_BLACK;
  t.background_color = OVERLAY_COLOR_SEMI_TRANSPARENT;
  return t;
}

}  // namespace

int main() {
  // overlay_init removes every table in /dev/shm and the simulator keeps its
  // state there: the run gets a private tmpfs, or does not run at all.
  if (!zantrel::private_dev_shm()) {
    std::perror("footprint: a private /dev/shm");
    return 1;
  }
  if (camsim_reset() != 0 || overlay_init(0) <= 0) {
    std::fputs("footprint: no simulated driver or table\n", stderr);
    return 1;
  }
  const Figures start = measure();
  print("before any text", start);

  overlay_text label = text_record("Entrance north", 32, 0);
  const int handle = overlay_text_create(&label);
  overlay_add_to_channel(handle, 0);
  overlay_text clock = text_record("#D #T", 40, 1);
  overlay_add_to_channel(overlay_text_create(&clock), 0);
  const Figures first = measure();
  print("after the first texts", first);

  constexpr int kUpdates = 2000;
  for (int i = 0; i < kUpdates; ++i) {
    std::snprintf(label.text, sizeof label.text, "Entrance north %d", i);
    label.font_size = 24 + i % 17;
    if (overlay_text_update(handle, &label) != 0) {
      std::fprintf(stderr, "footprint: update %d failed\n", i);
      return 1;
    }
  }
  print("after 2000 text updates", measure());

  tokenfill_context* expansion = tokenfill_init();
  timeval now{1795348800, 0};
  const overlay_expansion_params params{expansion, &now};
  constexpr int kContexts = 300;
  constexpr uint32_t kHeights[] = {1080, 720, 360, 240};
  for (int i = 0; i < kContexts; ++i) {
    const uint32_t height = kHeights[i % 4];
    overlay_stream_context* context =
        overlay_stream_context_create(o_get_fd(), 0, static_cast<unsigned>(i % 8), 0,
                                      height * 16 / 9, height, OVERLAY_FILTER_NON_LEGACY);
    overlay_encreq request{};
    for (int frame = 0; frame < 3; ++frame, ++now.tv_sec) {
      overlay_setup_in_encreq(context, &request, &params);
    }
    overlay_stream_context_destroy(context);
  }
  tokenfill_exit(expansion);
  const Figures end = measure();
  print("after 300 stream contexts", end);

  std::printf(
      "growth from before any text: %.1f MiB address space, %d font mappings, %d "
      "descriptors\n",
      (end.vm_size_kib - start.vm_size_kib) / 1024.0, end.font_mappings,
      end.descriptors - start.descriptors);
  std::printf("growth from after the first texts: %.1f MiB address space, %+d descriptors\n",
              (end.vm_size_kib - first.vm_size_kib) / 1024.0, end.descriptors - first.descriptors);
  overlay_deinit();
  return 0;
}
