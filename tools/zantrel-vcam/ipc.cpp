#include "ipc.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>

namespace vcam {

FdPair make_pipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

FdPair make_socket_pair() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

namespace signals {

namespace {

volatile sig_atomic_t g_stop_signal = 0;
volatile sig_atomic_t g_picture_requested = 0;
std::atomic<int> g_wake_write{-1};
int g_wake_read = -1;

void on_signal(int signal) {
  const int saved = errno;
  if (signal == SIGUSR1) {
    g_picture_requested = 1;
  } else if (signal != SIGCHLD) {
    g_stop_signal = signal;
  }
  const int fd = g_wake_write.load(std::memory_order_relaxed);
  if (fd >= 0) {
    const char byte = static_cast<char>(signal);
    // A full pipe already holds a wake-up; nothing is lost.
    [[maybe_unused]] ssize_t n = write(fd, &byte, 1);
  }
  errno = saved;
}

}  // namespace

void install(bool watch_children) {
  const int old_read = g_wake_read;
  const int old_write = g_wake_write.load();
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  g_wake_read = fds[0];
  g_wake_write.store(fds[1]);
  if (old_read >= 0) {
    close(old_read);
    close(old_write);
  }
  g_stop_signal = 0;
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a blocking call returns EINTR and its caller looks at the
  // stop request.
  action.sa_flags = 0;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGUSR1, &action, nullptr);
  if (watch_children) {
    action.sa_flags = SA_NOCLDSTOP;
    sigaction(SIGCHLD, &action, nullptr);
  } else {
    signal(SIGCHLD, SIG_DFL);
  }
  // A peer that died must show as a failed write, not kill the writer.
  signal(SIGPIPE, SIG_IGN);
}

sigset_t block() {
  sigset_t set;
  sigset_t old;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGCHLD);
  sigaddset(&set, SIGUSR1);
  sigprocmask(SIG_BLOCK, &set, &old);
  return old;
}

void restore(const sigset_t& mask) { sigprocmask(SIG_SETMASK, &mask, nullptr); }

void set_default_for_exec() {
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  signal(SIGCHLD, SIG_DFL);
  signal(SIGUSR1, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
}

int stop_signal() { return g_stop_signal; }
bool stop_requested() { return g_stop_signal != 0; }
bool take_picture_request() {
  const bool requested = g_picture_requested != 0;
  g_picture_requested = 0;
  return requested;
}
int wake_fd() { return g_wake_read; }

void drain() {
  char buffer[64];
  while (g_wake_read >= 0 && read(g_wake_read, buffer, sizeof buffer) > 0) {
  }
}

}  // namespace signals

Wait wait_readable(int fd, int timeout_ms, bool ignore_stop) {
  while (true) {
    if (!ignore_stop && signals::stop_requested()) {
      return Wait::kStopped;
    }
    pollfd fds[2] = {{fd, POLLIN, 0}, {signals::wake_fd(), POLLIN, 0}};
    const int n = poll(fds, signals::wake_fd() >= 0 ? 2 : 1, timeout_ms);
    if (n < 0 && errno != EINTR) {
      // Treat it as readable: the caller's read reports the error.
      return Wait::kReady;
    }
    if (n > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      return Wait::kReady;
    }
    if (n > 0 && (fds[1].revents & POLLIN) != 0) {
      signals::drain();
      if (!ignore_stop && signals::stop_requested()) {
        return Wait::kStopped;
      }
      return Wait::kTimeout;
    }
    if (n == 0) {
      return Wait::kTimeout;
    }
  }
}

Receive receive_byte(int fd, char& byte, bool ignore_stop) {
  while (true) {
    const Wait wait = wait_readable(fd, -1, ignore_stop);
    if (wait == Wait::kStopped) {
      return Receive::kStopped;
    }
    if (wait == Wait::kTimeout) {
      continue;
    }
    const ssize_t n = read(fd, &byte, 1);
    if (n == 1) {
      return Receive::kByte;
    }
    if (n == 0) {
      return Receive::kEof;
    }
    if (errno != EINTR && errno != EAGAIN) {
      return Receive::kError;
    }
  }
}

}  // namespace vcam
