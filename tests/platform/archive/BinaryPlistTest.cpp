// The binary property-list codec on its own: the bytes it writes, what it
// reads back, and the malformed buffers it refuses.
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "platform/archive/BinaryPlist.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using Ref = BinaryPlist::Ref;
using Bytes = std::vector<uint8_t>;

// The reason the reader gives for refusing `bytes` ("" when it accepts them).
std::string refusal(const Bytes& bytes) {
  std::string why;
  return BinaryPlist::parse(bytes, &why) ? "" : why.empty() ? "(no reason)" : why;
}

RawPlist raw(std::vector<Bytes> objects) {
  RawPlist plist;
  plist.objects = std::move(objects);
  return plist;
}

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

TEST(ArchiveBinaryPlist, ReadsWhatOtherWritersMayWrite) {
  const Bytes sixteenByteInteger = {0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x00};
  const Bytes sixteenByteNegative = {0x14, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                     0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe};
  const std::pair<std::vector<Bytes>, json> cases[] = {
      {{{0xa3, 1, 2, 3}, sixteenByteInteger, sixteenByteNegative, {0x22, 0x3f, 0xc0, 0, 0}},
       {256, -2, {{"real", 1.5}}}},
      {{{0xa4, 1, 2, 3, 4},
        {0x80, 0x05},
        {0x81, 0x01, 0x00},
        {0x83, 0x00, 0x01, 0x00, 0x00},
        {0x87, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}},
       {uid(5), uid(256), uid(65536), uid(0xffffffffU)}},
      // UTF-16 with lone surrogates.
      {{{0x64, 0x00, 'a', 0xd8, 0x00, 0x00, 'b', 0xdc, 0x00}},
       "a\xef\xbf\xbd"
       "b\xef\xbf\xbd"},
      // One value named twice is no cycle.
      {{{0xa2, 1, 1}, {0x51, 'x'}}, json::array({"x", "x"})},
  };
  for (const auto& [objects, expected] : cases) {
    EXPECT_EQ(readJson(raw(objects).bytes()), expected);
  }
}

TEST(ArchiveBinaryPlist, RefusesMalformedObjects) {
  // 600 arrays each holding the next, with two-byte references.
  RawPlist deep;
  deep.offsetSize = deep.refSize = 2;
  for (int i = 1; i <= 600; ++i) deep.objects.push_back({0xa1, uint8_t(i >> 8), uint8_t(i)});
  deep.objects.push_back({0x10, 0x00});
  // Objects 1..100 share the bytes of one array naming the leaf 0, objects
  // 101..200 those of one array naming 1..100, and the top names 101..200:
  // 300 bytes that would stand for 100 * 100 references.
  RawPlist overlapping = raw(std::vector<Bytes>(202));
  overlapping.objects[0] = {0x10, 0x00};
  overlapping.objects[100] = {0xa1, 0x00};
  overlapping.objects[200] = overlapping.objects[201] = {0xaf, 0x10, 100};
  for (uint8_t i = 1; i <= 100; ++i) {
    overlapping.objects[200].push_back(i);
    overlapping.objects[201].push_back(static_cast<uint8_t>(100 + i));
  }
  overlapping.top = 201;
  const std::pair<Bytes, std::string> cases[] = {
      {raw({{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}}).bytes(), "64-bit"},
      {raw({{0x84, 0x01, 0x00, 0x00, 0x00, 0x00}}).bytes(), "UID"},
      {raw({{0x51, 0xe9}}).bytes(), "ASCII"},
      {raw({{0xa1, 0x02}, {0x10, 0x07}}).bytes(), "reference"},
      {raw({{0xd1, 1, 1}, {0x10, 0x01}}).bytes(), "key"},
      {raw({{0xa1, 0}}).bytes(), "contains itself"},
      {raw({{0xa1, 1}, {0xd1, 2, 0}, {0x51, 'k'}}).bytes(), "contains itself"},
      // Counts the buffer cannot hold, refused before anything is allocated.
      {raw({{0xaf, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0, 0x00}}).bytes(), "beyond"},
      {raw({{0xdf, 0x12, 0x80, 0, 0, 0, 0x00, 0x00}}).bytes(), "beyond"},
      {deep.bytes(), "deep"},
      {overlapping.bytes(), "overlap"},
  };
  for (const auto& [bytes, fragment] : cases) {
    std::string why = refusal(bytes);
    EXPECT_NE(why, "") << fragment;
    EXPECT_NE(why.find(fragment), std::string::npos) << why;
  }
  // Lengths that run past the object area, for every kind that has one, and
  // markers that stand for nothing.
  for (const Bytes& object :
       {Bytes{0x45, 1, 2}, Bytes{0x5f, 0x10, 0xff, 'a'}, Bytes{0x62, 0x00, 'a'},
        Bytes{0x13, 1, 2, 3}, Bytes{0x23, 1, 2}, Bytes{0x83, 1},
        Bytes{0x4f, 0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}}) {
    EXPECT_NE(refusal(raw({object}).bytes()), "") << hex(object);
  }
  for (uint8_t marker : {0x0f, 0x07, 0x70, 0xc0, 0x90, 0x34, 0x21}) {
    EXPECT_NE(refusal(raw({{marker, 0, 0, 0, 0, 0, 0, 0, 0}}).bytes()), "") << int(marker);
  }
}

TEST(ArchiveBinaryPlist, RefusesHeadersTrailersAndOffsetsOutsideTheBuffer) {
  const RawPlist good = raw({{0xa1, 0x01}, {0x10, 0x07}});
  ASSERT_EQ(refusal(good.bytes()), "");
  Bytes shortened = good.bytes();
  shortened.resize(20);
  EXPECT_NE(refusal(shortened), "");
  struct Damage {
    std::function<void(RawPlist&)> edit;
    std::ptrdiff_t at = 0;  // a byte to set afterwards, counted from the end when negative
    uint8_t value = 0;
  };
  auto none = [](RawPlist&) {};
  const Damage damages[] = {
      {none, 7, '1'},  // not bplist00
      {none, -26, 0},  // offset size
      {none, -26, 9},
      {none, -25, 0},  // reference size
      {none, -25, 9},
      {[](RawPlist& p) { p.objectCount = 0; }},
      {[](RawPlist& p) { p.objectCount = 1ULL << 40; }},
      {[](RawPlist& p) { p.top = 2; }},
      {[](RawPlist& p) { p.tableOffset = 1ULL << 62; }},
      {[](RawPlist& p) { p.tableOffset = 3; }},  // inside the header
      {[](RawPlist& p) {
        p.offsetSize = 2;
        p.offsetOverrides = {{1, 5000}};
      }},
      {[](RawPlist& p) {
        p.offsetOverrides = {{1, 2}};
      }},  // inside the header
  };
  for (const Damage& damage : damages) {
    RawPlist plist = good;
    damage.edit(plist);
    Bytes bytes = plist.bytes();
    if (damage.at != 0) bytes[damage.at < 0 ? bytes.size() + damage.at : damage.at] = damage.value;
    EXPECT_NE(refusal(bytes), "") << &damage - damages;
  }
}

}  // namespace
}  // namespace qx::testing
