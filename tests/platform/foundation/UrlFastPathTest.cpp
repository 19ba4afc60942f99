// File URLs of paths that are already normal skip the normalisation, made and
// read back; every other path is normalised first. Each row is checked as
// written and through variants that force the long way (a trailing slash,
// doubled slashes), which must come out the same.
#include <gtest/gtest.h>

#include <string>

#include "platform/foundation/Foundation.h"

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

}  // namespace
}  // namespace qx
