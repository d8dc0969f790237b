// The failure-point sweep: one scenario over the whole public interface (every
// overlay kind, sets, palette, updates, three stream contexts for 36 frames
// with a change half way, destroys, deinit) runs once without a fault to count
// its driver commands, mmap, shm_open, ftruncate and open calls, then once per
// failure point with that one call failing. The scenario repeats a call once
// when it failed with a documented code, as an application would. After every
// run: no crash or hang, only documented codes, sound tables, no hardware
// overlay, shared table, descriptor or mapping left, and the last frame's
// pictures equal to the fault-free run's.
//
//   zantrel_fault_sweep [--every N] [--first K] [--verbose]
//
// --every N runs every N-th point only (for slow builds). Exit status 0 when
// every run passed.
#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <new>
#include <string>
#include <vector>

#include "camsim.h"
#include "tokenfill.h"
#include "zantrel-base/private_dev_shm.h"
#include "zantrel-internal/table_check.h"
#include "zantrel.h"

// The library's messages would flood the machine's log: they are counted only.
extern "C" void vsyslog(int, const char*, va_list) {}
extern "C" void syslog(int, const char*, ...) {}

#ifdef ZANTREL_ALLOC_SWEEP
// The allocation sweep: malloc, calloc, realloc and operator new of this
// program fail at the chosen call instead of the simulator's calls.
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void __libc_free(void*);
namespace {
bool g_alloc_armed = false;
long g_alloc_counted = 0, g_alloc_fail_at = 0;
bool alloc_fails() {
  if (!g_alloc_armed) return false;
  if (++g_alloc_counted != g_alloc_fail_at) return false;
  errno = ENOMEM;
  return true;
}
}  // namespace
extern "C" void* malloc(size_t n) { return alloc_fails() ? nullptr : __libc_malloc(n); }
extern "C" void* calloc(size_t n, size_t m) {
  return alloc_fails() ? nullptr : __libc_calloc(n, m);
}
extern "C" void* realloc(void* p, size_t n) {
  return alloc_fails() ? nullptr : __libc_realloc(p, n);
}
void* operator new(size_t n) {
  void* p = alloc_fails() ? nullptr : __libc_malloc(n);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
// The C library's own release, which the compiler does not pair with new.
void operator delete(void* p) noexcept { __libc_free(p); }
void operator delete(void* p, size_t) noexcept { __libc_free(p); }
void arm(long fail_at) {
  g_alloc_fail_at = fail_at;
  g_alloc_counted = 0;
  g_alloc_armed = true;
}
long disarm() {
  g_alloc_armed = false;
  return g_alloc_counted;
}
#else
void arm(long fail_at) { camsim_fail_call(CAMSIM_CALL_ALL, fail_at, EIO); }
long disarm() {
  camsim_fail_call(0, 0, 0);
  return camsim_counted_calls(nullptr);
}
#endif

namespace {

constexpr int kStreams = 3;
constexpr int kFrames = 36;
constexpr int kChangeFrame = 18;
constexpr unsigned kSizes[kStreams][2] = {{320, 180}, {256, 144}, {160, 96}};

std::string g_dir;               // the scenario's image files
long g_fail_at = 0;              // this run's failure point
std::vector<std::string> g_bad;  // what went wrong in this run

void bad(const std::string& what) { g_bad.push_back(what); }

// Calls fn; a failure with a documented code is repeated once (the injected
// fault has passed by then) and must then succeed.
template <typename Fn>
int call(const char* what, Fn&& fn, std::initializer_list<int> codes = {-1}) {
  int rc = fn();
  if (rc >= 0) return rc;
  bool documented = false;
  for (int code : codes) documented = documented || rc == code;
  if (!documented) bad(std::string(what) + " gave " + std::to_string(rc));
  rc = fn();
  if (rc < 0) bad(std::string(what) + " failed again: " + std::to_string(rc));
  return rc;
}

// One get, fill, submit cycle of a plain overlay's buffer.
int fill_plain(int fd, int handle, uint32_t size, uint32_t argb) {
  int32_t offset = 0;
  if (overlay_get_buffer(handle, &offset) != 0) return -1;
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
  if (map == MAP_FAILED) return -1;
  auto* pixels = static_cast<uint32_t*>(map);
  for (uint32_t i = 0; i < size / 4; ++i) pixels[i] = argb;
  munmap(map, size);
  return overlay_submit_buffer(handle, offset, 0);
}

overlay_text text_record(const char* text, int size, int priority, int legacy) {
  overlay_text t{};
  std::snprintf(t.text, sizeof t.text, "%s", text);
  t.font_size = size;
  t.text_color = OVERLAY_COLOR_WHITE;
  t.outline_color = OVERLAY_COLOR_BLACK;
  t.background_color = OVERLAY_COLOR_TRANSPARENT;
  t.overlay.priority = priority;
  t.overlay.legacy = legacy;
  t.overlay.position = {0.1f, legacy ? 1.0f : 0.2f, 1, 1, OVERLAY_COORDS_NORMALIZED};
  t.overlay.nbr_buffers = 1;
  return t;
}

overlay_image image_record(const std::string& path, int priority) {
  overlay_image image{};
  std::snprintf(image.path, sizeof image.path, "%s", path.c_str());
  image.overlay.priority = priority;
  image.overlay.position = {0.7f, 0.1f, 1, 1, OVERLAY_COORDS_NORMALIZED};
  return image;
}

// What a stream shows: every shown overlay's record and pixels, and both
// palette banks, folded into one number (FNV-1a).
uint64_t picture(const overlay_encreq& request) {
  uint64_t hash = 1469598103934665603ull;
  auto fold = [&hash](const void* data, size_t size) {
    for (size_t i = 0; i < size; ++i)
      hash = (hash ^ static_cast<const uint8_t*>(data)[i]) * 1099511628211ull;
  };
  for (uint32_t id : request.overlay_ids) {
    internal_overlay rec{};
    if (id == 0 || camsim_get_overlay(id, &rec) != 0) continue;
    rec.id = 0;
    rec.buffer_size = 0;
    fold(&rec, sizeof rec);
    std::vector<uint8_t> pixels(rec.width * rec.height * 4 + 16);
    const long size = camsim_read_shown_buffer(id, pixels.data(), pixels.size());
    if (size > 0) fold(pixels.data(), static_cast<size_t>(std::min<long>(size, pixels.size())));
  }
  cam_palette_color banks[2][CAMSIM_PALETTE_ENTRIES];
  for (unsigned bank = 0; bank < 2; ++bank) camsim_read_palette(bank, banks[bank], nullptr);
  fold(banks, sizeof banks);
  return hash;
}

int open_descriptors() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

// Mappings of the library's shared objects or of the driver's buffers.
int library_mappings() {
  std::ifstream maps("/proc/self/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/ovl_") != std::string::npos || line.find("/camsim_node_") != std::string::npos)
      ++count;
  }
  return count;
}

