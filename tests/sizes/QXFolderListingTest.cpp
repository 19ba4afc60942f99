// Folder listings along index paths, on real trees.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "SizesTestSupport.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "sizes/QXFileSizes.h"

namespace qx::sizestest {
namespace {

struct Listing {
  std::vector<std::vector<std::string>> levels;  // present paths
  bool nil;
  ErrorPtr error;
};

Listing list(const UrlPtr& url, std::vector<uint64_t> indexes) {
  ErrorPtr error = Error::errorWithDomain("unset", -1);
  ArrayPtr result = QXFileSizes::getContentsOfDirectory(url, IndexPath::make(indexes), &error);
  Listing listing{{}, result == nullptr, error};
  if (!result) return listing;
  for (const ObjectPtr& level : *result) {
    std::vector<std::string> paths;
    for (const ObjectPtr& object : *cast<Array>(level)) {
      auto reference = cast<FileReferenceUrl>(object);
      paths.push_back(reference && reference->isFileReferenceURL() ? reference->path()
                                                                   : "not a reference");
    }
    listing.levels.push_back(paths);
  }
  return listing;
}

// top: .hidden, A, a, b (folder with x, y), sub (folder with deeper/ and z)
void fillTree(const TempTree& tree) {
  tree.folder("top");
  tree.file("top/b-file");
  tree.file("top/A");
  tree.file("top/a");
  tree.file("top/.hidden");
  tree.folder("top/b");
  tree.file("top/b/y");
  tree.file("top/b/x");
  tree.folder("top/sub");
  tree.folder("top/sub/deeper");
  tree.file("top/sub/deeper/leaf");
  tree.file("top/sub/z");
}

TEST(QXFolderListing, EmptyIndexPathGivesOneLevelInCaseSensitiveOrder) {
  TempTree tree;
  fillTree(tree);
  Listing listing = list(tree.url("top"), {});
  EXPECT_EQ(listing.error, nullptr);
  ASSERT_EQ(listing.levels.size(), 1u);
  EXPECT_EQ(listing.levels[0],
            (std::vector<std::string>{tree.path("top/.hidden"), tree.path("top/A"),
                                      tree.path("top/a"), tree.path("top/b"),
                                      tree.path("top/b-file"), tree.path("top/sub")}));
}

TEST(QXFolderListing, EachIndexAddsTheLevelOfTheEntryAtThatPosition) {
  TempTree tree;
  fillTree(tree);
  Listing listing = list(tree.url("top"), {3});
  EXPECT_EQ(listing.error, nullptr);
  ASSERT_EQ(listing.levels.size(), 2u);
  EXPECT_EQ(listing.levels[1],
            (std::vector<std::string>{tree.path("top/b/x"), tree.path("top/b/y")}));
  Listing deeper = list(tree.url("top"), {5, 0});
  ASSERT_EQ(deeper.levels.size(), 3u);
  EXPECT_EQ(deeper.levels[2], (std::vector<std::string>{tree.path("top/sub/deeper/leaf")}));
}

TEST(QXFolderListing, IndexTwoListsTheThirdEntryInSortedOrder) {
  TempTree tree;
  tree.folder("top");
  tree.file("top/d");
  tree.folder("top/c");
  tree.file("top/c/inside");
  tree.file("top/b");
  tree.file("top/a");
  Listing listing = list(tree.url("top"), {2});
  EXPECT_EQ(listing.error, nullptr);
  ASSERT_EQ(listing.levels.size(), 2u);
  EXPECT_EQ(listing.levels[0].size(), 4u);
  EXPECT_EQ(listing.levels[1], (std::vector<std::string>{tree.path("top/c/inside")}));
}

TEST(QXFolderListing, NonFolderGivesNothingAndNoError) {
  TempTree tree;
  fillTree(tree);
  for (const char* item : {"top/a", "missing"}) {
    Listing listing = list(tree.url(item), {1, 2});
    EXPECT_FALSE(listing.nil);
    EXPECT_TRUE(listing.levels.empty());
    EXPECT_EQ(listing.error, nullptr);
  }
  tree.link("top-link", tree.path("top"));
  EXPECT_TRUE(list(tree.url("top-link"), {}).levels.empty()) << "a link is not a folder";
}

TEST(QXFolderListing, IndexSelectingAFileEndsTheLevels) {
  TempTree tree;
  fillTree(tree);
  Listing listing = list(tree.url("top"), {1, 0});
  EXPECT_EQ(listing.error, nullptr);
  EXPECT_EQ(listing.levels.size(), 1u);
  Listing second = list(tree.url("top"), {3, 0, 0});
  EXPECT_EQ(second.error, nullptr);
  EXPECT_EQ(second.levels.size(), 2u);
}

TEST(QXFolderListing, UnreadableFolderGivesEmptyLevelsAndTheUnwrappedError) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  TempTree tree;
  fillTree(tree);
  chmod(tree.path("top/sub").c_str(), 0700);
  Listing listing;
  {
    AsNobody nobody;
    listing = list(tree.url("top"), {5, 0, 1});
  }
  ASSERT_EQ(listing.levels.size(), 4u);
  EXPECT_EQ(listing.levels[0].size(), 6u);
  for (int level = 1; level < 4; ++level) EXPECT_TRUE(listing.levels[level].empty());
  ASSERT_NE(listing.error, nullptr);
  EXPECT_EQ(listing.error->code(), EACCES);
  EXPECT_EQ(listing.error->localizedDescription(),
            "Couldn't open for listing folder at path \"" + tree.path("top/sub") + "\".");
}

TEST(QXFolderListing, IndexPastTheEndIsAWrappedInvalidArgument) {
  TempTree tree;
  fillTree(tree);
  Listing listing = list(tree.url("top"), {3, 2});
  EXPECT_TRUE(listing.nil);
  ASSERT_NE(listing.error, nullptr);
  EXPECT_EQ(listing.error->code(), EINVAL);
  EXPECT_EQ(listing.error->localizedDescription(), "Error retrieving folder's contents");
  EXPECT_EQ(listing.error->localizedRecoverySuggestion().value_or(""),
            "Couldn't find item at position 2 in folder at path \"" + tree.path("top/b") + "\". " +
                std::strerror(EINVAL));
}

TEST(QXFolderListing, ReferencesAnswerThePresentPathAfterARename) {
  TempTree tree;
  fillTree(tree);
  ErrorPtr error;
  ArrayPtr levels = QXFileSizes::getContentsOfDirectory(tree.url("top"), IndexPath::make(), &error);
  ASSERT_NE(levels, nullptr);
  auto level = cast<Array>(levels->objectAtIndex(0));
  auto folder = cast<Url>(level->objectAtIndex(3));
  auto file = cast<Url>(level->objectAtIndex(4));
  ASSERT_EQ(folder->path(), tree.path("top/b"));
  ASSERT_EQ(rename(tree.path("top/b").c_str(), tree.path("top/renamed").c_str()), 0);
  ASSERT_EQ(rename(tree.path("top/b-file").c_str(), tree.path("top/also renamed").c_str()), 0);
  EXPECT_EQ(folder->path(), tree.path("top/renamed"));
  EXPECT_EQ(file->path(), tree.path("top/also renamed"));
  EXPECT_EQ(folder->isDirectory(), std::optional<bool>(true));
  // The reference still lists the folder under its new name.
  Listing listing = list(folder, {});
  ASSERT_EQ(listing.levels.size(), 1u);
  EXPECT_EQ(listing.levels[0],
            (std::vector<std::string>{tree.path("top/renamed/x"), tree.path("top/renamed/y")}));
  // Moved out of its folder or removed: no present path.
  ASSERT_EQ(rename(tree.path("top/renamed").c_str(), tree.path("elsewhere").c_str()), 0);
  EXPECT_EQ(folder->path(), "");
  EXPECT_FALSE(folder->isDirectory().has_value());
  ASSERT_EQ(unlink(tree.path("top/also renamed").c_str()), 0);
  EXPECT_EQ(file->path(), "");
}

TEST(QXFolderListing, RootFolderEntriesHaveSingleSlashes) {
  Listing listing = list(Url::fileURLWithPath("/"), {});
  EXPECT_EQ(listing.error, nullptr);
  ASSERT_EQ(listing.levels.size(), 1u);
  ASSERT_FALSE(listing.levels[0].empty());
  for (const std::string& path : listing.levels[0]) {
    EXPECT_EQ(path.rfind('/'), 0u) << path;
  }
}

}  // namespace
}  // namespace qx::sizestest
