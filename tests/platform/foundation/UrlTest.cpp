// File URLs: paths as bytes, parsing and appending, and resource values read
// from the item itself on a real temporary tree.
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/foundation/Foundation.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

TEST(FoundationUrl, PathsAreKeptAsBytesNormalisedAndPercentEncoded) {
  auto url = Url::fileURLWithPath("/a//b c/%/\xff/");
  EXPECT_EQ(url->path(), "/a/b c/%/\xff");
  EXPECT_EQ(url->fileSystemRepresentation(), "/a/b c/%/\xff");
  EXPECT_EQ(url->absoluteString(), "file:///a/b%20c/%25/%FF");
  EXPECT_EQ(url->lastPathComponent(), "\xff");
  EXPECT_TRUE(url->isFileURL());
  EXPECT_EQ(Url::fileURLWithPath("/")->lastPathComponent(), "/");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(Url::fileURLWithPath("relative/x")->path(), std::string(cwd) + "/relative/x");
  EXPECT_TRUE(Url::fileURLWithPath("/a/b")->isEqual(*Url::fileURLWithPath("/a//b/")));
  const std::pair<UrlPtr, std::string> appended[] = {
      {Url::fileURLWithPath("/")->URLByAppendingPathComponent("etc"), "/etc"},
      {Url::fileURLWithPath("/a")->URLByAppendingPathComponent("b c"), "/a/b c"},
      {Url::fileURLWithPath("/a")->URLByAppendingPathComponent("b/"), "/a/b"},
      {Url::URLWithString("file:///tmp/a%20b"), "/tmp/a b"},
      {Url::URLWithString("file://localhost/tmp/x"), "/tmp/x"},
  };
  for (const auto& [result, path] : appended) EXPECT_EQ(result->path(), path);
  EXPECT_EQ(Url::URLWithString("no scheme here"), nullptr);
  EXPECT_EQ(Url::URLWithString("/just/a/path"), nullptr);
  auto broken = Url::URLWithString("file:///tmp/%zz");
  ASSERT_TRUE(broken);
  EXPECT_FALSE(broken->isFileURL());
  EXPECT_EQ(broken->path(), "");
  EXPECT_EQ(Url::percentDecode("%4"), std::nullopt);
  EXPECT_EQ(Url::percentDecode("a%41%42"), "aAB");
  EXPECT_EQ(Url::percentEncodePath("/x y/\x01"), "/x%20y/%01");
}

TEST(FoundationUrl, ResourceValuesComeFromTheItemWithoutFollowingLinks) {
  test::TempTree tree("qx-url");
  tree.file("folder/file.txt", "x");
  tree.link("link", tree.path("folder"));
  auto url = [&](const std::string& relative) { return Url::fileURLWithPath(tree.path(relative)); };
  EXPECT_EQ(url("folder")->isDirectory(), true);
  EXPECT_EQ(url("folder/file.txt")->isDirectory(), false);
  EXPECT_EQ(url("link")->isDirectory(), false);
  EXPECT_EQ(url("missing")->isDirectory(), std::nullopt);
  EXPECT_EQ(url("link")->name()->str(), "link");
  EXPECT_EQ(url("link")->parentDirectory()->path(), tree.root());
  EXPECT_EQ(url("missing")->name(), nullptr);
  EXPECT_EQ(url("missing")->parentDirectory(), nullptr);
  // An encoded NUL byte names no file: cut short there, the path would name
  // the folder instead.
  auto cut = Url::URLWithString("file://" + tree.path("folder") + "%00/file.txt");
  ASSERT_TRUE(cut);
  EXPECT_FALSE(cut->isFileURL());
  EXPECT_EQ(cut->fileSystemRepresentation(), "");
  EXPECT_EQ(cut->isDirectory(), std::nullopt);
  EXPECT_EQ(cut->name(), nullptr);

  ObjectPtr value;
  ErrorPtr error;
  ASSERT_TRUE(url("link")->getResourceValue(&value, kURLIsDirectoryKey, &error));
  EXPECT_FALSE(cast<Number>(value)->boolValue());
  ASSERT_TRUE(url("folder/file.txt")->getResourceValue(&value, kURLNameKey, &error));
  EXPECT_EQ(cast<String>(value)->str(), "file.txt");
  ASSERT_TRUE(url("folder/file.txt")->getResourceValue(&value, kURLParentDirectoryURLKey, &error));
  EXPECT_EQ(cast<Url>(value)->path(), tree.path("folder"));
  EXPECT_FALSE(url("missing")->getResourceValue(&value, kURLIsDirectoryKey, &error));
  EXPECT_EQ(value, nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kCocoaErrorDomain);
  EXPECT_EQ(error->code(), 260);
  EXPECT_EQ(error->underlyingError()->code(), ENOENT);

  // The root has no parent, and that is no failure.
  auto root = Url::fileURLWithPath("/");
  EXPECT_EQ(root->name()->str(), "/");
  EXPECT_EQ(Url::fileURLWithPath("/tmp")->parentDirectory()->path(), "/");
  value = str("stale");
  EXPECT_TRUE(root->getResourceValue(&value, kURLParentDirectoryURLKey, &error));
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(error, nullptr);
}

}  // namespace
}  // namespace qx
