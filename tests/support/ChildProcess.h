#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace qx::test {

// Runs code in a forked child, so that a test can act as another user, or
// block and crash, without taking the test process with it.
class ChildProcess {
 public:
  // Runs `body` in a child as `uid`/`gid` with the supplementary `groups` (as
  // the test process itself when `uid` is 0) and answers the text it
  // returned. A child that cannot take the ids answers "could not drop
  // privileges"; one killed after `seconds` answers "child timed out", one
  // that died otherwise "child died".
  static std::string runAs(uid_t uid, gid_t gid, const std::function<std::string()>& body,
                           unsigned seconds = 20, const std::vector<gid_t>& groups = {});

  // Runs the program `argv[0]` with `argv`, standard input from /dev/null and
  // its output into the files `out` and `err`; `whileRunning` is called with
  // its pid once it has started. Answers its exit status, or 1000 + the
  // signal that ended it.
  static int run(std::vector<std::string> argv, const std::string& out, const std::string& err,
                 const std::function<void(pid_t)>& whileRunning = {});

  // The exit status of the child `pid` once it ends, as run() answers it.
  static int statusOf(pid_t pid);
};

}  // namespace qx::test
