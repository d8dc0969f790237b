// What the processes of the virtual camera use to talk and to stop: owned
// descriptors, one-byte messages, and signals turned into a readable pipe so
// that every wait can also see Ctrl-C.
#pragma once

#include <sys/types.h>

#include <initializer_list>
#include <utility>

#include "zantrel-base/io.h"
#include "zantrel-base/unique_fd.h"

namespace vcam {

using zantrel::UniqueFd;

struct FdPair {
  UniqueFd read;
  UniqueFd write;
};
// A pipe (read end, write end); throws std::system_error.
FdPair make_pipe();
// A connected pair of stream sockets; throws std::system_error.
FdPair make_socket_pair();

// SIGINT and SIGTERM ask the process to stop; SIGUSR1 asks for pictures now;
// SIGCHLD only wakes it. The
// handlers write to a pipe of this process, which waits poll together with
// the descriptor they wait for.
namespace signals {

// Installs the handlers with a fresh wake-up pipe; a forked child calls it
// again so that it does not share its parent's pipe.
void install(bool watch_children);
// Blocks SIGINT, SIGTERM, SIGCHLD and SIGUSR1 and returns the former mask, so that a
// fork can hand the child over to its own handlers without losing a signal.
sigset_t block();
void restore(const sigset_t& mask);
// Puts the four back to their default action (for a forked child's exec).
void set_default_for_exec();

// The stopping signal seen so far, 0 when none.
int stop_signal();
bool stop_requested();
// Whether SIGUSR1 came since the last call.
bool take_picture_request();
int wake_fd();
// Empties the wake-up pipe.
void drain();

}  // namespace signals

enum class Wait { kReady, kStopped, kTimeout };

// Waits until fd is readable, timeout_ms passes (-1: no limit) or a stop is
// requested (unless ignore_stop). Any signal wakes it; a SIGCHLD returns
// kTimeout so that a caller reaping children can look.
Wait wait_readable(int fd, int timeout_ms, bool ignore_stop = false);

enum class Receive { kByte, kEof, kStopped, kError };
// One byte of fd; waits as wait_readable without limit.
Receive receive_byte(int fd, char& byte, bool ignore_stop = false);
// One byte; false when the other end is gone (no SIGPIPE). Longer messages
// go through zantrel::write_all and zantrel::read_exactly.
inline bool send_byte(int fd, char byte) { return zantrel::write_all(fd, &byte, 1); }

}  // namespace vcam
