#include "tests/enforcement/KernelAccess.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <utility>

#include "tests/support/ChildProcess.h"

namespace qx::test {

namespace {

unsigned folderAccess(const char* path, const char* probe) {
  unsigned granted = 0;
  int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    char buffer[4096];
    if (syscall(SYS_getdents64, fd, buffer, sizeof buffer) >= 0) granted |= KernelAccess::kRead;
    close(fd);
  }
  fd = open(probe, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd >= 0) {
    close(fd);
    if (unlink(probe) == 0) granted |= KernelAccess::kWrite;
  }
  if (access(path, X_OK) == 0) granted |= KernelAccess::kExecute;
  return granted;
}

unsigned fileAccess(const char* path) {
  unsigned granted = 0;
  for (auto [flags, right] :
       {std::pair{O_RDONLY, KernelAccess::kRead}, std::pair{O_WRONLY, KernelAccess::kWrite}}) {
    int fd = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd >= 0) {
      granted |= right;
      close(fd);
    }
  }
  if (access(path, X_OK) == 0) granted |= KernelAccess::kExecute;
  return granted;
}

}  // namespace

std::vector<KernelAccess::User> KernelAccess::testUsers() {
  std::vector<User> users;
  for (const char* name : {"qxowner", "qxmember", "qxprimary", "qxother", "qxblocked"}) {
    const struct passwd* entry = getpwnam(name);
    User user{entry ? entry->pw_uid : 0, entry ? entry->pw_gid : 0, std::vector<gid_t>(64)};
    int count = static_cast<int>(user.groups.size());
    if (!entry || getgrouplist(name, user.gid, user.groups.data(), &count) < 0) count = 0;
    user.groups.resize(static_cast<std::size_t>(count));
    users.push_back(std::move(user));
  }
  return users;
}

unsigned KernelAccess::granted(const std::string& path, bool folder, const User& user) {
  const std::string probe = path + "/.kernel-access-probe";
  const std::string answer = ChildProcess::runAs(
      user.uid, user.gid,
      [&] {
        return std::to_string(folder ? folderAccess(path.c_str(), probe.c_str())
                                     : fileAccess(path.c_str()));
      },
      20, user.groups);
  return answer.size() == 1 && std::isdigit(answer[0]) ? std::stoul(answer) : ~0u;
}

std::string KernelAccess::output(const std::string& command) {
  std::string text;
  if (FILE* pipe = popen((command + " 2>&1").c_str(), "r")) {
    char buffer[256];
    while (fgets(buffer, sizeof buffer, pipe)) text += buffer;
    pclose(pipe);
  }
  return text;
}

unsigned KernelAccess::operationsOf(uint32_t rights, bool folder) {
  constexpr uint32_t kReadData = 0x2, kWriteData = 0x4, kSearch = 0x8, kAppendData = 0x20,
                     kDeleteChild = 0x40;
  unsigned granted = 0;
  if (rights & kReadData) granted |= kRead;
  if (rights & kSearch) granted |= kExecute;
  const uint32_t write =
      folder ? (kWriteData | kAppendData | kDeleteChild | kSearch) : (kWriteData | kAppendData);
  if ((rights & write) == write) granted |= kWrite;
  return granted;
}

}  // namespace qx::test
