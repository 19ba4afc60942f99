// Folders that cannot be read, items that cannot be examined, other volumes,
// cycles through bind mounts, deep trees and a short supply of descriptors:
// each compared with glibc's fts on the same tree, in a child process where
// the test needs another identity, private mounts or fewer descriptors.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "WalkTestSupport.h"
#include "tests/support/ChildProcess.h"

namespace qx::walktest {
namespace {

using test::ChildProcess;

// Each mode's fts comparison, then TreeWalk's own visits in sizes mode.
std::string compareAndWalk(const std::vector<std::string>& roots) {
  std::string differences;
  for (int options : {kSizes, kPropagation})
    for (bool byName : {true, false}) differences += bothWalksDiffer(roots, options, byName);
  return differences.empty() ? describe(walkWithTreeWalk(roots, kSizes, true))
                             : "differ\n" + differences;
}

TEST(TreeWalkAccess, UnreadableFoldersAndUnexaminableItemsMatchFts) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  test::TempTree tree("qx-walk");
  tree.folder("top");
  tree.file("top/first");
  tree.folder("top/locked");
  tree.file("top/locked/x");
  tree.folder("top/readonly");
  tree.file("top/readonly/a");
  tree.folder("top/searchonly");
  tree.file("top/searchonly/c");
  tree.folder("top/later");
  tree.file("top/later/y");
  chmod(tree.path("top/locked").c_str(), 0000);
  chmod(tree.path("top/readonly").c_str(), 0644);
  chmod(tree.path("top/searchonly").c_str(), 0111);
  std::string text = ChildProcess::runAs(65534, 65534, [&] {
    return compareAndWalk({tree.path("top"), tree.path("top/locked/x")});
  });
  auto visits = parseVisits(text);
  ASSERT_FALSE(visits.empty()) << text;
  const Visit* locked = find(visits, tree.path("top/locked"), FTS_DNR);
  ASSERT_NE(locked, nullptr) << text;
  EXPECT_EQ(locked->errnum, EACCES);
  EXPECT_EQ(find(visits, tree.path("top/locked"), FTS_DP), nullptr) << "DNR has no DP";
  EXPECT_NE(find(visits, tree.path("top/searchonly"), FTS_DNR), nullptr) << text;
  const Visit* unexamined = find(visits, tree.path("top/readonly/a"), FTS_NS);
  ASSERT_NE(unexamined, nullptr) << text;
  EXPECT_EQ(unexamined->errnum, EACCES);
  EXPECT_NE(find(visits, tree.path("top/readonly"), FTS_DP), nullptr) << text;
  EXPECT_NE(find(visits, tree.path("top/later/y"), FTS_F), nullptr) << "the walk goes on";
  EXPECT_NE(find(visits, tree.path("top/locked/x"), FTS_NS), nullptr) << text;
}

TEST(TreeWalkAccess, OtherVolumesAndBindMountCyclesMatchFts) {
  test::TempTree tree("qx-walk");
  tree.folder("top");
  tree.folder("top/mnt");
  tree.folder("top/sub");
  tree.folder("top/sub/loop");
  tree.file("top/sub/file");
  // Mounts in a mount namespace of the child's own, gone with it.
  std::string text = ChildProcess::runAs(0, 0, [&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount("none", tree.path("top/mnt").c_str(), "tmpfs", 0, nullptr) != 0 ||
        mount(tree.path("top").c_str(), tree.path("top/sub/loop").c_str(), nullptr, MS_BIND,
              nullptr) != 0)
      return std::string("cannot mount: ") + std::strerror(errno);
    tree.file("top/mnt/on-tmpfs");
    return compareAndWalk({tree.path("top")}) + "----\n" +
           describe(walkWithTreeWalk({tree.path("top")}, kPropagation, true));
  });
  if (text.starts_with("cannot mount")) GTEST_SKIP() << text;
  ASSERT_FALSE(text.starts_with("differ")) << text;
  auto sizes = parseVisits(text.substr(0, text.find("----\n")));
  auto propagation = parseVisits(text.substr(text.find("----\n") + 5));
  // Sizes mode: the mount point is entered and left at once; the loop is a cycle.
  EXPECT_NE(find(sizes, tree.path("top/mnt"), FTS_D), nullptr) << text;
  EXPECT_NE(find(sizes, tree.path("top/mnt"), FTS_DP), nullptr) << text;
  EXPECT_EQ(find(sizes, tree.path("top/mnt/on-tmpfs"), FTS_F), nullptr) << text;
  EXPECT_NE(find(sizes, tree.path("top/sub/loop"), FTS_DC), nullptr) << text;
  EXPECT_EQ(find(sizes, tree.path("top/sub/loop"), FTS_DP), nullptr) << text;
  // Without XDev the walk enters the other volume; the cycle stays a cycle.
  EXPECT_NE(find(propagation, tree.path("top/mnt/on-tmpfs"), FTS_F), nullptr) << text;
  EXPECT_NE(find(propagation, tree.path("top/sub/loop"), FTS_DC), nullptr) << text;
}

