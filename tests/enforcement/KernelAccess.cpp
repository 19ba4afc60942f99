#include "tests/enforcement/KernelAccess.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace qx::test {

namespace {

constexpr int kNoIds = 100;

// Runs in the child: only system calls, the parent may have threads.
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

KernelAccess::User KernelAccess::userNamed(const std::string& name) {
  struct passwd* entry = getpwnam(name.c_str());
  if (!entry) return {0, 0, {}};
  User user{entry->pw_uid, entry->pw_gid, std::vector<gid_t>(64)};
  int count = static_cast<int>(user.groups.size());
  if (getgrouplist(name.c_str(), entry->pw_gid, user.groups.data(), &count) < 0) count = 0;
  user.groups.resize(static_cast<std::size_t>(count));
  return user;
}

std::vector<KernelAccess::User> KernelAccess::testUsers() {
  std::vector<User> users;
  for (const char* name : {"qxowner", "qxmember", "qxprimary", "qxother", "qxblocked"}) {
    users.push_back(userNamed(name));
  }
  return users;
}

int KernelAccess::runAs(const User& user, const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid < 0) return kNoIds;
  if (pid == 0) {
    if (setgroups(user.groups.size(), user.groups.data()) != 0 ||
        setresgid(user.gid, user.gid, user.gid) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0) {
      _exit(kNoIds);
    }
    _exit(body());
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kNoIds;
}

unsigned KernelAccess::granted(const std::string& path, bool folder, const User& user) {
  const std::string probe = path + "/.kernel-access-probe";
  const int answer = runAs(user, [&] {
    return static_cast<int>(folder ? folderAccess(path.c_str(), probe.c_str())
                                   : fileAccess(path.c_str()));
  });
  return answer == kNoIds ? ~0u : static_cast<unsigned>(answer);
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
