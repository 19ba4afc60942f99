// The binary property-list codec on its own: the bytes it writes, what it
// reads back (malformed buffers: HostileInputTest).
#include <gtest/gtest.h>

#include <limits>

#include "platform/archive/BinaryPlist.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using Ref = BinaryPlist::Ref;
using Bytes = std::vector<uint8_t>;

TEST(ArchiveBinaryPlist, WritesEachValueInItsSmallestFormAndReadsItBack) {
  const int64_t min = std::numeric_limits<int64_t>::min();
  const int64_t max = std::numeric_limits<int64_t>::max();
  const std::pair<json, Bytes> values[] = {
      {0, {0x10, 0x00}},
      {255, {0x10, 0xff}},
      {256, {0x11, 0x01, 0x00}},
      {65536, {0x12, 0x00, 0x01, 0x00, 0x00}},
      {0xffffffffLL, {0x12, 0xff, 0xff, 0xff, 0xff}},
      {0x100000000LL, {0x13, 0, 0, 0, 1, 0, 0, 0, 0}},
      {-1, {0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
      {min, {0x13, 0x80, 0, 0, 0, 0, 0, 0, 0}},
      {max, {0x13, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
      {uid(255), {0x80, 0xff}},
      {uid(256), {0x81, 0x01, 0x00}},
      {uid(65536), {0x83, 0x00, 0x01, 0x00, 0x00}},
      {uid(0xffffffffU), {0x83, 0xff, 0xff, 0xff, 0xff}},
      {"hello", {0x55, 'h', 'e', 'l', 'l', 'o'}},
      // Non-ASCII text as UTF-16 big-endian, U+1F600 as a surrogate pair.
      {"\xc3\xa9\xf0\x9f\x98\x80", {0x63, 0x00, 0xe9, 0xd8, 0x3d, 0xde, 0x00}},
      {{{"real", 1.5}}, {0x23, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}},
      {true, {0x09}},
      {false, {0x08}},
      {nullptr, {0x00}},
      {{{"data", ""}}, {0x40}},
      {{{"data", hex(Bytes(15, 15))}}, {0x4f, 0x10, 0x0f, 15}},
      {{{"data", hex(Bytes(256, 1))}}, {0x4f, 0x11, 0x01, 0x00, 1}},
      {{{"data", hex(Bytes(70000, 2))}}, {0x4f, 0x12, 0x00, 0x01, 0x11, 0x70, 2}},
  };
  for (const auto& [value, head] : values) {
    Bytes bytes = writeJson(value);
    EXPECT_EQ(Bytes(bytes.begin() + 8, bytes.begin() + 8 + head.size()), head) << value;
    EXPECT_EQ(readJson(bytes), value);
  }
  BinaryPlist dated;
  EXPECT_EQ(readJson(dated.write(dated.addDate(86400.25))), json({{"real", 86400.25}}));
  // Invalid UTF-8 is written as U+FFFD: a stray byte, a truncated sequence,
  // an encoded surrogate, an overlong form, a code point above U+10FFFF.
  const std::string fffd = "\xef\xbf\xbd";
  const std::pair<std::string, std::string> replaced[] = {
      {"a\xff"
       "b\xc3",
       "a" + fffd + "b" + fffd},
      {"\xe2\x82"
       "x\xed\xa0\x80",
       fffd + "x" + fffd + fffd + fffd},
      {"\xc0\xaf\xf4\x90\x80\x80", fffd + fffd + fffd + fffd + fffd + fffd},
  };
  for (const auto& [text, stored] : replaced) {
    EXPECT_EQ(readJson(writeJson(text)).get<std::string>(), stored);
  }
}

TEST(ArchiveBinaryPlist, ContainersNestShareEqualStringsAndWidenTheirReferences) {
  BinaryPlist plist;
  EXPECT_EQ(plist.addString("NS.objects"), plist.addString("NS.objects"));
  EXPECT_NE(plist.addString("NS.objects"), plist.addString("NS.keys"));
  std::vector<Ref> values;
  for (int i = 0; i < 70000; ++i) values.push_back(plist.addInteger(i * 3));
  Ref keys[] = {plist.addString("list"), plist.addString("\xc3\xa9t\xc3\xa9")};
  Ref top =
      plist.addDictionary(keys, std::vector<Ref>{plist.addArray(values), plist.addBool(true)});
  Bytes bytes = plist.write(top);
  EXPECT_EQ(bytes[bytes.size() - 26], 3);  // offsets beyond 65535
  EXPECT_EQ(bytes[bytes.size() - 25], 3);  // more than 65536 objects
  auto back = BinaryPlist::parse(bytes);
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->boolValue(*back->find(back->top(), "\xc3\xa9t\xc3\xa9")));
  EXPECT_FALSE(back->find(back->top(), "missing"));
  json ours = readJson(bytes);
  json list = ours["list"];
  ASSERT_EQ(list.size(), 70000u);
  EXPECT_EQ(list[69999], 69999 * 3);
  // Three-byte offsets and references read the same in another reader.
  EXPECT_EQ(plistlibRead(bytes), ours);
}

}  // namespace
}  // namespace qx::testing