TEST(TreeWalkAccess, DeepTreesBeyondTheDescriptorLimitMatchFts) {
  test::TempTree tree("qx-walk");
  const int depth = static_cast<int>(TreeWalk::kOpenLevelLimit) * 2 + 100;
  std::string chain = "top";
  tree.folder(chain);
  for (int level = 1; level <= depth; ++level) {
    tree.folder(chain += "/d");
    if (level % 97 == 0) tree.file(chain + "/file");
    // Siblings entered after the walk has come back up past closed levels.
    if (level == 150 || level == 400) {
      tree.folder(chain + "/e");
      tree.folder(chain + "/e/f");
      tree.file(chain + "/e/f/g");
      tree.file(chain + "/z");
    }
  }
  for (bool byName : {true, false})
    EXPECT_EQ(bothWalksDiffer({tree.path("top")}, kPropagation, byName), "");
  int before = openDescriptorCount();
  auto walk = TreeWalk::open({tree.path("top")}, kSizes);
  int most = 0;
  std::size_t visits = 0;
  while (const WalkEntry* entry = walk->read()) {
    ++visits;
    if (entry->level() % 50 == 0) most = std::max(most, openDescriptorCount() - before);
  }
  EXPECT_EQ(errno, 0);
  EXPECT_GT(visits, static_cast<std::size_t>(2 * depth));
  EXPECT_LE(most, static_cast<int>(TreeWalk::kOpenLevelLimit));
  EXPECT_GT(most, 200);
  walk.reset();
  EXPECT_EQ(openDescriptorCount(), before);
}

TEST(TreeWalkAccess, AShortDescriptorSupplyIsSharedOrReported) {
  test::TempTree tree("qx-walk");
  std::string chain = "top";
  tree.folder(chain);
  for (int level = 1; level <= 120; ++level) {
    tree.folder(chain += "/d");
    tree.file(chain + "/f");
  }
  // Runs `body` in a child allowed `spare` descriptors above those in use.
  auto withSpareDescriptors = [](int spare, const std::function<std::string()>& body) {
    return ChildProcess::runAs(0, 0, [&] {
      int lowestFree = dup(0);
      close(lowestFree);
      rlimit limit{rlim_t(lowestFree + spare), rlim_t(lowestFree + spare)};
      return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? body() : "setrlimit failed";
    });
  };
  // A dozen: the walk closes outer folders and reopens them, without EMFILE.
  std::string few = withSpareDescriptors(
      12, [&] { return describe(walkWithTreeWalk({tree.path("top")}, kPropagation, true)); });
  EXPECT_EQ(few, describe(walkWithFts({tree.path("top")}, kPropagation, true)));
  for (const Visit& visit : parseVisits(few)) EXPECT_NE(visit.errnum, EMFILE) << visit.path;
  // None at all: the folder is reported unreadable with EMFILE, as fts does.
  std::string none = withSpareDescriptors(0, [&] {
    std::string differences = bothWalksDiffer({tree.path("top")}, kSizes, true);
    return differences.empty() ? describe(walkWithTreeWalk({tree.path("top")}, kSizes, true))
                               : differences;
  });
  auto reported = parseVisits(none);
  ASSERT_EQ(reported.size(), 2u) << none;
  EXPECT_EQ(reported[0].info, FTS_D);
  EXPECT_EQ(reported[1].info, FTS_DNR);
  EXPECT_EQ(reported[1].errnum, EMFILE);
}

}  // namespace
}  // namespace qx::walktest
