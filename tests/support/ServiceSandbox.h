#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/TempTree.h"

namespace qx::test {

// A socket folder of the test's own, where the first client that connects
// starts `serviceExecutable` on demand: sets QXFILE_SOCKET_DIR to it, lets
// the service leave 300 ms after its last client and clears
// QXFILE_SERVICE_PATH, so that the client finds the service beside it.
class ServiceSandbox {
 public:
  explicit ServiceSandbox(std::string serviceExecutable);
  ~ServiceSandbox();
  ServiceSandbox(const ServiceSandbox&) = delete;
  ServiceSandbox& operator=(const ServiceSandbox&) = delete;

  const std::string& socketFolder() const { return sockets_.root(); }
  // The running (not zombie) service processes of this socket folder.
  std::vector<pid_t> services() const;
  // Whether every service of the folder has left within `timeout`.
  bool allGoneWithin(std::chrono::milliseconds timeout) const;

 private:
  TempTree sockets_;
  std::string executable_;
};

}  // namespace qx::test
