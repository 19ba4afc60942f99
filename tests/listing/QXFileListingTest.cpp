// Folder listings along index paths, on real trees.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "listing/QXFileListing.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "tests/support/ErrorText.h"
#include "tests/support/AsNobody.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

using Paths = std::vector<std::string>;

struct Listing {
  std::vector<Paths> levels;  // present paths of the references
  bool nil;
  ErrorPtr error;
};

Listing list(const UrlPtr& url, std::vector<uint64_t> indexes) {
  ErrorPtr error = Error::errorWithDomain("unset", -1);
  ArrayPtr result = QXFileListing::getContentsOfDirectory(url, IndexPath::make(indexes), &error);
  Listing listing{{}, result == nullptr, error};
  if (!result) return listing;
  for (const ObjectPtr& level : *result) {
    Paths paths;
    for (const ObjectPtr& object : *cast<Array>(level)) {
      auto reference = cast<FileReferenceUrl>(object);
      paths.push_back(reference && reference->isFileReferenceURL() ? reference->path() : "?");
    }
    listing.levels.push_back(paths);
  }
  return listing;
}

class ListingTest : public ::testing::Test {
 protected:
  UrlPtr url(const std::string& relative) const {
    return Url::fileURLWithPath(tree.path(relative));
  }
  // top: .hidden, A, a/ (x, y), b, sub/ (deeper/ (leaf), z), in byte order.
  void SetUp() override {
    for (const char* file : {"top/b", "top/A", "top/.hidden"}) tree.file(file);
    tree.folder("top/a");
    for (const char* file : {"top/a/y", "top/a/x"}) tree.file(file);
    tree.folder("top/sub/deeper");
    for (const char* file : {"top/sub/deeper/leaf", "top/sub/z"}) tree.file(file);
  }
  Paths paths(std::vector<std::string> relative) const {
    for (auto& path : relative) path = tree.path(path);
    return relative;
  }

  test::TempTree tree{"qx-listing"};
};

TEST_F(ListingTest, EachIndexAddsTheLevelOfTheEntryAtThatPosition) {
  const Paths top = paths({"top/.hidden", "top/A", "top/a", "top/b", "top/sub"});
  const Paths a = paths({"top/a/x", "top/a/y"});
  struct Row {
    std::vector<uint64_t> indexes;
    std::vector<Paths> levels;
  };
  const Row rows[] = {
      {{}, {top}},
      {{2}, {top, a}},
      {{4, 0}, {top, paths({"top/sub/deeper", "top/sub/z"}), paths({"top/sub/deeper/leaf"})}},
      {{1, 0}, {top}},  // "A" is a file: the levels end there
      {{2, 0, 0}, {top, a}},
  };
  for (const Row& row : rows) {
    Listing listing = list(url("top"), row.indexes);
    EXPECT_EQ(listing.error, nullptr);
    EXPECT_EQ(listing.levels, row.levels) << testing::PrintToString(row.indexes);
  }
  // Not a folder, nothing there, or a link to a folder: no levels and no error.
  tree.link("top-link", tree.path("top"));
  for (const char* item : {"top/b", "missing", "top-link"}) {
    Listing listing = list(url(item), {1, 2});
    EXPECT_FALSE(listing.nil) << item;
    EXPECT_TRUE(listing.levels.empty()) << item;
    EXPECT_EQ(listing.error, nullptr) << item;
  }
  // A reference from a listing lists its folder, wherever it is now.
  ASSERT_EQ(rename(tree.path("top/a").c_str(), tree.path("top/renamed").c_str()), 0);
  auto reference = url("top/renamed")->fileReferenceURL();
  EXPECT_EQ(list(reference, {}).levels,
            (std::vector<Paths>{paths({"top/renamed/x", "top/renamed/y"})}));
  // Byte order, also among names that share their first eight bytes.
  tree.folder("names");
  Paths ordered;
  for (const char* name : {"entry-09x", "entry-1", "entry-10", "entry-100", "entry-10a",
                           "entry-1\xff", "z", "\xc3\xa9t\xc3\xa9"}) {
    tree.file(std::string("names/") + name);
    ordered.push_back(tree.path(std::string("names/") + name));
  }
  EXPECT_EQ(list(url("names"), {}).levels, std::vector<Paths>{ordered});
  Listing root = list(Url::fileURLWithPath("/"), {});
  ASSERT_EQ(root.levels.size(), 1u);
  for (const std::string& path : root.levels[0]) {
    EXPECT_EQ(path.rfind('/'), 0u) << "one slash below the root: " << path;
  }
}

TEST_F(ListingTest, FailuresPastTheEndAndInAnUnreadableFolder) {
  Listing past = list(url("top"), {2, 2});
  EXPECT_TRUE(past.nil);
  EXPECT_EQ(
      test::errorText(past.error),
      "EINVAL: Error retrieving folder's contents | Couldn't find item at position 2 in folder "
      "at path \"" +
          tree.path("top/a") + "\". Invalid argument");

  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  chmod(tree.path("top/sub").c_str(), 0700);
  Listing locked;
  {
    test::AsNobody nobody;
    locked = list(url("top"), {4, 0, 1});
  }
  ASSERT_EQ(locked.levels.size(), 4u) << "every level is there, the unreadable ones empty";
  EXPECT_EQ(locked.levels[0].size(), 5u);
  for (int level = 1; level < 4; ++level) EXPECT_TRUE(locked.levels[level].empty());
  EXPECT_EQ(test::errorText(locked.error), "EACCES: Couldn't open for listing folder at path \"" +
                                               tree.path("top/sub") + "\". | Permission denied");
}

}  // namespace
}  // namespace qx
