// The kill test: worker processes go through the public operations on the
// simulated camera while this process SIGKILLs one of them at random
// moments. After every kill a fresh process must take the table lock within
// a bound and find the tables sound (the check that zantrelctl check runs);
// the killed worker is then replaced. Recoveries from a dead lock holder are
// counted from the library's own warning, whichever process made them.
//
//   zantrel_kill_test [--kills N] [--workers N] [--max-gap-ms N]
//                     [--bound-ms N] [--seed N]
//
// Exit status 0 when every kill was followed by a sound table within the
// bound, 1 otherwise, 2 on wrong usage or when it cannot set up, 77 (a skip)
// where the kernel does not tell a robust mutex's next locker that its
// holder died (qemu-user).
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "camsim.h"
#include "zantrel-base/private_dev_shm.h"
#include "zantrel-internal/table_check.h"
#include "zantrel.h"

namespace {

using Clock = std::chrono::steady_clock;

// Counters every process adds to, in memory shared across fork.
struct Shared {
  std::atomic<unsigned long> operations;
  std::atomic<unsigned long> recoveries;  // locks taken from a dead holder
  std::atomic<unsigned long> mended;      // recoveries that found damage
  std::atomic<unsigned long> lock_errors;
};
Shared* shared = nullptr;

struct Options {
  long kills = 50;
  int workers = 8;
  int max_gap_ms = 20;
  int bound_ms = 2000;
  unsigned seed = 1;
};

void note_log(const char* text) {
  if (shared == nullptr) return;
  if (std::strstr(text, "could not recover") != nullptr) {
    shared->lock_errors.fetch_add(1);
  } else if (std::strstr(text, "Table owner died") != nullptr) {
    shared->recoveries.fetch_add(1);
    if (std::strstr(text, "tables mended") != nullptr) {
      shared->mended.fetch_add(1);
      std::fputs(text, stderr);  // what a kill damaged, rare enough to show
    }
  } else if (std::strstr(text, "mutex") != nullptr || std::strstr(text, "Mutex") != nullptr) {
    shared->lock_errors.fetch_add(1);
  }
}

void note_vlog(const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  note_log(text);
}

overlay small_overlay(std::mt19937& rng) {
  overlay ovl{};
  ovl.priority = static_cast<int32_t>(rng() % 8);
  ovl.width = 16;
  ovl.height = 8;
  ovl.nbr_buffers = 1;
  ovl.format = OVERLAY_FORMAT_ARGB32;
  ovl.position = {0, 0, 1, 1, 0};
  return ovl;
}

// One worker: public operations for ever, until it is killed.
[[noreturn]] void work(unsigned seed) {
  std::mt19937 rng(seed);
  // A forked worker shares the owner's device; it attaches as any other
  // process would only when it has none.
  if (o_get_fd() < 0 && overlay_attach(0) < 0) _exit(3);
  for (;;) {
    const int handle = static_cast<int>(rng() % 24) + 1;
    const unsigned channel = rng() % 4;
    const int stream = static_cast<int>(rng() % 3);
    switch (rng() % 12) {
      case 0:
      case 1: {
        overlay ovl = small_overlay(rng);
        overlay_create(&ovl);
        break;
      }
      case 2:
        overlay_destroy(handle);
        break;
      case 3: {
        overlay ovl = small_overlay(rng);
        overlay_update(handle, &ovl);
        break;
      }
      case 4:
        overlay_add_globally(handle);
        break;
      case 5:
        overlay_remove_globally(handle);
        break;
      case 6:
        overlay_add_to_channel(handle, channel);
        break;
      case 7:
        overlay_remove_from_channel(handle, channel);
        break;
      case 8:
      case 9:
        overlay_add_to_stream(handle, 0, stream);
        break;
      case 10:
        overlay_remove_from_stream(handle, 0, stream);
        break;
      default:
        if (rng() % 16 == 0) {
          overlay_clear_stream(0, stream);
        } else {
          overlay_palette_color color{0xFF, static_cast<uint8_t>(rng()), 0, 0, 0};
          overlay_palette_set_color(&color, rng() % 16);
        }
        break;
    }
    shared->operations.fetch_add(1, std::memory_order_relaxed);
  }
}

pid_t start_worker(unsigned seed) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) work(seed);
  return pid;
}

// What a process that comes after a kill sees: 0 the lock within the bound
// and sound tables, 1 unsound tables, 2 the lock failed, -1 no lock within
// the bound (the prober is killed).
int probe(int bound_ms, int* findings) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return 2;
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    overlay_table* table = overlay_table_map();
    int found = -1;
    if (table != MAP_FAILED && overlay_table_lock(table) == 0) {
      found = zantrel::table::check_tables(table, false, nullptr, nullptr);
      overlay_table_unlock(table);
    }
    _exit(write(pipe_fds[1], &found, sizeof found) == sizeof found ? 0 : 1);
  }
  close(pipe_fds[1]);
  const auto deadline = Clock::now() + std::chrono::milliseconds(bound_ms);
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      close(pipe_fds[0]);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  int found = -1;
  const bool read_ok = read(pipe_fds[0], &found, sizeof found) == sizeof found;
  close(pipe_fds[0]);
  if (!read_ok || found < 0) return 2;
  *findings = found;
  return found == 0 ? 0 : 1;
}

