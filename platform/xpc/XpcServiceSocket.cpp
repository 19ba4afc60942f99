#include "platform/xpc/XpcServiceSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#ifndef QX_SERVICE_INSTALL_PATH
#define QX_SERVICE_INSTALL_PATH "/usr/local/libexec/qxfile-service"
#endif

extern char** environ;

namespace qx {
namespace {

void setError(std::string* error, std::string message) {
  if (error) *error = std::move(message);
}

std::string withErrno(const std::string& sentence, int number) {
  return sentence + ": " + std::strerror(number);
}

const char* nonEmptyEnv(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

bool fillAddress(const std::string& path, sockaddr_un& address) {
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

// Creates the folder (0700) when missing, then checks that it is a folder of
// ours that nobody else can enter.
bool preparePrivateFolder(const std::string& path, std::string* error) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    setError(error, withErrno("Couldn't create the socket folder \"" + path + "\"", errno));
    return false;
  }
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0) {
    setError(error, withErrno("Couldn't examine the socket folder \"" + path + "\"", errno));
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    setError(error, "The socket folder \"" + path + "\" is not a folder.");
    return false;
  }
  if (info.st_uid != ::geteuid()) {
    setError(error, "The socket folder \"" + path + "\" belongs to another user.");
    return false;
  }
  if ((info.st_mode & 077) != 0) {
    setError(error, "The socket folder \"" + path + "\" is open to other users.");
    return false;
  }
  return true;
}

// Writes `value` in decimal at `out` (async-signal-safe).
void writeDecimal(char* out, long value) {
  char digits[24];
  int count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value > 0);
  while (count > 0) *out++ = digits[--count];
  *out = '\0';
}

}  // namespace

XpcLockFile::XpcLockFile(const std::string& path, Mode mode)
    : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
  if (!fd_) return;
  int result;
  do {
    result = ::flock(fd_.get(), mode == Mode::Shared ? LOCK_SH : LOCK_EX);
  } while (result != 0 && errno == EINTR);
  if (result != 0) fd_.reset();
}

std::optional<std::string> XpcServiceSocket::socketDirectory(std::string* error) {
  std::string folder;
  if (const char* dir = nonEmptyEnv("QXFILE_SOCKET_DIR")) {
    folder = dir;
  } else if (const char* runtime = nonEmptyEnv("XDG_RUNTIME_DIR")) {
    folder = std::string(runtime) + "/qxfile";
  } else {
    folder = "/tmp/qxfile-" + std::to_string(::geteuid());
  }
  if (!preparePrivateFolder(folder, error)) return std::nullopt;
  return folder;
}

std::optional<std::string> XpcServiceSocket::socketPath(std::string* error) {
  auto folder = socketDirectory(error);
  if (!folder) return std::nullopt;
  return *folder + "/service.sock";
}

std::string XpcServiceSocket::lockPathForSocket(const std::string& socketPath) {
  auto slash = socketPath.rfind('/');
  std::string folder = slash == std::string::npos ? "." : socketPath.substr(0, slash);
  return folder + "/service.lock";
}

UniqueFd XpcServiceSocket::connectTo(const std::string& path) {
  sockaddr_un address;
  if (!fillAddress(path, address)) {
    errno = ENAMETOOLONG;
    return UniqueFd();
  }
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return fd;
  int result;
  do {
    result = ::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    int saved = errno;
    fd.reset();
    errno = saved;
  }
  return fd;
}

UniqueFd XpcServiceSocket::bindListening(const std::string& path, std::string* error) {
  sockaddr_un address;
  if (!fillAddress(path, address)) {
    setError(error, "The socket path \"" + path + "\" is too long.");
    return UniqueFd();
  }
  if (connectTo(path)) {
    setError(error, "A service already listens at \"" + path + "\".");
    return UniqueFd();
  }
  ::unlink(path.c_str());  // a stale socket of a service that has ended
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    setError(error, withErrno("Couldn't create a socket", errno));
    return fd;
  }
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd.get(), SOMAXCONN) != 0) {
    setError(error, withErrno("Couldn't listen at \"" + path + "\"", errno));
    fd.reset();
  }
  return fd;
}

std::string XpcServiceSocket::defaultServicePath() {
  if (const char* path = nonEmptyEnv("QXFILE_SERVICE_PATH")) return path;
  return QX_SERVICE_INSTALL_PATH;
}

UniqueFd XpcServiceSocket::connectStartingService(const std::string& servicePath,
                                                  std::string* error) {
  auto path = socketPath(error);
  if (!path) return UniqueFd();
  std::string lockPath = lockPathForSocket(*path);
  {
    XpcLockFile shared(lockPath, XpcLockFile::Mode::Shared);
    if (!shared.locked()) {
      setError(error, withErrno("Couldn't lock \"" + lockPath + "\"", errno));
      return UniqueFd();
    }
    if (UniqueFd fd = connectTo(*path)) return fd;
  }

  XpcLockFile lock(lockPath);
  if (!lock.locked()) {
    setError(error, withErrno("Couldn't lock \"" + lockPath + "\"", errno));
    return UniqueFd();
  }
  // Another client may have started the service while this one waited.
  if (UniqueFd fd = connectTo(*path)) return fd;

  UniqueFd listening = bindListening(*path, error);
  if (!listening) return UniqueFd();
  if (!spawnService(servicePath, listening.get(), error)) {
    ::unlink(path->c_str());
    return UniqueFd();
  }
  // The socket listens already: this connection waits in its backlog until
  // the service accepts it.
  UniqueFd fd = connectTo(*path);
  if (!fd) setError(error, withErrno("Couldn't connect to \"" + *path + "\"", errno));
  return fd;
}

