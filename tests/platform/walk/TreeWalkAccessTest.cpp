// Folders that cannot be read, items that cannot be examined, other volumes,
// cycles through bind mounts, deep trees and a short supply of descriptors:
// each compared with glibc's fts on the same tree.
#include <fts.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "WalkTestSupport.h"

namespace qx::walktest {
namespace {

constexpr int kPropagation = FTS_PHYSICAL | FTS_NOCHDIR;
constexpr int kSizes = FTS_NOCHDIR | FTS_PHYSICAL | FTS_XDEV;
constexpr const char* kSeparator = "----\n";
constexpr const char* kSection = "====\n";

// Both walks of `roots`, described, one after the other.
std::string bothWalks(const std::vector<std::string>& roots, int options, bool byName) {
  return describe(walkWithFts(roots, options, byName)) + kSeparator +
         describe(walkWithTreeWalk(roots, options, byName));
}

void expectSameWalks(const std::string& both) {
  auto split = both.find(kSeparator);
  ASSERT_NE(split, std::string::npos) << both;
  EXPECT_EQ(both.substr(0, split), both.substr(split + std::strlen(kSeparator)));
}

std::vector<Visit> visitsOf(const std::vector<std::string>& roots, int options) {
  return walkWithTreeWalk(roots, options, true);
}

const Visit* find(const std::vector<Visit>& visits, const std::string& path, int info) {
  for (const Visit& visit : visits) {
    if (visit.path == path && visit.info == info) return &visit;
  }
  return nullptr;
}

std::string asNobody(const std::function<std::string()>& body) {
  return runInChild([&] {
    if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
      return std::string("cannot drop privileges");
    }
    return body();
  });
}

TEST(TreeWalkAccess, UnreadableFoldersAndUnexaminableItemsMatchFts) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  TempTree tree;
  tree.folder("top");
  tree.file("top/first");
  tree.folder("top/locked");
  tree.file("top/locked/x");
  tree.folder("top/readonly");
  tree.file("top/readonly/a");
  tree.file("top/readonly/b");
  tree.folder("top/searchonly");
  tree.file("top/searchonly/c");
  tree.folder("top/later");
  tree.file("top/later/y");
  chmod(tree.path("top/locked").c_str(), 0000);
  chmod(tree.path("top/readonly").c_str(), 0644);
  chmod(tree.path("top/searchonly").c_str(), 0111);
  std::vector<std::string> roots = {tree.path("top"), tree.path("top/locked/x")};
  for (int options : {kSizes, kPropagation}) {
    for (bool byName : {true, false}) {
      expectSameWalks(asNobody([&] { return bothWalks(roots, options, byName); }));
    }
  }
  std::string mine = asNobody([&] { return describe(visitsOf(roots, kSizes)); });
  std::vector<Visit> visits = parseVisits(mine);
  const Visit* locked = find(visits, tree.path("top/locked"), FTS_DNR);
  ASSERT_NE(locked, nullptr) << mine;
  EXPECT_EQ(locked->errnum, EACCES);
  EXPECT_EQ(find(visits, tree.path("top/locked"), FTS_DP), nullptr) << "DNR has no DP";
  EXPECT_NE(find(visits, tree.path("top/searchonly"), FTS_DNR), nullptr) << mine;
  const Visit* unexamined = find(visits, tree.path("top/readonly/a"), FTS_NS);
  ASSERT_NE(unexamined, nullptr) << mine;
  EXPECT_EQ(unexamined->errnum, EACCES);
  EXPECT_NE(find(visits, tree.path("top/readonly"), FTS_DP), nullptr) << mine;
  EXPECT_NE(find(visits, tree.path("top/later/y"), FTS_F), nullptr) << "the walk goes on";
  EXPECT_NE(find(visits, tree.path("top/locked/x"), FTS_NS), nullptr) << mine;
}

// Runs `body` in a child with a mount namespace of its own, so that nothing it
// mounts outlives it.
std::string withPrivateMounts(const std::function<std::string()>& body) {
  return runInChild([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) {
      return std::string("SKIP no mount namespace: ") + std::strerror(errno);
    }
    return body();
  });
}

