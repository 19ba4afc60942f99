#pragma once

#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/client/ClientTestSupport.h"

extern char** environ;

namespace qxclitest {

using namespace qxclienttest;
using Json = nlohmann::json;

// The users and groups of nss/.
inline constexpr uid_t kAlice = 2201;
inline constexpr uid_t kBob = 2202;
inline constexpr gid_t kStaff = 3210;

// One run of the qxfile command: how it ended and what it printed.
struct Outcome {
  bool exited = false;  // false when a signal ended it
  int status = -1;      // the exit status, or the signal
  std::string out;
  std::string err;

  // Standard output as JSON; a null document (and a test failure) when it is not.
  Json json() const {
    Json document = Json::parse(out, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << "not JSON: " << out;
    return document.is_discarded() ? Json() : document;
  }
};

inline std::ostream& operator<<(std::ostream& stream, const Outcome& run) {
  return stream << (run.exited ? "exit " : "signal ") << run.status << "\nstdout:\n"
                << run.out << "stderr:\n"
                << run.err;
}

// Reads both pipes to their ends, without letting either fill up.
inline void drain(int outFd, int errFd, std::string& out, std::string& err) {
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* sinks[2] = {&out, &err};
  int open = 2;
  char buffer[65536];
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
}

inline Outcome finish(pid_t pid) {
  Outcome run;
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  run.exited = WIFEXITED(wstatus);
  run.status = run.exited ? WEXITSTATUS(wstatus) : WTERMSIG(wstatus);
  return run;
}

// Runs qxfile with `args`; `whileRunning` is called with its pid once it has
// started.
inline Outcome qxfile(const std::vector<std::string>& args,
                      const std::function<void(pid_t)>& whileRunning = {}) {
  int out[2];
  int err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  std::vector<std::string> argvStrings{QX_CLI_EXECUTABLE};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& arg : argvStrings) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  int spawned = ::posix_spawn(&pid, QX_CLI_EXECUTABLE, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);
  if (spawned != 0) {
    ::close(out[0]);
    ::close(err[0]);
    ADD_FAILURE() << "cannot start " << QX_CLI_EXECUTABLE << ": " << std::strerror(spawned);
    return {};
  }
  if (whileRunning) whileRunning(pid);
  std::string stdoutText;
  std::string stderrText;
  drain(out[0], err[0], stdoutText, stderrText);
  Outcome run = finish(pid);
  run.out = std::move(stdoutText);
  run.err = std::move(stderrText);
  return run;
}

// Runs qxfile with its standard output and error on a terminal; `out` is
// everything the terminal received.
inline Outcome qxfileOnTerminal(const std::vector<std::string>& args) {
  std::vector<std::string> argvStrings{QX_CLI_EXECUTABLE};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& arg : argvStrings) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int terminal = -1;
  pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    ::execv(QX_CLI_EXECUTABLE, argv.data());
    ::_exit(127);
  }
  if (pid < 0) return {};
  std::string text;
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(terminal, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;  // EIO once the command has closed the terminal
    }
  }
  ::close(terminal);
  Outcome run = finish(pid);
  run.out = std::move(text);
  return run;
}

// Whether process `pid` has a handler for `signal` (its SigCgt mask).
inline bool catchesSignal(pid_t pid, int signal) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("SigCgt:", 0) == 0) {
      unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
      return (mask >> (signal - 1)) & 1;
    }
  }
  return false;
}

// Each test has a service of its own in a private socket folder, started by
// the first qxfile that needs it and gone soon after the last one.
class CommandLine : public ::testing::Test {
 protected:
  void SetUp() override {
    sockets_ = std::make_unique<TempFolder>("qx-cli-sockets");
    ASSERT_FALSE(sockets_->path().empty());
    ::setenv("QXFILE_SOCKET_DIR", sockets_->path().c_str(), 1);
    ::setenv("QXFILE_IDLE_EXIT_MS", "300", 1);
    ::unsetenv("QXFILE_SERVICE_PATH");
    ASSERT_FALSE(files_.path().empty());
    // Open to the test users: effective access looks at the folders above an item.
    ::chmod(files_.path().c_str(), 0755);
  }

  void TearDown() override {
    EXPECT_TRUE(eventually([&] { return servicesFor(sockets_->path()).empty(); }, 15s))
        << "the service kept running without clients";
  }

  static bool isRoot() { return ::geteuid() == 0; }

  TempFolder files_{"qx-cli"};

 private:
  std::unique_ptr<TempFolder> sockets_;
};

}  // namespace qxclitest
