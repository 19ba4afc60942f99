#include "WalkTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <fts.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace qx::walktest {

namespace {

int ftsNames(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}

}  // namespace

std::string describe(const Visit& visit) {
  std::ostringstream out;
  out << visit.info << '|' << visit.level << '|' << visit.errnum << '|' << visit.ino << '|'
      << visit.name << '|' << visit.path;
  return out.str();
}

std::string describe(const std::vector<Visit>& visits) {
  std::string text;
  for (const Visit& visit : visits) text += describe(visit) + "\n";
  return text;
}

std::vector<Visit> parseVisits(const std::string& text) {
  std::vector<Visit> visits;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    Visit visit{};
    std::istringstream fields(line);
    std::string field;
    std::getline(fields, field, '|');
    visit.info = std::atoi(field.c_str());
    std::getline(fields, field, '|');
    visit.level = std::atoi(field.c_str());
    std::getline(fields, field, '|');
    visit.errnum = std::atoi(field.c_str());
    std::getline(fields, field, '|');
    visit.ino = std::strtoull(field.c_str(), nullptr, 10);
    std::getline(fields, visit.name, '|');
    std::getline(fields, visit.path);
    visits.push_back(visit);
  }
  return visits;
}

std::vector<Visit> walkWithFts(const std::vector<std::string>& paths, int options, bool byName,
                               const std::string& skipName) {
  std::vector<char*> argv;
  for (const std::string& p : paths) argv.push_back(const_cast<char*>(p.c_str()));
  argv.push_back(nullptr);
  std::vector<Visit> visits;
  FTS* fts = fts_open(argv.data(), options, byName ? ftsNames : nullptr);
  if (fts == nullptr) return {{-2, 0, errno, "", "", 0}};
  errno = 0;
  while (FTSENT* entry = fts_read(fts)) {
    visits.push_back({entry->fts_info, entry->fts_level, entry->fts_errno, entry->fts_path,
                      entry->fts_name, entry->fts_statp->st_ino});
    if (entry->fts_info == FTS_D && entry->fts_name == skipName) fts_set(fts, entry, FTS_SKIP);
  }
  if (errno != 0) visits.push_back({-3, 0, errno, "", "", 0});
  fts_close(fts);
  return visits;
}

std::vector<Visit> walkWithTreeWalk(const std::vector<std::string>& paths, int options, bool byName,
                                    const std::string& skipName) {
  std::vector<Visit> visits;
  auto walk = TreeWalk::open(paths, options, byName ? compareNames : nullptr);
  if (!walk) return {{-2, 0, errno, "", "", 0}};
  errno = 0;
  while (const WalkEntry* entry = walk->read()) {
    visits.push_back({entry->infoValue(), entry->level(), entry->errnum(), entry->path(),
                      entry->name(), entry->statp()->st_ino});
    if (entry->info() != WalkInfo::NS) {
      // The descriptor and name handed out reach the very item examined.
      int saved = errno;
      struct stat st;
      if (fstatat(entry->parentFd(), entry->accessName(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
          st.st_ino != entry->statp()->st_ino || st.st_dev != entry->statp()->st_dev) {
        visits.push_back({-1, entry->level(), errno, entry->path(), entry->accessName(), 0});
      }
      errno = saved;
    }
    if (entry->info() == WalkInfo::D && entry->nameView() == skipName) {
      walk->set(entry, TreeWalk::Skip);
    }
  }
  if (errno != 0) visits.push_back({-3, 0, errno, "", "", 0});
  if (walk->close() != 0) visits.push_back({-4, 0, errno, "", "", 0});
  return visits;
}

int compareNames(const WalkEntry* a, const WalkEntry* b) {
  return std::strcmp(a->name(), b->name());
}

std::string runInChild(const std::function<std::string()>& body) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return "pipe failed";
  pid_t pid = fork();
  if (pid < 0) return "fork failed";
  if (pid == 0) {
    ::close(pipeFds[0]);
    std::string out;
    try {
      out = body();
    } catch (const std::exception& e) {
      out = std::string("exception: ") + e.what();
    }
    const char* data = out.data();
    std::size_t left = out.size();
    while (left > 0) {
      ssize_t n = write(pipeFds[1], data, left);
      if (n <= 0) _exit(3);
      data += n;
      left -= static_cast<std::size_t>(n);
    }
    _exit(0);
  }
  ::close(pipeFds[1]);
  std::string out;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) out.append(buffer, n);
  ::close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  if (WEXITSTATUS(status) != 0) return "exit " + std::to_string(WEXITSTATUS(status));
  return out;
}

int openDescriptorCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the listing's own descriptor
}

int lowestFreeDescriptor() {
  int fd = dup(0);
  if (fd >= 0) ::close(fd);
  return fd;
}

}  // namespace qx::walktest
