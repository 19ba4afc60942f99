#include "tests/support/ServiceSandbox.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/Eventually.h"

namespace qx::test {

namespace {

// A zombie waiting for its reaper has ended.
bool processRuns(const std::filesystem::path& proc) {
  std::ifstream stat(proc / "stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

}  // namespace

ServiceSandbox::ServiceSandbox(std::string serviceExecutable)
    : sockets_("qx-sockets"), executable_(std::move(serviceExecutable)) {
  chmod(sockets_.root().c_str(), 0700);
  setenv("QXFILE_SOCKET_DIR", sockets_.root().c_str(), 1);
  setenv("QXFILE_IDLE_EXIT_MS", "300", 1);
  unsetenv("QXFILE_SERVICE_PATH");
}

ServiceSandbox::~ServiceSandbox() {
  unsetenv("QXFILE_SOCKET_DIR");
}

std::vector<pid_t> ServiceSandbox::services() const {
  std::vector<pid_t> pids;
  const std::string marker = "QXFILE_SOCKET_DIR=" + sockets_.root();
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (std::filesystem::read_symlink(entry.path() / "exe", ignored) != executable_) continue;
    std::ifstream environ(entry.path() / "environ", std::ios::binary);
    for (std::string variable; std::getline(environ, variable, '\0');) {
      if (variable == marker && processRuns(entry.path())) pids.push_back(std::stoi(name));
    }
  }
  return pids;
}

bool ServiceSandbox::allGoneWithin(std::chrono::milliseconds timeout) const {
  return eventually([&] { return services().empty(); }, timeout);
}

}  // namespace qx::test
