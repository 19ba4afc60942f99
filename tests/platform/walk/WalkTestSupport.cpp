#include "WalkTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <sstream>

namespace qx::walktest {

namespace {

int ftsNames(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}

int walkNames(const WalkEntry* a, const WalkEntry* b) {
  return std::strcmp(a->name(), b->name());
}

}  // namespace

std::string describe(const std::vector<Visit>& visits) {
  std::ostringstream out;
  for (const Visit& v : visits)
    out << v.info << '|' << v.level << '|' << v.errnum << '|' << v.ino << '|' << v.name << '|'
        << v.path << '\n';
  return out.str();
}

std::vector<Visit> parseVisits(const std::string& text) {
  std::vector<Visit> visits;
  std::istringstream in(text);
  Visit v{};
  char bar;
  while (in >> v.info >> bar >> v.level >> bar >> v.errnum >> bar >> v.ino >> bar &&
         std::getline(in, v.name, '|') && std::getline(in, v.path))
    visits.push_back(v);
  return visits;
}

const Visit* find(const std::vector<Visit>& visits, const std::string& path, int info) {
  for (const Visit& visit : visits)
    if (visit.path == path && visit.info == info) return &visit;
  return nullptr;
}

std::vector<Visit> walkWithFts(const std::vector<std::string>& paths, int options, bool byName,
                               const OnVisit& onVisit) {
  std::vector<char*> argv;
  for (const std::string& p : paths) argv.push_back(const_cast<char*>(p.c_str()));
  argv.push_back(nullptr);
  FTS* fts = fts_open(argv.data(), options, byName ? ftsNames : nullptr);
  if (fts == nullptr) return {{-2, 0, errno, "", "", 0}};
  std::vector<Visit> visits;
  errno = 0;
  while (FTSENT* entry = fts_read(fts)) {
    visits.push_back({entry->fts_info, entry->fts_level, entry->fts_errno, entry->fts_path,
                      entry->fts_name, entry->fts_statp->st_ino});
    if (onVisit && onVisit(visits.back())) fts_set(fts, entry, FTS_SKIP);
  }
  if (errno != 0) visits.push_back({-3, 0, errno, "", "", 0});
  fts_close(fts);
  return visits;
}

std::vector<Visit> walkWithTreeWalk(const std::vector<std::string>& paths, int options, bool byName,
                                    const OnVisit& onVisit) {
  auto walk = TreeWalk::open(paths, options, byName ? walkNames : nullptr);
  if (!walk) return {{-2, 0, errno, "", "", 0}};
  std::vector<Visit> visits;
  errno = 0;
  while (const WalkEntry* entry = walk->read()) {
    Visit visit{entry->infoValue(), entry->level(), entry->errnum(),
                entry->path(),      entry->name(),  entry->statp()->st_ino};
    visits.push_back(visit);
    // The descriptor and name handed out reach the very item examined.
    int saved = errno;
    struct stat st;
    if (entry->info() != WalkInfo::NS &&
        (fstatat(entry->parentFd(), entry->accessName(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
         st.st_ino != entry->statp()->st_ino || st.st_dev != entry->statp()->st_dev))
      visits.push_back({-1, entry->level(), errno, entry->path(), entry->accessName(), 0});
    errno = saved;
    if (onVisit && onVisit(visit)) walk->set(entry, TreeWalk::Skip);
  }
  if (errno != 0) visits.push_back({-3, 0, errno, "", "", 0});
  if (walk->close() != 0) visits.push_back({-4, 0, errno, "", "", 0});
  return visits;
}

std::string bothWalksDiffer(const std::vector<std::string>& paths, int options, bool byName) {
  std::string fts = describe(walkWithFts(paths, options, byName));
  std::string mine = describe(walkWithTreeWalk(paths, options, byName));
  return fts == mine ? "" : "fts:\n" + fts + "TreeWalk:\n" + mine;
}

int openDescriptorCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count - 1;  // the listing's own descriptor
}

}  // namespace qx::walktest