bool tables_sound() {
  overlay_table* table = overlay_table_map();
  if (table == MAP_FAILED) table = overlay_table_map();  // the fault has passed
  if (table == MAP_FAILED) return false;
  bool sound = false;
  if (overlay_table_lock(table) == 0) {
    sound = zantrel::table::check_tables(table, false, nullptr, nullptr) == 0;
    overlay_table_unlock(table);
  }
  overlay_table_unmap(table);
  return sound;
}

// The scenario, in a child process; fail_at 0 only counts. Its result goes
// to `out`: "ok <pictures>" or the problems, one a line.
void scenario(long fail_at, FILE* out) {
  const int descriptors = open_descriptors();
  g_fail_at = fail_at;
  arm(fail_at);
  const int fd = call("overlay_init", [] { return overlay_init(0); });

  overlay plain{};
  plain.width = 32, plain.height = 16, plain.nbr_buffers = 3, plain.format = OVERLAY_FORMAT_ARGB32;
  plain.priority = 5;
  plain.position = {8, 8, 1, 1, 0};
  const int box = call("overlay_create", [&] { return overlay_create(&plain); });
  call("fill", [&] { return fill_plain(fd, box, plain.buffer_size, 0xFF2040C0); });
  call("overlay_add_globally", [&] { return overlay_add_globally(box); });

  overlay_text fixed = text_record("FIXED", 20, 3, 0);
  const int label = call("overlay_text_create", [&] { return overlay_text_create(&fixed); });
  call("overlay_add_to_channel", [&] { return overlay_add_to_channel(label, 0); });
  overlay_text clock_text = text_record("#H:#M:#S", 18, 4, 0);
  const int clock = call("overlay_text_create", [&] { return overlay_text_create(&clock_text); });
  overlay_text band_text = text_record("BAND", 16, 2, 1);
  const int band = call("overlay_text_create", [&] { return overlay_text_create(&band_text); });
  overlay_image logo = image_record(g_dir + "/logo.ovl", 6);
  const int image = call("overlay_image_create", [&] { return overlay_image_create(&logo); });
  overlay_image bars = image_record(g_dir + "/bars", 1);
  const int scaled = call("overlay_image_create", [&] { return overlay_image_create(&bars); });
  for (int stream = 0; stream < kStreams; ++stream) {
    call("overlay_add_to_stream", [&] { return overlay_add_to_stream(clock, 0, stream); });
    call("overlay_add_to_stream", [&] { return overlay_add_to_stream(band, 0, stream); });
  }
  call("overlay_add_globally", [&] { return overlay_add_globally(image); });
  call("overlay_add_to_stream", [&] { return overlay_add_to_stream(scaled, 0, 2); });
  call("overlay_add_to_source", [&] { return overlay_add_to_source(fd, image); });
  call("overlay_remove_from_source", [&] { return overlay_remove_from_source(fd, image); });
  overlay_palette_color green{0xFF, 0x20, 0xC0, 0x20, 0};
  call("overlay_palette_set_color", [&] { return overlay_palette_set_color(&green, 5); });
  overlay_palette_color* colors = nullptr;
  int32_t count = 0;
  call("overlay_palette_get_all_colors",
       [&] { return overlay_palette_get_all_colors(&colors, &count); });
  free(colors);

  overlay_stream_context* contexts[kStreams] = {};
  for (int s = 0; s < kStreams; ++s) {
    call("overlay_stream_context_create", [&] {
      contexts[s] = overlay_stream_context_create(fd, 0, s, 0, kSizes[s][0], kSizes[s][1], 7);
      return contexts[s] != nullptr ? 0 : -1;
    });
  }
  tokenfill_context* expand = tokenfill_init();
  overlay_encreq requests[kStreams] = {};
  for (int frame = 0; frame < kFrames; ++frame) {
    if (frame == kChangeFrame) {
      overlay_text changed = text_record("CHANGED", 24, 3, 0);
      call("overlay_text_update", [&] { return overlay_text_update(label, &changed); });
      overlay moved = plain;
      moved.position.x = 40;
      call("overlay_update", [&] { return overlay_update(box, &moved); });
      call("overlay_destroy", [&] { return overlay_destroy(band); });
      overlay_palette_color red{0xFF, 0xE0, 0x20, 0x20, 0};
      call("overlay_palette_set_color", [&] { return overlay_palette_set_color(&red, 5); });
      call("overlay_image_update", [&] { return overlay_image_update(image, &logo); });
    }
    const timeval time{1795348800 + frame / 30, (frame % 30) * 33333};
    const overlay_expansion_params params{expand, &time};
    for (int s = 0; s < kStreams; ++s) {
      if (contexts[s] != nullptr &&
          overlay_setup_in_encreq(contexts[s], &requests[s], &params) != 0) {
        bad("overlay_setup_in_encreq failed");
      }
    }
  }
  if (!tables_sound()) bad("tables not sound");
  std::string pictures;
  for (const auto& request : requests) pictures += std::to_string(picture(request)) + " ";

  for (auto* context : contexts) overlay_stream_context_destroy(context);
  tokenfill_exit(expand);
  for (int handle : {box, label, clock, image, scaled}) {
    call("overlay_destroy", [&] { return overlay_destroy(handle); });
  }
  call("overlay_deinit", [] { return overlay_deinit(); });
  std::fprintf(out, "counted %ld\n", disarm());
  if (open_descriptors() != descriptors) bad("descriptors left open");
  if (library_mappings() != 0) bad("mappings left");
  if (g_bad.empty()) {
    std::fprintf(out, "ok %s\n", pictures.c_str());
  } else {
    for (const auto& what : g_bad) std::fprintf(out, "%s\n", what.c_str());
  }
}

