#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/xpc/UniqueFd.h"

namespace qx {

// Where the per-user service listens and how a client reaches it, starting
// the service when nothing answers.
//
// The socket is `service.sock` in the socket folder: $QXFILE_SOCKET_DIR when
// set (tests use private folders), else $XDG_RUNTIME_DIR/qxfile, else
// /tmp/qxfile-<uid>. The folder is created with mode 0700 when missing and
// refused when it is not a folder, belongs to someone else or is open to the
// group or others. A lock file, `service.lock`, sits next to the socket.
//
// Failures come back as a sentence in `error` (with the errno text when a
// system call failed); nothing is thrown.
class XpcServiceSocket {
 public:
  static std::optional<std::string> socketDirectory(std::string* error = nullptr);
  static std::optional<std::string> socketPath(std::string* error = nullptr);
  static std::string lockPathForSocket(const std::string& socketPath);

  // A stream socket connected to `path`; invalid (errno set) when nothing
  // listens there.
  static UniqueFd connectTo(const std::string& path);
  // A listening socket bound at `path`, replacing a stale socket file that
  // nothing answers on. Invalid when a live listener owns the path.
  static UniqueFd bindListening(const std::string& path, std::string* error = nullptr);

  // The client's way in: connects to the service under a shared lock on the
  // lock file; when nothing answers, takes the lock exclusively, tries again
  // (another client may have started it), else binds the listening socket
  // itself, starts `servicePath` detached with that socket, and connects.
  // Several clients starting at once end with one service. A service leaving
  // when idle holds the lock exclusively while it makes its last check for
  // waiting connections and closes its socket, so a connection either waits
  // in its backlog before that check or finds the socket closed: it is never
  // accepted by the kernel and then dropped.
  static UniqueFd connectStartingService(const std::string& servicePath,
                                         std::string* error = nullptr);
  // $QXFILE_SERVICE_PATH when set, else the installed service executable.
  static std::string defaultServicePath();

  // Starts `executable` in a new session, detached from the caller (double
  // fork), with `listeningFd` as its descriptor 3 and the socket-activation
  // variables LISTEN_FDS=1 and LISTEN_PID=<its pid>. Its standard streams are
  // /dev/null. False when the executable could not be started.
  static bool spawnService(const std::string& executable, int listeningFd,
                           std::string* error = nullptr);

  // The service's listening socket: the one handed over by socket activation
  // (sd_listen_fds), else a socket it binds at socketPath() itself.
  static UniqueFd serviceListeningSocket(std::string* error = nullptr);
  // The path a listening socket is bound to ("" when it has none).
  static std::string boundPath(int listeningFd);

  // How long the service stays up after its last connection closed: 60 s, or
  // $QXFILE_IDLE_EXIT_MS milliseconds (for tests).
  static std::chrono::milliseconds idleExitDelay();
};

// Holds a flock on a lock file for its lifetime, exclusive unless asked for a
// shared one.
class XpcLockFile {
 public:
  enum class Mode { Exclusive, Shared };
  explicit XpcLockFile(const std::string& path, Mode mode = Mode::Exclusive);
  bool locked() const { return fd_.valid(); }

 private:
  UniqueFd fd_;  // closing the descriptor releases the lock
};

}  // namespace qx
