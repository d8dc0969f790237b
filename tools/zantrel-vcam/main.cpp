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

// Makes the output folder and empties the driver, as after the camera
// boots; false (with a message) when either cannot be done.
bool prepare(const Options& options) {
  std::error_code error;
  std::filesystem::create_directories(options.out_dir, error);
  if (error) {
    std::fprintf(stderr, "zantrel-vcam: cannot make %s: %s\n", options.out_dir.c_str(),
                 error.message().c_str());
    return false;
  }
  // Channel 0 must take the largest stream.
  const StreamSize channel_size = largest(options.streams);
  if (camsim_reset() != 0 ||
      camsim_set_resolution(0, channel_size.width, channel_size.height) != 0) {
    std::fprintf(stderr, "zantrel-vcam: the simulated driver is not reachable: %s\n",
                 std::strerror(errno));
    return false;
  }
  return true;
}

// Opens the --y4m file, so that a bad path fails before anything starts (a
// FIFO waits for its reader); false (with a message) when it cannot.
bool open_y4m(const Options& options, UniqueFd& file) {
  if (options.y4m.empty() || options.y4m == "-") {
    return true;
  }
  file = UniqueFd(open(options.y4m.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!file) {
    std::fprintf(stderr, "zantrel-vcam: cannot open %s: %s\n", options.y4m.c_str(),
                 std::strerror(errno));
    return false;
  }
  return true;
}

// Waits for the owner's word that the tables exist; false when it ended,
// failed or a stop came first.
bool wait_for_owner(Child& owner, int ready_fd) {
  while (!signals::stop_requested() && !owner.poll()) {
    if (wait_readable(ready_fd, 100) == Wait::kReady) {
      char byte = 0;
      return read(ready_fd, &byte, 1) == 1;
    }
  }
  return false;
}

// What the application and the encoder need of the run, and the
// supervisor's descriptors that they must not hold open.
struct Run {
  const Options& options;
  const std::string& work_dir;
  const Timeline& timeline;
  pid_t owner_pid;
  int y4m_fd;    // where the video goes, -1 for nowhere
  int y4m_file;  // the file opened for it, -1 for none
  std::vector<int> supervisor_fds;
};

// What the application and the encoder left when they ended.
struct Outcome {
  EncoderReport report{};
  bool have_report = false;
  int app_code = 0;
  int encoder_code = 0;
};

EncoderConfig encoder_config(const Run& run, pid_t application_pid, bool with_scene) {
  EncoderConfig config;
  config.streams = run.options.streams;
  config.timeline = run.timeline;
  config.out_dir = run.options.out_dir;
  config.owner_pid = run.owner_pid;
  config.application_pid = application_pid;
  config.live = run.options.serve;
  config.scene = with_scene;
  config.y4m_fd = run.y4m_fd;
  config.y4m_stream = run.options.y4m_stream;
  config.work_dir = run.work_dir;
  return config;
}

// Passes a stop and picture requests on until the application (if any) and
// the encoder have ended.
void forward_signals(std::optional<Child>& app, Child& encoder) {
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
}

// Runs the application (when there is a scene) and the encoder to their end.
Outcome run_camera(Run run) {
  FdPair link = make_socket_pair();
  FdPair report_pipe = make_pipe();
  run.supervisor_fds.push_back(report_pipe.read.get());
  SceneConfig scene{run.options.streams, run.work_dir, find_logo(), find_ovlconv()};
  std::vector<int> app_closes = run.supervisor_fds;
  app_closes.insert(app_closes.end(), {link.write.get(), report_pipe.write.get()});
  if (run.y4m_file >= 0) {
    app_closes.push_back(run.y4m_file);
  }
  const bool with_scene = !run.options.serve || run.options.demo;
  std::optional<Child> app;
  if (with_scene) {
    app.emplace(
        "application", [&] { return run_application(scene, link.read.get()); }, app_closes);
  }
  const EncoderConfig config = encoder_config(run, app ? app->pid() : 0, with_scene);
  std::vector<int> encoder_closes = run.supervisor_fds;
  encoder_closes.push_back(link.read.get());
  Child encoder(
      "encoder", [&] { return run_encoder(config, link.write.get(), report_pipe.write.get()); },
      encoder_closes);
  link.read.reset();
  link.write.reset();
  report_pipe.write.reset();

  forward_signals(app, encoder);
  Outcome outcome;
  outcome.have_report =
      zantrel::read_exactly(report_pipe.read.get(), &outcome.report, sizeof outcome.report);
  outcome.app_code = app ? app->exit_code() : 0;
  outcome.encoder_code = encoder.exit_code();
  return outcome;
}

// The contact sheet and the summary, or what was left behind; whether
// nothing was.
bool report_run(const Options& options, const Timeline& timeline, const Outcome& outcome,
                bool stopped, std::chrono::steady_clock::time_point start, std::FILE* out) {
  const Leftovers leftovers = find_leftovers();
  bool sheet = false;
  if (outcome.have_report && !options.serve && !stopped && outcome.encoder_code == 0 &&
      outcome.report.pictures > 0) {
    sheet = write_contact_sheet(options.out_dir, options.streams, timeline.captures,
                                timeline.change_frame);
  }
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (outcome.have_report) {
    print_summary(out, outcome.report, options.streams, leftovers, wall, options.out_dir, sheet);
  } else if (!leftovers.tables.empty() || leftovers.live_overlays != 0) {
    std::fprintf(stderr, "zantrel-vcam: left behind: %d hardware overlays, %zu shared tables\n",
                 leftovers.live_overlays, leftovers.tables.size());
  }
  return leftovers.tables.empty() && leftovers.live_overlays == 0;
}

// The exit status of a run that cleaned up.
int exit_status(const Options& options, const Outcome& outcome, bool owner_up, int owner_code,
                bool stopped) {
  if (stopped) {
    std::fprintf(stderr, "zantrel-vcam: stopped by signal %d; cleaned up\n",
                 signals::stop_signal());
    // Live, a stop is how a run ends.
    const bool app_ok = outcome.app_code == 0 || outcome.app_code == kExitStopped;
    if (!options.serve || !owner_up || owner_code != 0 || !app_ok || outcome.encoder_code != 0) {
      return 128 + signals::stop_signal();
    }
    return 0;
  }
  const bool ok_codes = owner_code == 0 && outcome.app_code == 0 && outcome.encoder_code == 0;
  if (!owner_up || !ok_codes || !outcome.have_report) {
    std::fprintf(stderr, "zantrel-vcam: failed (owner %d, application %d, encoder %d)\n",
                 owner_code, outcome.app_code, outcome.encoder_code);
    return kExitFailure;
  }
  return 0;
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
  if (!claim.take(options.serve) || !prepare(options)) {
    return kExitFailure;
  }
  const TempDir work;
  const Timeline timeline = make_timeline(options.serve ? 1 : options.seconds, options.soak);
  UniqueFd y4m_file;
  if (!open_y4m(options, y4m_file)) {
    return signals::stop_requested() ? 128 + signals::stop_signal() : kExitFailure;
  }
  const int y4m_fd = options.y4m.empty() ? -1 : options.y4m == "-" ? STDOUT_FILENO : y4m_file.get();

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
  const bool owner_up = wait_for_owner(owner, owner_ready.read.get());
  Outcome outcome;
  if (owner_up && !signals::stop_requested()) {
    outcome = run_camera(Run{options,
                             work.path(),
                             timeline,
                             owner.pid(),
                             y4m_fd,
                             y4m_file ? y4m_file.get() : -1,
                             {owner_ready.read.get(), owner_quit_write.get()}});
  }

  // Only now, with nobody attached, may the tables go.
  owner_quit_write.reset();
  owner.wait();
  const bool stopped = signals::stop_requested();
  std::FILE* const summary_out = y4m_fd == STDOUT_FILENO ? stderr : stdout;
  if (!report_run(options, timeline, outcome, stopped, start, summary_out)) {
    std::fputs("zantrel-vcam: the overlay system was not cleaned up\n", stderr);
    return kExitFailure;
  }
  return exit_status(options, outcome, owner_up, owner.exit_code(), stopped);
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
