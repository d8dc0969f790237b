// zantrel-vcam: the virtual camera. The overlay system runs on the simulated
// driver as it runs on the camera, in separate processes: an owner that makes
// and removes the shared tables, an application that builds a scene, and an
// encoder that sets up every frame's encode request on each stream. This
// process only supervises: it starts them in order, passes Ctrl-C (and, live,
// picture requests) on, waits, checks that nothing is left behind, and prints
// the summary. Live (--serve), the scene is left out unless asked for, and
// the camera runs for the programs that others start on the same driver.
#include <fcntl.h>
#include <glob.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "camsim.h"
#include "encoder.h"
#include "ipc.h"
#include "options.h"
#include "owner.h"
#include "pictures.h"
#include "report.h"
#include "scene.h"

namespace vcam {

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitStopped = 3;  // a child's answer to a stop signal

// ovlconv from this build tree, else whatever PATH has.
std::string find_ovlconv() {
#ifdef VCAM_OVLCONV
  if (access(VCAM_OVLCONV, X_OK) == 0) {
    return VCAM_OVLCONV;
  }
#endif
  return "ovlconv";
}

std::string find_logo() {
  const char* const candidates[] = {
#ifdef VCAM_ASSET_DIR
      VCAM_ASSET_DIR "/logo.png",
#endif
      "tools/zantrel-vcam/assets/logo.png"};
  for (const char* candidate : candidates) {
    if (access(candidate, R_OK) == 0) {
      return candidate;
    }
  }
  return candidates[0];
}

// The simulated driver is one per machine, and every run resets it: one
// zantrel-vcam at a time holds it, through a lock on a shared-memory object
// that also names the holder. The kernel drops the lock with the last of the
// holder's processes, so a killed camera leaves nothing that stops the next.
class DriverClaim {
 public:
  // false, with a message naming the running one, when another holds it.
  bool take(bool serve) {
    fd_ = UniqueFd(shm_open("/zantrel_vcam_running", O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!fd_) {
      std::fprintf(stderr, "zantrel-vcam: cannot open /dev/shm/zantrel_vcam_running: %s\n",
                   std::strerror(errno));
      return false;
    }
    if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
      char holder[64] = {};
      const ssize_t n = pread(fd_.get(), holder, sizeof holder - 1, 0);
      holder[n > 0 ? n : 0] = '\0';
      const long pid = std::strtol(holder, nullptr, 10);
      const std::string pid_text = pid > 0 ? std::to_string(pid) : "unknown";
      std::fprintf(stderr,
                   "zantrel-vcam: another zantrel-vcam runs on this machine's simulated driver "
                   "(pid %s%s); it is left as it is. Stop it first (kill %s), or run your "
                   "programs against it.\n",
                   pid_text.c_str(), std::strstr(holder, "--serve") != nullptr ? ", --serve" : "",
                   pid > 0 ? pid_text.c_str() : "PID");
      return false;
    }
    const std::string text = std::to_string(getpid()) + (serve ? ", --serve" : "");
    if (ftruncate(fd_.get(), 0) != 0 ||
        pwrite(fd_.get(), text.c_str(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
      std::fprintf(stderr, "zantrel-vcam: cannot write /dev/shm/zantrel_vcam_running: %s\n",
                   std::strerror(errno));
    }
    return true;
  }

 private:
  UniqueFd fd_;
};

// A private scratch directory, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zantrel-vcam.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = pattern;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A forked child running one job of the camera.
class Child {
 public:
  // Runs body in a new process with handlers of its own; fds_to_close are
  // the supervisor's ends of other processes' pipes, which the child must
  // not hold open.
  Child(const char* name, const std::function<int()>& body, const std::vector<int>& fds_to_close)
      : name_(name) {
    std::fflush(nullptr);
    const sigset_t mask = signals::block();
    pid_ = fork();
    if (pid_ == 0) {
      int status = kExitFailure;
      try {
        signals::install(/*watch_children=*/false);
        signals::restore(mask);
        for (int fd : fds_to_close) {
          close(fd);
        }
        status = body();
      } catch (const std::exception& error) {
        std::fprintf(stderr, "zantrel-vcam: %s: %s\n", name, error.what());
      }
      std::fflush(nullptr);
      // exit, not _exit: the sanitizers' leak check runs at exit.
      std::exit(status);
    }
    signals::restore(mask);
    if (pid_ < 0) {
      throw std::system_error(errno, std::generic_category(), "fork");
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  // Never leaves a child unreaped.
  ~Child() {
    if (running()) {
      kill(pid_, SIGTERM);
      wait();
    }
  }

  bool running() const { return pid_ > 0 && !done_; }
  // Reaps the child if it has ended; true when it has.
  bool poll() {
    if (!running()) {
      return true;
    }
    int status = 0;
    const pid_t got = waitpid(pid_, &status, WNOHANG);
    if (got == pid_) {
      finish(status);
    }
    return done_;
  }
  void wait() {
    int status = 0;
    while (running()) {
      const pid_t got = waitpid(pid_, &status, 0);
      if (got == pid_) {
        finish(status);
      } else if (got < 0 && errno != EINTR) {
        done_ = true;
        exit_code_ = kExitFailure;
      }
    }
  }
  void stop() {
    if (running()) {
      kill(pid_, SIGTERM);
    }
  }
  int exit_code() const { return exit_code_; }
  const char* name() const { return name_; }
  pid_t pid() const { return pid_; }

 private:
  void finish(int status) {
    done_ = true;
    if (WIFEXITED(status)) {
      exit_code_ = WEXITSTATUS(status);
    } else {
      exit_code_ = 128 + WTERMSIG(status);
      std::fprintf(stderr, "zantrel-vcam: the %s process died of signal %d\n", name_,
                   WTERMSIG(status));
    }
  }

  const char* name_;
  pid_t pid_ = -1;
  bool done_ = false;
  int exit_code_ = 0;
};

Leftovers find_leftovers() {
  Leftovers leftovers;
  leftovers.live_overlays = camsim_live_count();
  glob_t found{};
  if (glob("/dev/shm/ovl_*", 0, nullptr, &found) == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) {
      leftovers.tables.emplace_back(found.gl_pathv[i]);
    }
  }
  globfree(&found);
  return leftovers;
}

StreamSize largest(const std::vector<StreamSize>& streams) {
  StreamSize size{};
  for (StreamSize stream : streams) {
    size.width = std::max(size.width, stream.width);
    size.height = std::max(size.height, stream.height);
  }
  return size;
}

int supervise(const Options& options) {
  const auto start = std::chrono::steady_clock::now();
  // First, so that a stop from now on ends the run through its cleanup.
  signals::install(/*watch_children=*/true);
  // Workstations often run no syslog daemon; the owner's, the application's
  // and the encoder's library messages then still reach the terminal.
  if (options.log_stderr) {
    setenv("ZANTREL_LOG_STDERR", "1", 0);
  }
  DriverClaim claim;
  if (!claim.take(options.serve)) {
    return kExitFailure;
  }
  std::error_code error;
  std::filesystem::create_directories(options.out_dir, error);
  if (error) {
    std::fprintf(stderr, "zantrel-vcam: cannot make %s: %s\n", options.out_dir.c_str(),
                 error.message().c_str());
    return kExitFailure;
  }
  // The driver starts empty, as after the camera boots; channel 0 must take
  // the largest stream.
  const StreamSize channel_size = largest(options.streams);
  if (camsim_reset() != 0 ||
      camsim_set_resolution(0, channel_size.width, channel_size.height) != 0) {
    std::fprintf(stderr, "zantrel-vcam: the simulated driver is not reachable: %s\n",
                 std::strerror(errno));
    return kExitFailure;
  }
  const TempDir work;
  const Timeline timeline = make_timeline(options.serve ? 1 : options.seconds, options.soak);
  // Opened here, so that a bad path fails before anything starts; a FIFO
  // waits for its reader.
  UniqueFd y4m_file;
  if (!options.y4m.empty() && options.y4m != "-") {
    y4m_file = UniqueFd(open(options.y4m.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!y4m_file) {
      std::fprintf(stderr, "zantrel-vcam: cannot open %s: %s\n", options.y4m.c_str(),
                   std::strerror(errno));
      return signals::stop_requested() ? 128 + signals::stop_signal() : kExitFailure;
    }
  }
  const int y4m_fd = options.y4m.empty() ? -1 : options.y4m == "-" ? STDOUT_FILENO : y4m_file.get();
  std::FILE* const summary_out = y4m_fd == STDOUT_FILENO ? stderr : stdout;

  FdPair owner_ready = make_pipe();
  FdPair owner_quit = make_pipe();
  Child owner(
      "owner",
      [&] { return run_owner(owner_ready.write.get(), owner_quit.read.get(), options.serve); },
      {owner_ready.read.get(), owner_quit.write.get()});
  owner_ready.write.reset();
  owner_quit.read.reset();
  // Declared after the owner, so that on an early return or exception it is
  // closed before ~Child waits for the owner, which deinits on seeing it go.
  UniqueFd owner_quit_write = std::move(owner_quit.write);

  // The tables must exist before anyone attaches.
  bool owner_up = false;
  while (!owner_up && !signals::stop_requested() && !owner.poll()) {
    if (wait_readable(owner_ready.read.get(), 100) == Wait::kReady) {
      char byte = 0;
      owner_up = read(owner_ready.read.get(), &byte, 1) == 1;
      if (!owner_up) {
        break;
      }
    }
  }

  EncoderReport report;
  bool have_report = false;
  int app_code = 0;
  int encoder_code = 0;
  if (owner_up && !signals::stop_requested()) {
    FdPair link = make_socket_pair();
    FdPair report_pipe = make_pipe();
    const std::vector<int> supervisor_fds{owner_ready.read.get(), owner_quit_write.get(),
                                          report_pipe.read.get()};
    SceneConfig scene{options.streams, work.path(), find_logo(), find_ovlconv()};
    std::vector<int> app_closes = supervisor_fds;
    app_closes.insert(app_closes.end(), {link.write.get(), report_pipe.write.get()});
    if (y4m_file) {
      app_closes.push_back(y4m_file.get());
    }
    const bool with_scene = !options.serve || options.demo;
    std::optional<Child> app;
    if (with_scene) {
      app.emplace(
          "application", [&] { return run_application(scene, link.read.get()); }, app_closes);
    }
    EncoderConfig encoder_config;
    encoder_config.streams = options.streams;
    encoder_config.timeline = timeline;
    encoder_config.out_dir = options.out_dir;
    encoder_config.owner_pid = owner.pid();
    encoder_config.application_pid = app ? app->pid() : 0;
    encoder_config.live = options.serve;
    encoder_config.scene = with_scene;
    encoder_config.y4m_fd = y4m_fd;
    encoder_config.y4m_stream = options.y4m_stream;
    encoder_config.work_dir = work.path();
    std::vector<int> encoder_closes = supervisor_fds;
    encoder_closes.push_back(link.read.get());
    Child encoder(
        "encoder",
        [&] { return run_encoder(encoder_config, link.write.get(), report_pipe.write.get()); },
        encoder_closes);
    link.read.reset();
    link.write.reset();
    report_pipe.write.reset();

    bool forwarded = false;
    while (!(app ? app->poll() : true) || !encoder.poll()) {
      if (signals::stop_requested() && !forwarded) {
        // Ctrl-C on a terminal reaches them too; a kill of this process
        // alone does not.
        if (app) {
          app->stop();
        }
        encoder.stop();
        forwarded = true;
      }
      if (signals::take_picture_request() && encoder.running()) {
        kill(encoder.pid(), SIGUSR1);
      }
      // Every signal, a child's end included, writes to the wake-up pipe.
      wait_readable(signals::wake_fd(), -1, /*ignore_stop=*/true);
      signals::drain();
    }
    have_report = zantrel::read_exactly(report_pipe.read.get(), &report, sizeof report);
    app_code = app ? app->exit_code() : 0;
    encoder_code = encoder.exit_code();
  }

  // Only now, with nobody attached, may the tables go.
  owner_quit_write.reset();
  owner.wait();
  const bool stopped = signals::stop_requested();

  const Leftovers leftovers = find_leftovers();
  bool sheet = false;
  if (have_report && !options.serve && !stopped && encoder_code == 0 && report.pictures > 0) {
    sheet = write_contact_sheet(options.out_dir, options.streams, timeline.captures,
                                timeline.change_frame);
  }
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (have_report) {
    print_summary(summary_out, report, options.streams, leftovers, wall, options.out_dir, sheet);
  } else if (!leftovers.tables.empty() || leftovers.live_overlays != 0) {
    std::fprintf(stderr, "zantrel-vcam: left behind: %d hardware overlays, %zu shared tables\n",
                 leftovers.live_overlays, leftovers.tables.size());
  }
  const bool clean = leftovers.tables.empty() && leftovers.live_overlays == 0;
  if (!clean) {
    std::fputs("zantrel-vcam: the overlay system was not cleaned up\n", stderr);
    return kExitFailure;
  }
  if (stopped) {
    std::fprintf(stderr, "zantrel-vcam: stopped by signal %d; cleaned up\n",
                 signals::stop_signal());
    // Live, a stop is how a run ends.
    const bool app_ok = app_code == 0 || app_code == kExitStopped;
    if (!options.serve || !owner_up || owner.exit_code() != 0 || !app_ok || encoder_code != 0) {
      return 128 + signals::stop_signal();
    }
    return 0;
  }
  const bool ok_codes = owner.exit_code() == 0 && app_code == 0 && encoder_code == 0;
  if (!owner_up || !ok_codes || !have_report) {
    std::fprintf(stderr, "zantrel-vcam: failed (owner %d, application %d, encoder %d)\n",
                 owner.exit_code(), app_code, encoder_code);
    return kExitFailure;
  }
  return 0;
}

}  // namespace

}  // namespace vcam

int main(int argc, char** argv) {
  vcam::Options options;
  try {
    options = vcam::parse_options(argc, argv);
  } catch (const vcam::UsageError& error) {
    std::fprintf(stderr, "zantrel-vcam: %s\n%s", error.what(), vcam::usage_text().c_str());
    return vcam::kExitUsage;
  }
  if (options.help) {
    std::fputs(vcam::usage_text().c_str(), stdout);
    return 0;
  }
  if (options.y4m == "-" && isatty(STDOUT_FILENO) == 1) {
    std::fputs("zantrel-vcam: --y4m -: standard output is a terminal; pipe it to a player\n",
               stderr);
    return vcam::kExitUsage;
  }
  try {
    return vcam::supervise(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zantrel-vcam: %s\n", error.what());
    return vcam::kExitFailure;
  }
}
