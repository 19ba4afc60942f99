// The walker against glibc's fts on the same trees: visiting order, entry
// kinds, levels, names, paths and error numbers must agree.
#include <fts.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <set>

#include "WalkTestSupport.h"

namespace qx::walktest {
namespace {

constexpr int kPropagation = FTS_PHYSICAL | FTS_NOCHDIR;
constexpr int kSizes = FTS_NOCHDIR | FTS_PHYSICAL | FTS_XDEV;

// Files, folders, empty folders, links to files, folders and nowhere, a fifo.
void fillMixedTree(const TempTree& tree) {
  tree.folder("top");
  tree.file("top/one", "1");
  tree.file("top/two", "22");
  tree.folder("top/empty");
  tree.folder("top/sub");
  tree.file("top/sub/deep", "333");
  tree.folder("top/sub/inner");
  tree.file("top/sub/inner/leaf");
  tree.folder("top/sub/inner/bottom");
  tree.link("top/to-file", "one");
  tree.link("top/to-folder", "sub");
  tree.link("top/to-nowhere", "missing");
  tree.fifo("top/pipe");
  for (int i = 0; i < 40; ++i) tree.file("top/sub/f" + std::to_string(i));
}

TEST(TreeWalkOrder, MixedTreeMatchesFtsInBothModes) {
  TempTree tree;
  fillMixedTree(tree);
  for (int options : {kPropagation, kSizes}) {
    for (bool byName : {false, true}) {
      SCOPED_TRACE("options " + std::to_string(options) + (byName ? " sorted" : " unsorted"));
      auto expected = walkWithFts({tree.path("top")}, options, byName);
      auto actual = walkWithTreeWalk({tree.path("top")}, options, byName);
      EXPECT_EQ(describe(expected), describe(actual));
    }
  }
  // The tree really holds every kind a physical walk reports.
  std::set<int> kinds;
  for (const Visit& visit : walkWithTreeWalk({tree.path("top")}, kSizes, true)) {
    kinds.insert(visit.info);
  }
  EXPECT_EQ(kinds, (std::set<int>{FTS_D, FTS_DP, FTS_F, FTS_SL, FTS_DEFAULT}));
}

TEST(TreeWalkOrder, LinksAreNeverFollowed) {
  TempTree tree;
  fillMixedTree(tree);
  for (const Visit& visit : walkWithTreeWalk({tree.path("top")}, kSizes, true)) {
    EXPECT_EQ(visit.path.find("to-folder/"), std::string::npos) << describe(visit);
    if (visit.name.starts_with("to-")) {
      EXPECT_EQ(visit.info, FTS_SL) << describe(visit);
    }
  }
}

TEST(TreeWalkOrder, SiblingsAndTopLevelItemsFollowTheComparator) {
  TempTree tree;
  for (const char* name : {"b", "A", "a", "_x", "\xc3\xa4", "B10", "B9"}) {
    tree.folder(name);
    tree.file(std::string(name) + "/z");
    tree.file(std::string(name) + "/Z");
    tree.file(std::string(name) + "/.hidden");
  }
  std::vector<std::string> roots = {tree.path("b"),        tree.path("a"),  tree.path("A"),
                                    tree.path("\xc3\xa4"), tree.path("B9"), tree.path("B10")};
  auto actual = walkWithTreeWalk(roots, kSizes, true);
  EXPECT_EQ(describe(walkWithFts(roots, kSizes, true)), describe(actual));
  std::vector<std::string> topLevel;
  std::vector<std::string> inA;
  for (const Visit& visit : actual) {
    if (visit.level == 0 && visit.info == FTS_D) topLevel.push_back(visit.name);
    if (visit.level == 1 && visit.path.starts_with(tree.path("a/"))) inA.push_back(visit.name);
  }
  EXPECT_EQ(topLevel, (std::vector<std::string>{"A", "B10", "B9", "a", "b", "\xc3\xa4"}));
  EXPECT_EQ(inA, (std::vector<std::string>{".hidden", "Z", "z"}));
  // Without a comparator the top-level items keep the order given.
  auto unsorted = walkWithTreeWalk(roots, kPropagation, false);
  EXPECT_EQ(unsorted.front().name, "b");
  EXPECT_EQ(describe(walkWithFts(roots, kPropagation, false)), describe(unsorted));
}

TEST(TreeWalkOrder, TopLevelVariantsMatchFts) {
  TempTree tree;
  fillMixedTree(tree);
  tree.link("root-link", "top");
  std::vector<std::string> roots = {tree.path("top/"),      tree.path("missing"),
                                    tree.path("root-link"), tree.path("top/one"),
                                    tree.path("top//sub"),  tree.path("top/pipe")};
  for (bool byName : {false, true}) {
    EXPECT_EQ(describe(walkWithFts(roots, kSizes, byName)),
              describe(walkWithTreeWalk(roots, kSizes, byName)));
  }
  auto visits = walkWithTreeWalk({tree.path("missing")}, kSizes, true);
  ASSERT_EQ(visits.size(), 1u);
  EXPECT_EQ(visits[0].info, FTS_NS);
  EXPECT_EQ(visits[0].errnum, ENOENT);
}

TEST(TreeWalkOrder, RelativeAndDotPathsMatchFts) {
  TempTree tree;
  fillMixedTree(tree);
  char previous[PATH_MAX];
  ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(chdir(tree.path("top").c_str()), 0);
  std::vector<std::vector<std::string>> cases = {{"."}, {"sub", "./empty"}, {"..//top/sub/"}};
  for (const auto& roots : cases) {
    EXPECT_EQ(describe(walkWithFts(roots, kSizes, true)),
              describe(walkWithTreeWalk(roots, kSizes, true)));
  }
  ASSERT_EQ(chdir(previous), 0);
}

TEST(TreeWalkOrder, SkipGivesThePostorderVisitAtOnce) {
  TempTree tree;
  fillMixedTree(tree);
  tree.folder("top/sub/skip");
  tree.file("top/sub/skip/hidden");
  tree.folder("top/skip");
  tree.folder("top/skip/deeper");
  auto actual = walkWithTreeWalk({tree.path("top")}, kSizes, true, "skip");
  EXPECT_EQ(describe(walkWithFts({tree.path("top")}, kSizes, true, "skip")), describe(actual));
  int skipped = 0;
  for (std::size_t i = 0; i < actual.size(); ++i) {
    EXPECT_EQ(actual[i].path.find("hidden"), std::string::npos);
    EXPECT_EQ(actual[i].path.find("deeper"), std::string::npos);
    if (actual[i].name == "skip" && actual[i].info == FTS_D) {
      ++skipped;
      ASSERT_LT(i + 1, actual.size());
      EXPECT_EQ(actual[i + 1].info, FTS_DP);
      EXPECT_EQ(actual[i + 1].path, actual[i].path);
    }
  }
  EXPECT_EQ(skipped, 2);
}

TEST(TreeWalkOrder, LevelsCountFromTheTopLevelItem) {
  TempTree tree;
  tree.folder("a");
  tree.folder("a/b");
  tree.folder("a/b/c");
  tree.file("a/b/c/d");
  std::vector<std::pair<int, int>> levels;
  for (const Visit& visit : walkWithTreeWalk({tree.path("a")}, kSizes, true)) {
    levels.push_back({visit.info, visit.level});
  }
  EXPECT_EQ(
      levels,
      (std::vector<std::pair<int, int>>{
          {FTS_D, 0}, {FTS_D, 1}, {FTS_D, 2}, {FTS_F, 3}, {FTS_DP, 2}, {FTS_DP, 1}, {FTS_DP, 0}}));
}

TEST(TreeWalkOrder, EndOfWalkLeavesErrnoAtZero) {
  TempTree tree;
  tree.folder("empty");
  auto walk = TreeWalk::open({tree.path("empty")}, kSizes);
  ASSERT_TRUE(walk);
  const WalkEntry* first = walk->read();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->info(), WalkInfo::D);
  const WalkEntry* second = walk->read();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->info(), WalkInfo::DP);
  EXPECT_STREQ(second->path(), tree.path("empty").c_str());
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
}

