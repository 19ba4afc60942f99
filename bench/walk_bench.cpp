// Compares the descriptor-based TreeWalk with glibc's fts on a generated tree,
// in the two configurations the service uses, and prints the time ratios.
//
//   walk_bench [items] [folder]
//
// items defaults to 120000; the tree is made in a temporary folder (or in
// `folder`, kept for later runs when given) and removed afterwards.
#include <fcntl.h>
#include <fts.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/walk/TreeWalk.h"

namespace {

struct Tally {
  long entries = 0;
  long long bytes = 0;
  bool operator==(const Tally&) const = default;
};

int ftsNames(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}

int walkNames(const qx::WalkEntry* a, const qx::WalkEntry* b) {
  return std::strcmp(a->name(), b->name());
}

Tally withFts(const std::string& root, int options, bool sorted) {
  char* argv[] = {const_cast<char*>(root.c_str()), nullptr};
  FTS* fts = fts_open(argv, options, sorted ? ftsNames : nullptr);
  Tally tally;
  while (FTSENT* entry = fts_read(fts)) {
    ++tally.entries;
    if (entry->fts_info != FTS_D && entry->fts_info != FTS_DP) {
      tally.bytes += entry->fts_statp->st_size;
    }
  }
  fts_close(fts);
  return tally;
}

Tally withTreeWalk(const std::string& root, int options, bool sorted) {
  auto walk = qx::TreeWalk::open({root}, options, sorted ? walkNames : nullptr);
  Tally tally;
  while (const qx::WalkEntry* entry = walk->read()) {
    ++tally.entries;
    if (entry->info() != qx::WalkInfo::D && entry->info() != qx::WalkInfo::DP) {
      tally.bytes += entry->statp()->st_size;
    }
  }
  walk->close();
  return tally;
}

// Folders of 100 files, ten to a parent folder, until `items` items exist.
long makeTree(const std::string& root, long items) {
  mkdir(root.c_str(), 0755);
  long made = 0;
  for (int group = 0; made < items; ++group) {
    std::string groupPath = root + "/group" + std::to_string(group);
    mkdir(groupPath.c_str(), 0755);
    ++made;
    for (int folder = 0; folder < 10 && made < items; ++folder) {
      std::string folderPath = groupPath + "/folder" + std::to_string(folder);
      mkdir(folderPath.c_str(), 0755);
      ++made;
      for (int file = 0; file < 100 && made < items; ++file) {
        std::string filePath = folderPath + "/file" + std::to_string(file);
        int fd = open(filePath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return -1;
        if (file % 7 == 0 && write(fd, "some bytes", 10) != 10) return -1;
        close(fd);
        ++made;
      }
    }
  }
  return made;
}

template <class Walk>
double seconds(Walk&& walk, Tally& tally) {
  auto start = std::chrono::steady_clock::now();
  tally = walk();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  long items = argc > 1 ? std::atol(argv[1]) : 120000;
  bool keep = argc > 2;
  std::string root;
  if (keep) {
    root = argv[2];
  } else {
    char pattern[] = "/tmp/qx-walk-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return 1;
    root = std::string(pattern) + "/tree";
  }
  struct stat st;
  if (lstat(root.c_str(), &st) != 0) {
    long made = makeTree(root, items);
    if (made < 0) {
      std::perror("making the tree");
      return 1;
    }
    std::printf("tree: %ld items in %s\n", made, root.c_str());
  }
  struct Mode {
    const char* name;
    int options;
    bool sorted;
  };
  const Mode modes[] = {
      {"propagation (physical, no comparator)", FTS_PHYSICAL | FTS_NOCHDIR, false},
      {"sizes (physical, xdev, by name)", FTS_NOCHDIR | FTS_PHYSICAL | FTS_XDEV, true}};
  int status = 0;
  for (const Mode& mode : modes) {
    Tally fromFts, fromWalk;
    withFts(root, mode.options, mode.sorted);  // warm the caches
    std::vector<double> ftsTimes, walkTimes;
    for (int run = 0; run < 5; ++run) {
      ftsTimes.push_back(
          seconds([&] { return withFts(root, mode.options, mode.sorted); }, fromFts));
      walkTimes.push_back(
          seconds([&] { return withTreeWalk(root, mode.options, mode.sorted); }, fromWalk));
    }
    if (!(fromFts == fromWalk)) {
      std::printf("%s: walks disagree (%ld entries/%lld bytes vs %ld/%lld)\n", mode.name,
                  fromFts.entries, fromFts.bytes, fromWalk.entries, fromWalk.bytes);
      status = 1;
    }
    double a = median(walkTimes);
    double b = median(ftsTimes);
    std::printf("%s, %ld entries: treewalk_s=%.4f fts_s=%.4f\n", mode.name, fromWalk.entries, a, b);
    std::printf("walk: ratio=%.3f treewalk_s=%.4f fts_s=%.4f\n", a / b, a, b);
  }
  if (!keep) {
    std::error_code error;
    std::filesystem::remove_all(std::filesystem::path(root).parent_path(), error);
  }
  return status;
}
