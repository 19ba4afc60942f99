// File URLs: paths as bytes, parsing and appending, and resource values read
// from the item itself on a real temporary tree. File URLs of paths that are
// already normal skip the normalisation, made and read back; every other path
// is normalised first. Each row of the fast-path table is checked as written
// and through variants that force the long way (a trailing slash, doubled
// slashes), which must come out the same. A URL made beside another from the
// other's string must be the one fileURLWithPath makes for the same path.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

std::string doubledSlashes(const std::string& path) {
  std::string out;
  for (char c : path) {
    out += c;
    if (c == '/') out += '/';
  }
  return out;
}

TEST(FoundationUrl, PathsAreKeptAsBytesParsedAndAppended) {
  auto url = Url::fileURLWithPath("/a//b c/%/\xff/");
  EXPECT_EQ(url->fileSystemRepresentation(), "/a/b c/%/\xff");
  EXPECT_EQ(url->lastPathComponent(), "\xff");
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
  ASSERT_TRUE(error && error->underlyingError());
  EXPECT_EQ(std::tuple(error->domain(), error->code(), error->underlyingError()->code()),
            std::tuple(kCocoaErrorDomain, 260, ENOENT));

  // The root has no parent, and that is no failure.
  auto root = Url::fileURLWithPath("/");
  EXPECT_EQ(root->name()->str(), "/");
  EXPECT_EQ(Url::fileURLWithPath("/tmp")->parentDirectory()->path(), "/");
  value = str("stale");
  EXPECT_TRUE(root->getResourceValue(&value, kURLParentDirectoryURLKey, &error));
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST(FoundationUrlFastPath, NormalPlainPathsAndTheirLongWayVariantsGiveTheSameUrl) {
  struct Row {
    std::string path;
    std::string string;  // the URL string
    std::string named;   // the path it names
  };
  const Row rows[] = {
      {"/", "file:///", "/"},
      {"/a", "file:///a", "/a"},
      {"/tmp/qx-rename/entry-10.txt", "file:///tmp/qx-rename/entry-10.txt",
       "/tmp/qx-rename/entry-10.txt"},
      {"/a/./b/../.hidden~", "file:///a/./b/../.hidden~", "/a/./b/../.hidden~"},
      {"/a:b@c=d&e!f$g'h(i)j*k+l,m;n", "file:///a:b@c=d&e!f$g'h(i)j*k+l,m;n",
       "/a:b@c=d&e!f$g'h(i)j*k+l,m;n"},
      {"/a b/c", "file:///a%20b/c", "/a b/c"},
      {"/%/x", "file:///%25/x", "/%/x"},
      {"/x?y#z", "file:///x%3Fy%23z", "/x?y#z"},
      {"/caf\xc3\xa9/\x7f", "file:///caf%C3%A9/%7F", "/caf\xc3\xa9/\x7f"},
      {"/a//b/", "file:///a/b", "/a/b"},
      {"/a//b c/%/\xff/", "file:///a/b%20c/%25/%FF", "/a/b c/%/\xff"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    for (const std::string& path : {row.path, row.path + "/", doubledSlashes(row.path)}) {
      auto url = Url::fileURLWithPath(path);
      EXPECT_EQ(url->absoluteString(), row.string) << path;
      EXPECT_EQ(url->path(), row.named) << path;
    }
    for (const std::string& string : {row.string, row.string + "/"}) {
      auto url = Url::URLWithString(string);
      ASSERT_TRUE(url);
      EXPECT_TRUE(url->isFileURL()) << string;
      EXPECT_EQ(url->path(), row.named) << string;
    }
  }
  // A NUL byte is escaped when made, and a string that holds one names no file.
  EXPECT_EQ(Url::fileURLWithPath(std::string("/a\0b", 4))->absoluteString(), "file:///a%00b");
  EXPECT_FALSE(Url::URLWithString(std::string("file:///a\0b", 11))->isFileURL());
}

TEST(FoundationUrlFastPath, UrlsMadeBesideAnotherAreTheOnesFileURLWithPathMakes) {
  test::TempTree tree("qx-url-beside");
  tree.file("old");
  // Each neighbour with its folder, as a path ending in '/'.
  const std::pair<UrlPtr, std::string> neighbours[] = {
      {Url::fileURLWithPath("/tmp/a b/%/caf\xc3\xa9/old"), "/tmp/a b/%/caf\xc3\xa9/"},
      {Url::fileURLWithPath("/old"), "/"},
      {Url::fileURLWithPath("/"), "/"},
      {Url::URLWithString("file:///tmp/x/old"), "/tmp/x/"},
      {Url::URLWithString("file:///tmp/x%20y/old"), "/tmp/x y/"},
      {Url::URLWithString("file:///tmp/%78/old"), "/tmp/x/"},
      {Url::URLWithString("file:///tmp/x y/old"), "/tmp/x y/"},
      {Url::URLWithString("file://localhost/tmp/x/old"), "/tmp/x/"},
      {Url::URLWithString("file:///tmp//x/old/"), "/tmp/x/"},
      {Url::fileURLWithPath(tree.path("old"))->fileReferenceURL(), tree.root() + "/"},
  };
  const std::string names[] = {
      "",        ".",   "..",          "new",          "%41",      "%",
      "a?b#c;d", "a b", "caf\xc3\xa9", "\xff\xfe\x80", "\x01\x7f", "a/b",
  };
  for (const auto& [neighbour, folder] : neighbours) {
    ASSERT_TRUE(neighbour);
    SCOPED_TRACE(neighbour->absoluteString());
    std::vector<std::string> paths = {"/elsewhere/x", folder + "x//y/", "relative"};
    for (const std::string& name : names) paths.push_back(folder + name);
    for (const std::string& path : paths) {
      auto expected = Url::fileURLWithPath(path);
      auto made = Url::fileURLWithPathBeside(*neighbour, path);
      EXPECT_EQ(made->absoluteString(), expected->absoluteString()) << path;
      EXPECT_EQ(made->path(), expected->path()) << path;
      EXPECT_TRUE(made->isFileURL()) << path;
    }
  }
  EXPECT_EQ(Url::fileURLWithPathBeside(*neighbours[0].first, "/tmp/a b/%/caf\xc3\xa9/x?y")
                ->absoluteString(),
            "file:///tmp/a%20b/%25/caf%C3%A9/x%3Fy");
}

}  // namespace
}  // namespace qx