struct Run {
  std::string result;  // "ok <pictures>" or the problems
  long counted = 0;
};

Run run(long fail_at) {
  camsim_reset();
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return {"pipe failed", 0};
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    alarm(30);  // a hang ends as a signal
    FILE* out = fdopen(pipe_fds[1], "w");
    scenario(fail_at, out);
    std::fclose(out);
    _exit(0);
  }
  close(pipe_fds[1]);
  std::string text;
  char buffer[512];
  ssize_t n = 0;
  while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, n);
  close(pipe_fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  Run result{text, 0};
  if (result.result.rfind("counted ", 0) == 0) {
    const size_t end = result.result.find('\n');
    result.counted = std::atol(result.result.c_str() + 8);
    result.result.erase(0, end + 1);
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    result.result += "ended by signal " + std::to_string(WTERMSIG(status)) + "\n";
  if (camsim_live_count() != 0) result.result += "hardware overlays left\n";
  glob_t found{};
  if (glob("/dev/shm/ovl_*", 0, nullptr, &found) == 0) result.result += "shared tables left\n";
  globfree(&found);
  return result;
}

void write_assets() {
  char dir[] = "/dev/shm/sweep-XXXXXX";
  g_dir = mkdtemp(dir);
  // An ".ovl" file of 24 x 16 opaque ARGB pixels.
  std::vector<char> ovl{'o', 'g', '4', 0, 0, 16, 24, 0, 16, 0};
  ovl.resize(78, 0);
  for (int i = 0; i < 24 * 16; ++i) ovl.insert(ovl.end(), {'\x40', '\xC0', char(i), '\xFF'});
  std::ofstream(g_dir + "/logo.ovl", std::ios::binary).write(ovl.data(), ovl.size());
  // A bitmap directory: 16 x 8, 24-bit, bottom-up.
  mkdir((g_dir + "/bars").c_str(), 0755);
  std::vector<uint8_t> bmp(54 + 16 * 8 * 3, 0);
  auto put32 = [&bmp](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) bmp[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
  bmp[0] = 'B', bmp[1] = 'M';
  put32(2, bmp.size()), put32(10, 54), put32(14, 40), put32(18, 16), put32(22, 8);
  bmp[26] = 1, bmp[28] = 24;
  for (size_t i = 54; i < bmp.size(); ++i) bmp[i] = static_cast<uint8_t>(i * 7);
  std::ofstream(g_dir + "/bars/bmp", std::ios::binary)
      .write(reinterpret_cast<const char*>(bmp.data()), bmp.size());
}

}  // namespace

int main(int argc, char** argv) {
  long every = 1, first = 1;
  bool verbose = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--every") == 0 && i + 1 < argc)
      every = std::atol(argv[++i]);
    else if (std::strcmp(argv[i], "--first") == 0 && i + 1 < argc)
      first = std::atol(argv[++i]);
    else if (std::strcmp(argv[i], "--verbose") == 0)
      verbose = true;
    else {
      std::fprintf(stderr, "usage: %s [--every N] [--first K] [--verbose]\n", argv[0]);
      return 2;
    }
  }
  if (every < 1 || first < 1) return 2;
  if (!zantrel::private_dev_shm()) {
    std::fprintf(stderr, "fault sweep: cannot make a private /dev/shm: %s\n", std::strerror(errno));
    return 77;
  }
  write_assets();
  const auto start = std::chrono::steady_clock::now();
  const Run reference = run(0);
  if (reference.result.rfind("ok ", 0) != 0) {
    std::fprintf(stderr, "fault sweep: the fault-free run failed:\n%s", reference.result.c_str());
    return 1;
  }
  if (verbose) std::printf("reference: %s", reference.result.c_str());
  long runs = 0, failed = 0;
  for (long k = first; k <= reference.counted; k += every) {
    Run r = run(k);
    ++runs;
    if (r.result != reference.result) {
      ++failed;
      std::printf("point %ld: %s", k, r.result.c_str());
    } else if (verbose) {
      std::printf("point %ld: ok\n", k);
    }
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("points %ld, runs %ld, failed %ld, %.1f s\n", reference.counted, runs, failed,
              seconds);
  return failed == 0 ? 0 : 1;
}