bool parse(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 >= argc) return false;
    const std::string name = argv[i];
    char* end = nullptr;
    const long value = std::strtol(argv[i + 1], &end, 10);
    if (*end != '\0' || value < 0) return false;
    if (name == "--kills") {
      o->kills = value;
    } else if (name == "--workers" && value > 0 && value <= 64) {
      o->workers = static_cast<int>(value);
    } else if (name == "--max-gap-ms") {
      o->max_gap_ms = static_cast<int>(value);
    } else if (name == "--bound-ms" && value > 0) {
      o->bound_ms = static_cast<int>(value);
    } else if (name == "--seed") {
      o->seed = static_cast<unsigned>(value);
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

// The library reports through syslog; every process of the run counts the
// recoveries it made from that report. Visible, so that they stand in for
// the C library's in the shared library too.
#define EXPORTED __attribute__((visibility("default")))
extern "C" {
EXPORTED void vsyslog(int, const char* format, va_list args) { note_vlog(format, args); }
EXPORTED void __vsyslog_chk(int, int, const char* format, va_list args) { note_vlog(format, args); }
EXPORTED void syslog(int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  note_vlog(format, args);
  va_end(args);
}
EXPORTED void __syslog_chk(int, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  note_vlog(format, args);
  va_end(args);
}
}

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: %s [--kills N] [--workers N (1 to 64)] [--max-gap-ms N] [--bound-ms N] "
                 "[--seed N]\n",
                 argv[0]);
    return 2;
  }
  void* robust_head = nullptr;
  size_t robust_length = 0;
  if (syscall(SYS_get_robust_list, 0, &robust_head, &robust_length) != 0 && errno == ENOSYS) {
    std::fprintf(stderr, "kill test: no robust futex lists here: a dead holder goes unseen\n");
    return 77;
  }
  if (!zantrel::private_dev_shm()) {
    std::fprintf(stderr, "kill test: cannot make a private /dev/shm: %s\n", std::strerror(errno));
    return 2;
  }
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 2;
  shared = new (memory) Shared{};
  if (camsim_reset() != 0 || overlay_init(0) <= 0) {
    std::fprintf(stderr, "kill test: no simulated driver or table\n");
    return 2;
  }

  std::mt19937 rng(options.seed);
  std::vector<pid_t> workers;
  for (int i = 0; i < options.workers; ++i) workers.push_back(start_worker(rng()));
  long hangs = 0, unsound = 0, lock_failures = 0, findings_total = 0;
  const auto start = Clock::now();
  for (long kill_number = 0; kill_number < options.kills; ++kill_number) {
    std::this_thread::sleep_for(std::chrono::microseconds(
        options.max_gap_ms > 0 ? rng() % (options.max_gap_ms * 1000u) : 0));
    const std::size_t victim = rng() % workers.size();
    kill(workers[victim], SIGKILL);
    waitpid(workers[victim], nullptr, 0);
    int findings = 0;
    switch (probe(options.bound_ms, &findings)) {
      case -1:
        ++hangs;
        std::fprintf(stderr, "kill %ld: no lock within %d ms\n", kill_number + 1, options.bound_ms);
        break;
      case 1:
        ++unsound;
        findings_total += findings;
        std::fprintf(stderr, "kill %ld: %d problems in the tables\n", kill_number + 1, findings);
        break;
      case 2:
        ++lock_failures;
        std::fprintf(stderr, "kill %ld: the lock or the mapping failed\n", kill_number + 1);
        break;
      default:
        break;
    }
    if (hangs > 0) break;  // the workers are stuck behind the same lock
    workers[victim] = start_worker(rng());
  }
  for (pid_t pid : workers) kill(pid, SIGKILL);
  for (pid_t pid : workers) waitpid(pid, nullptr, 0);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const long kills = options.kills;
  std::printf(
      "kills %ld, kills that hit a lock holder %lu, hangs %ld, repairs %lu, operations done %lu, "
      "unsound after a kill %ld, lock failures %ld, lock errors logged %lu, seconds %.1f\n",
      kills, shared->recoveries.load(), hangs, shared->mended.load(), shared->operations.load(),
      unsound, lock_failures, shared->lock_errors.load(), seconds);
  overlay_deinit();
  return hangs == 0 && unsound == 0 && lock_failures == 0 && shared->lock_errors.load() == 0 ? 0
                                                                                             : 1;
}