TEST(TreeWalkOrder, RefusesWhatItCannotDo) {
  TempTree tree;
  errno = 0;
  EXPECT_FALSE(TreeWalk::open({tree.root()}, FTS_LOGICAL | FTS_NOCHDIR));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(TreeWalk::open({tree.root()}, FTS_PHYSICAL | FTS_SEEDOT));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(TreeWalk::open({tree.root(), ""}, kSizes));
  EXPECT_EQ(errno, ENOENT);
  // glibc agrees about the empty path.
  char empty[] = "";
  char* argv[] = {empty, nullptr};
  EXPECT_EQ(fts_open(argv, kSizes, nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);

  tree.folder("a");
  auto walk = TreeWalk::open({tree.path("a")}, kSizes);
  ASSERT_TRUE(walk);
  EXPECT_EQ(walk->set(nullptr, TreeWalk::Skip), -1);
  const WalkEntry* entry = walk->read();
  ASSERT_NE(entry, nullptr);
  WalkEntry copy = *entry;
  EXPECT_EQ(walk->set(&copy, TreeWalk::Skip), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(walk->set(entry, TreeWalk::Follow), -1);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_EQ(walk->set(entry, static_cast<TreeWalk::Instruction>(42)), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(walk->set(entry, TreeWalk::NoInstr), 0);
}

TEST(TreeWalkOrder, CloseReleasesEveryDescriptorMidWalk) {
  TempTree tree;
  std::string nested = "n";
  tree.folder(nested);
  for (int i = 0; i < 20; ++i) {
    nested += "/n";
    tree.folder(nested);
  }
  tree.file(nested + "/leaf");
  int before = openDescriptorCount();
  {
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
  }
  {
    auto walk = TreeWalk::open({tree.path("n")}, kSizes);
    for (int i = 0; i < 10; ++i) walk->read();
  }
  EXPECT_EQ(openDescriptorCount(), before) << "destroying a walk closes it";
}

}  // namespace
}  // namespace qx::walktest
