// File reference URLs: made from items, resolved to present paths, and
// carried through keyed archives: their kept path as a folder URL shared by
// the references into that folder plus the item's name, or (as older writers
// made them) an identity string with the whole kept path under "qx.path".
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

ObjectPtr roundTrip(const ObjectPtr& object) {
  return KeyedUnarchiver::unarchivedObjectOfClasses({&Url::classInfo()}, testing::archived(object));
}

// An NSURL archive in the older form of file references: the identity in the string, the kept path
// (when given) beside it. (Malformed references: rows of
// tests/platform/archive/data/archives.jsonl.)
UrlPtr forged(const std::string& relative, const std::string& kept) {
  using testing::uid;
  testing::json url = {{"NS.base", uid(0)}, {"NS.relative", uid(2)}, {"$class", uid(3)}};
  if (!kept.empty()) url["qx.path"] = uid(4);
  testing::json objects = {"$null", url, relative,
                           testing::classDict("NSURL", {"NSURL", "NSObject"})};
  if (!kept.empty()) objects.push_back(kept);
  return cast<Url>(KeyedUnarchiver::unarchivedObjectOfClasses(
      {&Url::classInfo()}, testing::writeJson(testing::keyedArchive(objects))));
}

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST(FileReferenceUrl, IsMadeFromAnItemAndCrossesAnArchiveWithItsKeptPath) {
  registerFoundationClasses();
  test::TempTree tree("qx-reference");
  tree.file("with space%");
  struct stat st;
  ASSERT_EQ(lstat(tree.path("with space%").c_str(), &st), 0);
  auto reference = Url::fileURLWithPath(tree.path("with space%"))->fileReferenceURL();
  ASSERT_NE(reference, nullptr);
  EXPECT_TRUE(reference->isFileReferenceURL() && reference->isFileURL());
  EXPECT_EQ(reference->absoluteString(),
            "file:///.file/id=" + std::to_string(st.st_dev) + "." + std::to_string(st.st_ino));
  EXPECT_EQ(reference->lastPathComponent(), "with space%");
  EXPECT_EQ(reference->fileReferenceURL(), reference) << "a reference is its own reference";
  errno = 0;
  EXPECT_EQ(Url::fileURLWithPath(tree.path("missing"))->fileReferenceURL(), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(Url::URLWithString("https://example.invalid/x")->fileReferenceURL(), nullptr);

  // Two references into one folder write the folder's URL once, and each
  // name as a relative URL.
  tree.file("a:b");
  auto other = Url::fileURLWithPath(tree.path("a:b"))->fileReferenceURL();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(Array::make({reference, other}));
  std::string bytes(reinterpret_cast<const char*>(data->bytes().data()), data->bytes().size());
  EXPECT_EQ(occurrences(bytes, "file://" + Url::percentEncodePath(tree.root()) + "/"), 1u);
  EXPECT_EQ(occurrences(bytes, "with%20space%25"), 1u);
  EXPECT_EQ(occurrences(bytes, "a%3Ab"), 1u) << "no name reads as a scheme";
  ErrorPtr error;
  auto both = cast<Array>(KeyedUnarchiver::unarchivedObjectOfClasses(
      {&Array::classInfo(), &Url::classInfo()}, *data, &error));
  ASSERT_NE(both, nullptr) << (error ? error->description() : "");
  ASSERT_NE(both->objectAs<FileReferenceUrl>(1), nullptr);
  EXPECT_EQ(both->objectAs<FileReferenceUrl>(1)->keptPath(), tree.path("a:b"));
  auto root = cast<FileReferenceUrl>(roundTrip(Url::fileURLWithPath("/")->fileReferenceURL()));
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->keptPath(), "/");
  auto decoded = cast<FileReferenceUrl>(roundTrip(reference));
  ASSERT_NE(decoded, nullptr);
  EXPECT_TRUE(decoded->isEqual(*reference));
  ASSERT_EQ(rename(tree.path("with space%").c_str(), tree.path("moved").c_str()), 0);
  EXPECT_EQ(decoded->path(), tree.path("moved")) << "the decoded reference finds the item";
  EXPECT_EQ(decoded->isDirectory(), std::optional<bool>(false));
  auto plain = cast<Url>(roundTrip(Url::fileURLWithPath(tree.path("moved"))));
  ASSERT_NE(plain, nullptr);
  EXPECT_FALSE(plain->isFileReferenceURL());

  // The older form: the identity in the string, the kept path beside it.
  auto older =
      forged(reference->absoluteString(), "file://" + Url::percentEncodePath(tree.path("moved")));
  ASSERT_NE(older, nullptr);
  EXPECT_TRUE(older->isEqual(*reference));
  EXPECT_EQ(older->path(), tree.path("moved"));
  // Moved out of its folder: no present path.
  tree.folder("elsewhere");
  ASSERT_EQ(rename(tree.path("moved").c_str(), tree.path("elsewhere/moved").c_str()), 0);
  EXPECT_EQ(decoded->path(), "");
  EXPECT_FALSE(decoded->isDirectory().has_value());

  // Without a kept path, or with one that names another item: no present path.
  for (const std::string& kept : {std::string(), "file://" + tree.root()}) {
    auto bare = forged("file:///.file/id=1.2", kept);
    ASSERT_NE(bare, nullptr);
    EXPECT_TRUE(bare->isFileReferenceURL());
    EXPECT_EQ(bare->path(), "");
  }
}

}  // namespace
}  // namespace qx
