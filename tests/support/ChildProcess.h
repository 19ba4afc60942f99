#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace qx::test {

// Runs code in a forked child, so that a test can act as another user, or
// block and crash, without taking the test process with it.
class ChildProcess {
 public:
  // Runs `body` in a child as `uid`/`gid` without supplementary groups (as
  // the test process itself when `uid` is 0) and answers the text it
  // returned. A child that cannot take the ids answers "could not drop
  // privileges"; one killed after `seconds` answers "child timed out", one
  // that died otherwise "child died".
  static std::string runAs(uid_t uid, gid_t gid, const std::function<std::string()>& body,
                           unsigned seconds = 20);
};

}  // namespace qx::test
