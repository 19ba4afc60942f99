// The walker against glibc's fts on the same trees: visiting order, entry
// kinds, levels, names, paths and error numbers must agree.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <set>

#include "WalkTestSupport.h"

namespace qx::walktest {
namespace {

// Files, folders, empty folders, links to files, folders and nowhere, a fifo,
// and names that sort differently by byte than by case or by number.
void fillMixedTree(const test::TempTree& tree) {
  tree.folder("top");
  for (std::string name : {"one", "two", "Z", "_x", "\xc3\xa4", "B10", "B9", ".hidden"})
    tree.file("top/" + name, name);
  tree.folder("top/empty");
  tree.folder("top/sub");
  tree.folder("top/sub/inner");
  tree.file("top/sub/inner/leaf");
  tree.folder("top/sub/inner/bottom");
  tree.link("top/to-file", "one");
  tree.link("top/to-folder", "sub");
  tree.link("top/to-nowhere", "missing");
  tree.fifo("top/pipe");
  for (int i = 0; i < 40; ++i) tree.file("top/sub/f" + std::to_string(i));
}

TEST(TreeWalkOrder, MatchesFtsOnEveryKindOfItemAndEveryFormOfRoot) {
  test::TempTree tree("qx-walk");
  fillMixedTree(tree);
  tree.link("root-link", "top");
  for (std::string name : {"b", "A", "a"}) {
    tree.folder(name);
    tree.file(name + "/z");
  }
  char previous[PATH_MAX];
  ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(chdir(tree.path("top").c_str()), 0);
  const std::vector<std::vector<std::string>> rootLists = {
      {tree.path("top")},
      {tree.path("b"), tree.path("a"), tree.path("A")},  // kept in order, or sorted
      {tree.path("top/"), tree.path("missing"), tree.path("root-link"), tree.path("top/one"),
       tree.path("top//sub"), tree.path("top/pipe")},
      {"."},
      {"sub", "./empty"},
      {"..//top/sub/"},
  };
  for (const auto& roots : rootLists)
    for (int options : {kPropagation, kSizes})
      for (bool byName : {false, true})
        EXPECT_EQ(bothWalksDiffer(roots, options, byName), "")
            << roots[0] << ", options " << options << (byName ? ", sorted" : "");
  ASSERT_EQ(chdir(previous), 0);
  // The tree really holds every kind a physical walk reports.
  std::set<int> kinds;
  for (const Visit& visit : walkWithTreeWalk({tree.path("top")}, kSizes, true))
    kinds.insert(visit.info);
  EXPECT_EQ(kinds, (std::set<int>{FTS_D, FTS_DP, FTS_F, FTS_SL, FTS_DEFAULT}));
  EXPECT_NE(
      find(walkWithTreeWalk({tree.path("missing")}, kSizes, true), tree.path("missing"), FTS_NS),
      nullptr);
}

TEST(TreeWalkOrder, SkipGivesThePostorderVisitAtOnce) {
  test::TempTree tree("qx-walk");
  fillMixedTree(tree);
  tree.folder("top/sub/skip");
  tree.file("top/sub/skip/hidden");
  tree.folder("top/skip");
  tree.folder("top/skip/deeper");
  auto skip = [](const Visit& v) { return v.info == FTS_D && v.name == "skip"; };
  auto actual = walkWithTreeWalk({tree.path("top")}, kSizes, true, skip);
  EXPECT_EQ(describe(walkWithFts({tree.path("top")}, kSizes, true, skip)), describe(actual));
  int skipped = 0;
  for (std::size_t i = 0; i + 1 < actual.size(); ++i) {
    if (!skip(actual[i])) continue;
    ++skipped;
    EXPECT_EQ(actual[i + 1].info, FTS_DP);
    EXPECT_EQ(actual[i + 1].path, actual[i].path);
  }
  EXPECT_EQ(skipped, 2);
}

TEST(TreeWalkOrder, ErrnoAndRefusalsFollowFtsConventions) {
  test::TempTree tree("qx-walk");
  tree.folder("a");
  auto walk = TreeWalk::open({tree.path("a")}, kSizes);
  ASSERT_TRUE(walk);
  const WalkEntry* entry = walk->read();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(walk->set(nullptr, TreeWalk::Skip), -1);
  WalkEntry copy = *entry;
  EXPECT_EQ(walk->set(&copy, TreeWalk::Skip), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(walk->set(entry, TreeWalk::Follow), -1);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_EQ(walk->set(entry, static_cast<TreeWalk::Instruction>(42)), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(walk->set(entry, TreeWalk::NoInstr), 0);
  ASSERT_NE(walk->read(), nullptr);  // the DP visit
  errno = EBADF;
  EXPECT_EQ(walk->read(), nullptr);
  EXPECT_EQ(errno, 0) << "the normal end leaves errno at 0";
  errno = EBADF;
  EXPECT_EQ(walk->read(), nullptr);
  EXPECT_EQ(errno, EBADF) << "reads after the end leave errno alone";
  EXPECT_EQ(walk->close(), 0);
  auto none = TreeWalk::open({}, kSizes);
  ASSERT_TRUE(none);
  errno = EBADF;
  EXPECT_EQ(none->read(), nullptr);
  EXPECT_EQ(errno, 0);

  errno = 0;
  EXPECT_FALSE(TreeWalk::open({tree.root()}, FTS_LOGICAL | FTS_NOCHDIR));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(TreeWalk::open({tree.root()}, FTS_PHYSICAL | FTS_SEEDOT));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(TreeWalk::open({tree.root(), ""}, kSizes));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(walkWithFts({tree.root(), ""}, kSizes, false)[0].errnum, ENOENT) << "as glibc";
}

TEST(TreeWalkOrder, CloseReleasesEveryDescriptorMidWalk) {
  test::TempTree tree("qx-walk");
  std::string nested = "n";
  tree.folder(nested);
  for (int i = 0; i < 20; ++i) tree.folder(nested += "/n");
  tree.file(nested + "/leaf");
  int before = openDescriptorCount();
  auto walk = TreeWalk::open({tree.path("n")}, kSizes);
  ASSERT_TRUE(walk);
  const WalkEntry* entry;
  while ((entry = walk->read()) != nullptr && entry->info() != WalkInfo::F) {
  }
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(openDescriptorCount(), before + 21) << "one descriptor per folder on the path";
  EXPECT_EQ(walk->close(), 0);
  EXPECT_EQ(openDescriptorCount(), before);
  EXPECT_EQ(walk->read(), nullptr);
  walk = TreeWalk::open({tree.path("n")}, kSizes);
  for (int i = 0; i < 10; ++i) walk->read();
  walk.reset();
  EXPECT_EQ(openDescriptorCount(), before) << "destroying a walk closes it";
}

}  // namespace
}  // namespace qx::walktest
