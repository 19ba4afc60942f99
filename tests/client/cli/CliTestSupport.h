#pragma once

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/client/ClientTestSupport.h"

namespace qxclitest {

using namespace qxclienttest;
using Json = nlohmann::json;

// The users and groups of nss/.
inline constexpr uid_t kAlice = 2201;
inline constexpr gid_t kStaff = 3210;

// One run of the qxfile command: how it ended and what it printed.
struct Outcome {
  int status = -1;  // the exit status; 1000 + the signal that ended it
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
  return stream << "status " << run.status << "\nstdout:\n" << run.out << "stderr:\n" << run.err;
}

inline int statusOf(pid_t pid) {
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 1000 + WTERMSIG(wstatus);
}

inline std::vector<char*> argvOf(std::vector<std::string>& args) {
  args.insert(args.begin(), QX_CLI_EXECUTABLE);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  return argv;
}

inline std::string contentOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Each test has a service of its own in a private socket folder, started by
// the first qxfile that needs it and gone soon after the last one.
class CommandLine : public ::testing::Test {
 protected:
  // Open to the test users: effective access looks at the folders above an item.
  void SetUp() override { chmod(tree_.root().c_str(), 0755); }
  void TearDown() override {
    EXPECT_TRUE(sandbox_.allGoneWithin(15s)) << "the service kept running without clients";
  }

  // Runs qxfile with `args`, its output going to files; `whileRunning` is
  // called with its pid once it has started.
  Outcome qxfile(std::vector<std::string> args,
                 const std::function<void(pid_t)>& whileRunning = {}) {
    const std::string out = output_.path("out"), err = output_.path("err");
    std::vector<char*> argv = argvOf(args);
    pid_t pid = fork();
    if (pid == 0) {  // only async-signal-safe calls until exec: the test may have threads
      int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
      int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (in < 0 || outFd < 0 || errFd < 0 || dup2(in, 0) < 0 || dup2(outFd, 1) < 0 ||
          dup2(errFd, 2) < 0) {
        _exit(126);
      }
      execv(argv[0], argv.data());
      _exit(127);
    }
    if (whileRunning) whileRunning(pid);
    int status = statusOf(pid);
    return {status, contentOf(out), contentOf(err)};
  }

  // Runs qxfile with its standard output and error on a terminal; `out` is
  // everything the terminal received.
  static Outcome qxfileOnTerminal(std::vector<std::string> args) {
    std::vector<char*> argv = argvOf(args);
    int terminal = -1;
    pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
      execv(argv[0], argv.data());
      _exit(127);
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(terminal, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR);) {
      if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
    }
    close(terminal);  // read fails with EIO once the command has closed the terminal
    return {statusOf(pid), text, ""};
  }

  std::string file(const std::string& name, std::size_t bytes = 0, mode_t mode = 0644) const {
    tree_.file(name, std::string(bytes, 'x'));
    chmod(tree_.path(name).c_str(), mode);
    return tree_.path(name);
  }
  std::string folder(const std::string& name, mode_t mode = 0755) const {
    tree_.folder(name, mode);
    return tree_.path(name);
  }

  qx::test::ServiceSandbox sandbox_{QX_SERVICE_EXECUTABLE};
  qx::test::TempTree tree_{"qx-cli"};
  qx::test::TempTree output_{"qx-cli-output"};
};

}  // namespace qxclitest
