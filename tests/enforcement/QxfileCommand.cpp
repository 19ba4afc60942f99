#include "tests/enforcement/QxfileCommand.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/support/TempTree.h"

namespace qx::test {

namespace {

std::string contentOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

}  // namespace

nlohmann::json QxfileCommand::Outcome::json() const {
  nlohmann::json document = nlohmann::json::parse(out, nullptr, false);
  return document.is_discarded() ? nlohmann::json() : document;
}

QxfileCommand::Outcome QxfileCommand::run(std::vector<std::string> args) {
  // A folder of each run's own, also for runs in children that never return.
  const TempTree output("qx-enforcement-output");
  const std::string out = output.path("out");
  const std::string err = output.path("err");
  args.insert(args.begin(), QX_CLI_EXECUTABLE);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
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
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  const int status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 1000 + WTERMSIG(wstatus);
  return {status, contentOf(out), contentOf(err)};
}

std::ostream& operator<<(std::ostream& stream, const QxfileCommand::Outcome& run) {
  return stream << "status " << run.status << "\nstdout:\n" << run.out << "stderr:\n" << run.err;
}

}  // namespace qx::test
