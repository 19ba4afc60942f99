#include "tests/support/ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qx::test {

std::string ChildProcess::runAs(uid_t uid, gid_t gid, const std::function<std::string()>& body,
                                unsigned seconds, const std::vector<gid_t>& groups) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  pid_t pid = fork();
  if (pid < 0) return "fork failed";
  if (pid == 0) {
    close(fds[0]);
    alarm(seconds);
    bool dropped = uid == 0 || (setgroups(groups.size(), groups.data()) == 0 && setgid(gid) == 0 &&
                                setuid(uid) == 0);
    const std::string text = dropped ? body() : "could not drop privileges";
    for (size_t done = 0; done < text.size();) {
      const ssize_t n = write(fds[1], text.data() + done, text.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  std::string answer;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) answer.append(buffer, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status)) return WTERMSIG(status) == SIGALRM ? "child timed out" : "child died";
  return answer;
}

int ChildProcess::run(std::vector<std::string> argv, const std::string& out, const std::string& err,
                      const std::function<void(pid_t)>& whileRunning) {
  std::vector<char*> args;
  for (auto& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {  // only async-signal-safe calls until exec: the test may have threads
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (in < 0 || outFd < 0 || errFd < 0 || dup2(in, 0) < 0 || dup2(outFd, 1) < 0 ||
        dup2(errFd, 2) < 0) {
      _exit(126);
    }
    execv(args[0], args.data());
    _exit(127);
  }
  if (whileRunning) whileRunning(pid);
  return statusOf(pid);
}

int ChildProcess::statusOf(pid_t pid) {
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 1000 + WTERMSIG(wstatus);
}

}  // namespace qx::test