bool XpcServiceSocket::spawnService(const std::string& executable, int listeningFd,
                                    std::string* error) {
  if (::access(executable.c_str(), X_OK) != 0) {
    setError(error, withErrno("Couldn't start the service \"" + executable + "\"", errno));
    return false;
  }
  // Everything the children need is prepared here: between fork and exec only
  // async-signal-safe calls are allowed.
  std::vector<std::string> variables;
  for (char** entry = environ; entry && *entry; ++entry) {
    std::string_view text(*entry);
    if (text.starts_with("LISTEN_FDS=") || text.starts_with("LISTEN_PID=") ||
        text.starts_with("LISTEN_FDNAMES="))
      continue;
    variables.emplace_back(text);
  }
  variables.emplace_back("LISTEN_FDS=1");
  variables.emplace_back("LISTEN_PID=" + std::string(24, '\0'));
  std::vector<char*> envp;
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);
  char* pidValue = variables.back().data() + std::strlen("LISTEN_PID=");
  std::string program = executable;
  char* argv[] = {program.data(), nullptr};

  int status[2];  // the grandchild reports a failed exec through this pipe
  if (::pipe2(status, O_CLOEXEC) != 0) {
    setError(error, withErrno("Couldn't start the service", errno));
    return false;
  }
  UniqueFd statusRead(status[0]);
  // Keep the write end clear of the descriptors the child rearranges (0-3).
  UniqueFd statusWrite(::fcntl(status[1], F_DUPFD_CLOEXEC, 10));
  ::close(status[1]);
  if (!statusWrite) {
    setError(error, withErrno("Couldn't start the service", errno));
    return false;
  }

  pid_t child = ::fork();
  if (child < 0) {
    setError(error, withErrno("Couldn't start the service", errno));
    return false;
  }
  if (child == 0) {
    ::setsid();
    pid_t grandchild = ::fork();
    if (grandchild != 0) ::_exit(grandchild < 0 ? 1 : 0);
    if (listeningFd != 3) {
      if (::dup2(listeningFd, 3) < 0) ::_exit(127);
    } else {
      ::fcntl(3, F_SETFD, 0);
    }
    int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
      ::dup2(null, 0);
      ::dup2(null, 1);
      ::dup2(null, 2);
    }
    // Descriptors above 3 other than the status pipe are not the service's.
    int pipeFd = statusWrite.get();
    ::close_range(4, static_cast<unsigned>(pipeFd - 1), 0);
    ::close_range(static_cast<unsigned>(pipeFd) + 1, ~0U, 0);
    writeDecimal(pidValue, static_cast<long>(::getpid()));
    ::execve(argv[0], argv, envp.data());
    int failure = errno;
    [[maybe_unused]] auto written = ::write(pipeFd, &failure, sizeof failure);
    ::_exit(127);
  }
  statusWrite.reset();
  int childStatus = 0;
  while (::waitpid(child, &childStatus, 0) < 0 && errno == EINTR) {
  }
  int failure = 0;
  ssize_t got;
  do {
    got = ::read(statusRead.get(), &failure, sizeof failure);
  } while (got < 0 && errno == EINTR);
  if (got == static_cast<ssize_t>(sizeof failure)) {
    setError(error, withErrno("Couldn't start the service \"" + executable + "\"", failure));
    return false;
  }
  if (!WIFEXITED(childStatus) || WEXITSTATUS(childStatus) != 0) {
    setError(error, "Couldn't start the service \"" + executable + "\".");
    return false;
  }
  return true;
}

UniqueFd XpcServiceSocket::serviceListeningSocket(std::string* error) {
  int count = sd_listen_fds(1);
  if (count >= 1) {
    int fd = SD_LISTEN_FDS_START;
    if (sd_is_socket_unix(fd, SOCK_STREAM, 1, nullptr, 0) <= 0) {
      setError(error, "The socket handed to the service is not a listening Unix socket.");
      return UniqueFd();
    }
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    return UniqueFd(fd);
  }
  auto path = socketPath(error);
  if (!path) return UniqueFd();
  return bindListening(*path, error);
}

std::string XpcServiceSocket::boundPath(int listeningFd) {
  sockaddr_un address;
  socklen_t length = sizeof address;
  std::memset(&address, 0, sizeof address);
  if (::getsockname(listeningFd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      address.sun_family != AF_UNIX || address.sun_path[0] == '\0')
    return "";
  return std::string(address.sun_path, strnlen(address.sun_path, sizeof address.sun_path));
}

std::chrono::milliseconds XpcServiceSocket::idleExitDelay() {
  if (const char* text = nonEmptyEnv("QXFILE_IDLE_EXIT_MS")) {
    char* end = nullptr;
    long long value = std::strtoll(text, &end, 10);
    if (end && *end == '\0' && value >= 0) return std::chrono::milliseconds(value);
  }
  return std::chrono::seconds(60);
}

}  // namespace qx
