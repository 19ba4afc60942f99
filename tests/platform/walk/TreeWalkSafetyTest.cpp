// A folder swapped for a symbolic link, or for another folder, while a walk
// runs: the walker must never enter it. glibc's fts, which opens folders by
// path, is shown to follow the same swap, so the scenario is a real one.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <set>
#include <thread>

#include "WalkTestSupport.h"

namespace qx::walktest {
namespace {

struct SwapScene {
  test::TempTree tree{"qx-walk"};
  test::TempTree outside{"qx-walk"};
  std::string a = tree.path("top/a");
  std::string moved = tree.path("top/a.moved");
  std::string elsewhere = outside.path("elsewhere");

  SwapScene() {
    tree.folder("top");
    tree.folder("top/a");
    tree.file("top/a/mine");
    tree.folder("top/a/inner");
    tree.file("top/z");
    outside.folder("elsewhere");
    outside.file("elsewhere/secret");
  }
  void replaceWithLink() const {
    ASSERT_EQ(rename(a.c_str(), moved.c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.c_str(), a.c_str()), 0);
  }
  void replaceWithForeignFolder() const {
    ASSERT_EQ(rename(a.c_str(), moved.c_str()), 0);
    ASSERT_EQ(rename(elsewhere.c_str(), a.c_str()), 0);
  }
};

bool sawName(const std::vector<Visit>& visits, const std::string& name) {
  for (const Visit& visit : visits)
    if (visit.name == name) return true;
  return false;
}

TEST(TreeWalkSafety, AFolderSwappedAfterItWasExaminedIsNotEntered) {
  struct Row {
    void (SwapScene::*swap)() const;
    int errnum;
  };
  for (const Row& row : {Row{&SwapScene::replaceWithLink, ENOTDIR},
                         Row{&SwapScene::replaceWithForeignFolder, ENOENT}}) {
    SwapScene scene, again;
    // The swap comes right after the D visit of top/a: after a was examined,
    // before it is entered.
    auto swapAt = [](const SwapScene& s, void (SwapScene::*swap)() const) {
      return [&s, swap](const Visit& v) {
        if (v.info == FTS_D && v.path == s.a) (s.*swap)();
        return false;
      };
    };
    auto visits =
        walkWithTreeWalk({scene.tree.path("top")}, kPropagation, true, swapAt(scene, row.swap));
    EXPECT_FALSE(sawName(visits, "secret")) << describe(visits);
    ASSERT_GE(visits.size(), 3u);
    EXPECT_EQ(visits[1].info, FTS_D);
    EXPECT_EQ(visits[2].info, FTS_DNR);
    EXPECT_EQ(visits[2].path, scene.a);
    EXPECT_EQ(visits[2].errnum, row.errnum);
    EXPECT_TRUE(sawName(visits, "z")) << "the walk goes on after the unreadable folder";
    EXPECT_TRUE(
        sawName(walkWithFts({again.tree.path("top")}, kPropagation, true, swapAt(again, row.swap)),
                "secret"))
        << "fts follows the same swap";
  }
}

TEST(TreeWalkSafety, AFolderMovedAwayWhileInsideKeepsItsOwnContents) {
  SwapScene scene;
  auto visits = walkWithTreeWalk({scene.tree.path("top")}, kPropagation, true, [&](const Visit& v) {
    if (v.info == FTS_D && v.name == "inner") scene.replaceWithLink();
    return false;
  });
  EXPECT_FALSE(sawName(visits, "secret")) << describe(visits);
  EXPECT_TRUE(sawName(visits, "mine")) << describe(visits);
}

TEST(TreeWalkSafety, RacingSwapsNeverLeadOutside) {
  SwapScene scene;
  for (int i = 0; i < 50; ++i) scene.tree.file("top/a/f" + std::to_string(i));
  std::set<ino_t> foreign;
  for (const Visit& visit : walkWithFts({scene.elsewhere}, kPropagation, false))
    foreign.insert(visit.ino);
  std::atomic<bool> running{true};
  std::atomic<int> swaps{0};
  std::thread swapper([&] {
    while (running) {
      if (rename(scene.a.c_str(), scene.moved.c_str()) != 0) continue;
      symlink(scene.elsewhere.c_str(), scene.a.c_str());
      std::this_thread::sleep_for(std::chrono::microseconds(20));
      unlink(scene.a.c_str());
      rename(scene.moved.c_str(), scene.a.c_str());
      ++swaps;
      std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
  });
  int ftsLeaks = 0;
  std::string top = scene.tree.path("top");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  while (std::chrono::steady_clock::now() < deadline) {
    auto walk = TreeWalk::open({top}, kPropagation);
    ASSERT_TRUE(walk);
    while (const WalkEntry* entry = walk->read()) {
      ASSERT_EQ(std::string(entry->path()).rfind(top, 0), 0u) << entry->path();
      ASSERT_NE(entry->nameView(), "secret") << entry->path();
      ASSERT_EQ(foreign.count(entry->statp()->st_ino), 0u) << entry->path();
    }
    ASSERT_EQ(errno, 0);
    // The same race against glibc, counted only, to show that it is real.
    ftsLeaks += sawName(walkWithFts({top}, kPropagation, false), "secret");
  }
  running = false;
  swapper.join();
  RecordProperty("fts_leaks", ftsLeaks);
  EXPECT_GT(swaps.load(), 0);
}

}  // namespace
}  // namespace qx::walktest
