#pragma once

#include <sys/fsuid.h>

namespace qx::test {

// Runs the calling thread with the file-system identity of nobody
// (setfsuid/setfsgid are per thread), so that permissions apply to root too.
class AsNobody {
 public:
  AsNobody() {
    setfsgid(65534);
    setfsuid(65534);
  }
  ~AsNobody() {
    setfsuid(0);
    setfsgid(0);
  }
};

}  // namespace qx::test
