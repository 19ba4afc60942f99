// File URLs: paths as bytes, appending, and resource values read from the
// item itself on a real temporary tree.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/foundation/Foundation.h"

namespace qx {
namespace {

class FoundationUrl : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "qx-url-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    std::filesystem::create_directory(root_ / "folder");
    std::ofstream(root_ / "folder" / "file.txt") << "x";
    std::filesystem::create_directory_symlink(root_ / "folder", root_ / "link");
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  UrlPtr url(const std::string& relative) const {
    return Url::fileURLWithPath((root_ / relative).string());
  }

  std::filesystem::path root_;
};

TEST_F(FoundationUrl, PathsAreKeptAsBytesAndNormalised) {
  auto url = Url::fileURLWithPath("/a//b c/%/\xff/");
  EXPECT_EQ(url->path(), "/a/b c/%/\xff");
  EXPECT_EQ(url->fileSystemRepresentation(), "/a/b c/%/\xff");
  EXPECT_EQ(url->absoluteString(), "file:///a/b%20c/%25/%FF");
  EXPECT_EQ(url->lastPathComponent(), "\xff");
  EXPECT_TRUE(url->isFileURL());
  EXPECT_EQ(Url::fileURLWithPath("/")->path(), "/");
  EXPECT_EQ(Url::fileURLWithPath("/")->lastPathComponent(), "/");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(Url::fileURLWithPath("relative/x")->path(), std::string(cwd) + "/relative/x");
}

TEST_F(FoundationUrl, StringsParseWithOrWithoutHostAndRefuseBadOnes) {
  EXPECT_EQ(Url::URLWithString("file:///tmp/a%20b")->path(), "/tmp/a b");
  EXPECT_EQ(Url::URLWithString("file://localhost/tmp/x")->path(), "/tmp/x");
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

TEST_F(FoundationUrl, AppendingComponents) {
  EXPECT_EQ(Url::fileURLWithPath("/")->URLByAppendingPathComponent("etc")->path(), "/etc");
  EXPECT_EQ(Url::fileURLWithPath("/a")->URLByAppendingPathComponent("b c")->path(), "/a/b c");
  EXPECT_EQ(Url::fileURLWithPath("/a")->URLByAppendingPathComponent("b/")->path(), "/a/b");
  EXPECT_TRUE(Url::fileURLWithPath("/a/b")->isEqual(*Url::fileURLWithPath("/a//b/")));
}

TEST_F(FoundationUrl, IsDirectoryDoesNotFollowSymbolicLinks) {
  EXPECT_EQ(url("folder")->isDirectory(), true);
  EXPECT_EQ(url("folder/file.txt")->isDirectory(), false);
  EXPECT_EQ(url("link")->isDirectory(), false);
  EXPECT_EQ(url("missing")->isDirectory(), std::nullopt);

  ObjectPtr value;
  ErrorPtr error;
  ASSERT_TRUE(url("folder")->getResourceValue(&value, kURLIsDirectoryKey, &error));
  EXPECT_TRUE(cast<Number>(value)->boolValue());
  ASSERT_TRUE(url("link")->getResourceValue(&value, kURLIsDirectoryKey, &error));
  EXPECT_FALSE(cast<Number>(value)->boolValue());
  EXPECT_FALSE(url("missing")->getResourceValue(&value, kURLIsDirectoryKey, &error));
  EXPECT_EQ(value, nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kCocoaErrorDomain);
  EXPECT_EQ(error->code(), 260);
  EXPECT_EQ(error->underlyingError()->code(), ENOENT);
}

TEST_F(FoundationUrl, NameAndParentOfItems) {
  ObjectPtr value;
  ErrorPtr error;
  ASSERT_TRUE(url("folder/file.txt")->getResourceValue(&value, kURLNameKey, &error));
  EXPECT_EQ(cast<String>(value)->str(), "file.txt");
  ASSERT_TRUE(url("folder/file.txt")->getResourceValue(&value, kURLParentDirectoryURLKey, &error));
  EXPECT_EQ(cast<Url>(value)->path(), (root_ / "folder").string());
  EXPECT_EQ(url("link")->name()->str(), "link");
  EXPECT_EQ(url("link")->parentDirectory()->path(), root_.string());
  EXPECT_EQ(url("missing")->name(), nullptr);
  EXPECT_EQ(url("missing")->parentDirectory(), nullptr);
  EXPECT_EQ(Url::fileURLWithPath("/tmp")->parentDirectory()->path(), "/");
}

TEST_F(FoundationUrl, TheRootHasNoParentAndThatIsNoFailure) {
  auto root = Url::fileURLWithPath("/");
  EXPECT_EQ(root->parentDirectory(), nullptr);
  ObjectPtr value = str("stale");
  ErrorPtr error = Error::errorWithDomain(kPOSIXErrorDomain, 1);
  EXPECT_TRUE(root->getResourceValue(&value, kURLParentDirectoryURLKey, &error));
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(root->name()->str(), "/");
}

}  // namespace
}  // namespace qx