TEST(TreeWalkAccess, OtherVolumesAndBindMountCyclesMatchFts) {
  TempTree tree;
  tree.folder("top");
  tree.folder("top/mnt");
  tree.folder("top/sub");
  tree.folder("top/sub/loop");
  tree.file("top/sub/file");
  std::string result = withPrivateMounts([&] {
    if (mount("none", tree.path("top/mnt").c_str(), "tmpfs", 0, nullptr) != 0 ||
        mount(tree.path("top").c_str(), tree.path("top/sub/loop").c_str(), nullptr, MS_BIND,
              nullptr) != 0) {
      return std::string("SKIP cannot mount: ") + std::strerror(errno);
    }
    FILE* f = std::fopen(tree.path("top/mnt/on-tmpfs").c_str(), "w");
    if (f) std::fclose(f);
    std::string out;
    for (int options : {kSizes, kPropagation}) {
      for (bool byName : {true, false})
        out += bothWalks({tree.path("top")}, options, byName) + kSection;
    }
    out += describe(visitsOf({tree.path("top")}, kSizes)) + kSection;
    out += describe(visitsOf({tree.path("top")}, kPropagation)) + kSection;
    return out;
  });
  if (result.starts_with("SKIP")) GTEST_SKIP() << result;
  std::vector<std::string> parts;
  for (std::size_t start = 0;;) {
    std::size_t end = result.find(kSection, start);
    if (end == std::string::npos) break;
    parts.push_back(result.substr(start, end - start));
    start = end + std::strlen(kSection);
  }
  ASSERT_EQ(parts.size(), 6u) << result;
  for (int i = 0; i < 4; ++i) expectSameWalks(parts[i]);
  // Sizes mode: the mount point is entered and left at once; the loop is a cycle.
  auto sizes = parseVisits(parts[4]);
  EXPECT_NE(find(sizes, tree.path("top/mnt"), FTS_D), nullptr) << parts[4];
  EXPECT_NE(find(sizes, tree.path("top/mnt"), FTS_DP), nullptr) << parts[4];
  EXPECT_EQ(find(sizes, tree.path("top/mnt/on-tmpfs"), FTS_F), nullptr) << parts[4];
  EXPECT_NE(find(sizes, tree.path("top/sub/loop"), FTS_DC), nullptr) << parts[4];
  EXPECT_EQ(find(sizes, tree.path("top/sub/loop"), FTS_DP), nullptr) << parts[4];
  // Without XDev the walk enters the other volume; the cycle stays a cycle.
  auto propagation = parseVisits(parts[5]);
  EXPECT_NE(find(propagation, tree.path("top/mnt/on-tmpfs"), FTS_F), nullptr) << parts[5];
  EXPECT_NE(find(propagation, tree.path("top/sub/loop"), FTS_DC), nullptr) << parts[5];
}

TEST(TreeWalkAccess, DeepTreesBeyondTheDescriptorLimitMatchFts) {
  TempTree tree;
  const int depth = static_cast<int>(TreeWalk::kOpenLevelLimit) * 2 + 100;
  std::string chain = "top";
  tree.folder(chain);
  for (int level = 1; level <= depth; ++level) {
    chain += "/d";
    tree.folder(chain);
    if (level % 97 == 0) tree.file(chain + "/file");
    // Siblings entered after the walk has come back up past closed levels.
    if (level == 150 || level == 400) {
      tree.folder(chain + "/e");
      tree.folder(chain + "/e/f");
      tree.file(chain + "/e/f/g");
      tree.file(chain + "/z");
    }
  }
  for (bool byName : {true, false}) {
    auto expected = walkWithFts({tree.path("top")}, kPropagation, byName);
    auto actual = walkWithTreeWalk({tree.path("top")}, kPropagation, byName);
    EXPECT_EQ(describe(expected), describe(actual));
    EXPECT_GT(actual.size(), static_cast<std::size_t>(2 * depth));
  }
  int before = openDescriptorCount();
  auto walk = TreeWalk::open({tree.path("top")}, kSizes);
  int most = 0;
  while (const WalkEntry* entry = walk->read()) {
    if (entry->level() % 50 == 0) most = std::max(most, openDescriptorCount() - before);
  }
  EXPECT_EQ(errno, 0);
  EXPECT_LE(most, static_cast<int>(TreeWalk::kOpenLevelLimit));
  EXPECT_GT(most, 200);
  walk.reset();
  EXPECT_EQ(openDescriptorCount(), before);
}

bool hasError(const std::vector<Visit>& visits, int number) {
  for (const Visit& visit : visits) {
    if (visit.errnum == number) return true;
  }
  return false;
}

TEST(TreeWalkAccess, ShortDescriptorSupplyIsSharedOrReported) {
  TempTree tree;
  std::string chain = "top";
  tree.folder(chain);
  for (int level = 1; level <= 120; ++level) {
    chain += "/d";
    tree.folder(chain);
    tree.file(chain + "/f");
  }
  // A dozen descriptors: the walk closes outer folders and reopens them.
  std::string few = runInChild([&] {
    rlim_t cap = static_cast<rlim_t>(lowestFreeDescriptor() + 12);
    rlimit limit{cap, cap};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("setrlimit failed");
    return describe(walkWithTreeWalk({tree.path("top")}, kPropagation, true));
  });
  auto visits = parseVisits(few);
  EXPECT_EQ(describe(walkWithFts({tree.path("top")}, kPropagation, true)), describe(visits));
  EXPECT_FALSE(hasError(visits, EMFILE)) << "no EMFILE while outer folders can be closed";
  // No descriptor at all: the folder is reported unreadable with EMFILE.
  std::string none = runInChild([&] {
    rlim_t cap = static_cast<rlim_t>(lowestFreeDescriptor());
    rlimit limit{cap, cap};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("setrlimit failed");
    return bothWalks({tree.path("top")}, kSizes, true);
  });
  expectSameWalks(none);
  auto reported = parseVisits(none.substr(0, none.find(kSeparator)));
  ASSERT_EQ(reported.size(), 2u) << none;
  EXPECT_EQ(reported[0].info, FTS_D);
  EXPECT_EQ(reported[1].info, FTS_DNR);
  EXPECT_EQ(reported[1].errnum, EMFILE);
}

}  // namespace
}  // namespace qx::walktest
