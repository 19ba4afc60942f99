// The binary property-list codec on its own: what it writes, what it reads
// back, and which malformed buffers it refuses.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/archive/BinaryPlist.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using Type = BinaryPlist::Type;
using Ref = BinaryPlist::Ref;

BinaryPlist reparse(const BinaryPlist& plist, Ref top, std::vector<uint8_t>& keep) {
  keep = plist.write(top);
  std::string why;
  auto parsed = BinaryPlist::parse(keep, &why);
  EXPECT_TRUE(parsed) << why;
  return parsed ? std::move(*parsed) : BinaryPlist();
}

std::string parseError(const std::vector<uint8_t>& bytes) {
  std::string why;
  auto parsed = BinaryPlist::parse(bytes, &why);
  EXPECT_FALSE(parsed) << "accepted a malformed plist";
  EXPECT_FALSE(why.empty());
  return why;
}

// The object bytes of the single value `top` of a written plist.
std::vector<uint8_t> objectBytes(const std::vector<uint8_t>& plist, std::size_t length) {
  return std::vector<uint8_t>(plist.begin() + 8, plist.begin() + 8 + length);
}

TEST(ArchiveBinaryPlistValues, IntegersUseTheSmallestWidthAndRoundTrip) {
  struct Case {
    int64_t value;
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      {0, {0x10, 0x00}},
      {255, {0x10, 0xff}},
      {256, {0x11, 0x01, 0x00}},
      {65535, {0x11, 0xff, 0xff}},
      {65536, {0x12, 0x00, 0x01, 0x00, 0x00}},
      {0xffffffffLL, {0x12, 0xff, 0xff, 0xff, 0xff}},
      {0x100000000LL, {0x13, 0, 0, 0, 1, 0, 0, 0, 0}},
      {-1, {0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
      {std::numeric_limits<int64_t>::min(), {0x13, 0x80, 0, 0, 0, 0, 0, 0, 0}},
      {std::numeric_limits<int64_t>::max(), {0x13, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
  };
  for (const auto& c : cases) {
    BinaryPlist plist;
    Ref top = plist.addInteger(c.value);
    std::vector<uint8_t> bytes;
    BinaryPlist back = reparse(plist, top, bytes);
    EXPECT_EQ(objectBytes(bytes, c.bytes.size()), c.bytes) << c.value;
    ASSERT_EQ(back.type(back.top()), Type::Integer);
    EXPECT_EQ(back.integer(back.top()), c.value);
  }
}

TEST(ArchiveBinaryPlistValues, UidsUseOneTwoFourOrEightBytes) {
  struct Case {
    uint32_t value;
    uint8_t marker;
  };
  for (auto [value, marker] : {Case{0, 0x80}, Case{255, 0x80}, Case{256, 0x81}, Case{65535, 0x81},
                               Case{65536, 0x83}, Case{0xffffffffU, 0x83}}) {
    BinaryPlist plist;
    Ref top = plist.addUid(value);
    std::vector<uint8_t> bytes;
    BinaryPlist back = reparse(plist, top, bytes);
    EXPECT_EQ(bytes[8], marker) << value;
    ASSERT_EQ(back.type(back.top()), Type::Uid);
    EXPECT_EQ(back.uid(back.top()), value);
  }
}

TEST(ArchiveBinaryPlistValues, RealsDatesBooleansAndNullRoundTrip) {
  BinaryPlist plist;
  std::vector<Ref> values = {plist.addReal(1.5),
                             plist.addReal(-0.0),
                             plist.addReal(std::numeric_limits<double>::infinity()),
                             plist.addDate(86400.25),
                             plist.addBool(true),
                             plist.addBool(false),
                             plist.addNull()};
  Ref top = plist.addArray(values);
  std::vector<uint8_t> bytes;
  BinaryPlist back = reparse(plist, top, bytes);
  ASSERT_EQ(back.count(back.top()), values.size());
  auto at = [&](std::size_t i) { return back.element(back.top(), i); };
  EXPECT_EQ(back.real(at(0)), 1.5);
  EXPECT_TRUE(std::signbit(back.real(at(1))));
  EXPECT_TRUE(std::isinf(back.real(at(2))));
  EXPECT_EQ(back.type(at(3)), Type::Date);
  EXPECT_EQ(back.real(at(3)), 86400.25);
  EXPECT_TRUE(back.boolValue(at(4)));
  EXPECT_EQ(back.type(at(5)), Type::Bool);
  EXPECT_FALSE(back.boolValue(at(5)));
  EXPECT_EQ(back.type(at(6)), Type::Null);
}

TEST(ArchiveBinaryPlistValues, DataAndLongLengthsRoundTrip) {
  for (std::size_t length : {0u, 14u, 15u, 255u, 256u, 70000u}) {
    std::vector<uint8_t> payload(length);
    for (std::size_t i = 0; i < length; ++i) payload[i] = static_cast<uint8_t>(i * 7);
    BinaryPlist plist;
    Ref top = plist.addData(payload);
    std::vector<uint8_t> bytes;
    BinaryPlist back = reparse(plist, top, bytes);
    ASSERT_EQ(back.type(back.top()), Type::Data);
    auto read = back.data(back.top());
    EXPECT_EQ(std::vector<uint8_t>(read.begin(), read.end()), payload) << length;
  }
}

TEST(ArchiveBinaryPlistStrings, AsciiIsWrittenAsAscii) {
  BinaryPlist plist;
  Ref top = plist.addString("hello");
  std::vector<uint8_t> bytes;
  BinaryPlist back = reparse(plist, top, bytes);
  EXPECT_EQ(objectBytes(bytes, 6), (std::vector<uint8_t>{0x55, 'h', 'e', 'l', 'l', 'o'}));
  EXPECT_EQ(back.string(back.top()), "hello");
}

TEST(ArchiveBinaryPlistStrings, NonAsciiIsWrittenAsUtf16BigEndian) {
  BinaryPlist plist;
  Ref top = plist.addString("\xc3\xa9\xf0\x9f\x98\x80");  // é and U+1F600 (a surrogate pair)
  std::vector<uint8_t> bytes;
  BinaryPlist back = reparse(plist, top, bytes);
  EXPECT_EQ(objectBytes(bytes, 7),
            (std::vector<uint8_t>{0x63, 0x00, 0xe9, 0xd8, 0x3d, 0xde, 0x00}));
  EXPECT_EQ(back.string(back.top()), "\xc3\xa9\xf0\x9f\x98\x80");
}

TEST(ArchiveBinaryPlistStrings, InvalidUtf8SequencesBecomeReplacementCharacters) {
  struct Case {
    std::string in;
    std::string out;
  };
  const std::string fffd = "\xef\xbf\xbd";
  const Case cases[] = {
      {"a\xff"
       "b",
       "a" + fffd + "b"},  // a byte that never starts a sequence
      {"\xc3", fffd},      // truncated at the end
      {"\xe2\x82"
       "x",
       fffd + "x"},                                     // truncated before an ASCII byte
      {"\xed\xa0\x80", fffd + fffd + fffd},             // an encoded surrogate
      {"\xc0\xaf", fffd + fffd},                        // an overlong form
      {"\xf4\x90\x80\x80", fffd + fffd + fffd + fffd},  // above U+10FFFF
      {"\xe2\x82\xac", "\xe2\x82\xac"},                 // valid: the euro sign
  };
  for (const auto& c : cases) {
    BinaryPlist plist;
    Ref top = plist.addString(c.in);
    std::vector<uint8_t> bytes;
    BinaryPlist back = reparse(plist, top, bytes);
    EXPECT_EQ(back.string(back.top()), c.out);
  }
}

TEST(ArchiveBinaryPlistStrings, ReaderReplacesLoneSurrogatesAndRefusesHighBitAscii) {
  RawPlist raw;
  // UTF-16 "a", lone high surrogate, "b", lone low surrogate.
  raw.objects = {{0x64, 0x00, 'a', 0xd8, 0x00, 0x00, 'b', 0xdc, 0x00}};
  auto parsed = BinaryPlist::parse(raw.bytes());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->string(parsed->top()),
            "a\xef\xbf\xbd"
            "b\xef\xbf\xbd");

  raw.objects = {{0x51, 0xe9}};
  EXPECT_NE(parseError(raw.bytes()).find("ASCII"), std::string::npos);
}

TEST(ArchiveBinaryPlistStrings, EqualAsciiStringsAreWrittenOnce) {
  BinaryPlist plist;
  Ref a = plist.addString("NS.objects");
  Ref b = plist.addString("NS.objects");
  Ref c = plist.addString("NS.keys");
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
  for (int i = 0; i < 1000; ++i) plist.addString("key" + std::to_string(i));
  EXPECT_EQ(plist.addString("key500"), plist.addString("key500"));
  EXPECT_EQ(plist.addString("NS.keys"), c);
}

TEST(ArchiveBinaryPlistContainers, DictionariesAndArraysNestAndFindKeys) {
  BinaryPlist plist;
  Ref inner = plist.addArray(std::vector<Ref>{plist.addInteger(1), plist.addString("two")});
  std::vector<Ref> keys = {plist.addString("list"), plist.addString("\xc3\xa9t\xc3\xa9")};
  std::vector<Ref> values = {inner, plist.addBool(true)};
  Ref top = plist.addDictionary(keys, values);
  std::vector<uint8_t> bytes;
  BinaryPlist back = reparse(plist, top, bytes);
  auto list = back.find(back.top(), "list");
  ASSERT_TRUE(list);
  ASSERT_EQ(back.count(*list), 2u);
  EXPECT_EQ(back.string(back.element(*list, 1)), "two");
  auto summer = back.find(back.top(), "\xc3\xa9t\xc3\xa9");
  ASSERT_TRUE(summer);
  EXPECT_TRUE(back.boolValue(*summer));
  EXPECT_FALSE(back.find(back.top(), "missing"));
}

TEST(ArchiveBinaryPlistContainers, ManyObjectsNeedWiderReferencesAndOffsets) {
  BinaryPlist plist;
  std::vector<Ref> values;
  for (int i = 0; i < 70000; ++i) values.push_back(plist.addInteger(i * 3));
  Ref top = plist.addArray(values);
  std::vector<uint8_t> bytes;
  BinaryPlist back = reparse(plist, top, bytes);
  const uint8_t* trailer = bytes.data() + bytes.size() - 32;
  EXPECT_EQ(trailer[6], 4);  // offsets beyond 65535
  EXPECT_EQ(trailer[7], 4);  // more than 65536 objects
  ASSERT_EQ(back.count(back.top()), 70000u);
  EXPECT_EQ(back.integer(back.element(back.top(), 69999)), 69999 * 3);
}

TEST(ArchiveBinaryPlistReader, ReadsSixteenByteIntegersThatFitAndFourByteReals) {
  RawPlist raw;
  std::vector<uint8_t> big = {0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x00};
  std::vector<uint8_t> negative = {0x14, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                   0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe};
  raw.objects = {{0xa3, 1, 2, 3}, big, negative, {0x22, 0x3f, 0xc0, 0x00, 0x00}};
  auto parsed = BinaryPlist::parse(raw.bytes());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->integer(parsed->element(parsed->top(), 0)), 256);
  EXPECT_EQ(parsed->integer(parsed->element(parsed->top(), 1)), -2);
  EXPECT_EQ(parsed->real(parsed->element(parsed->top(), 2)), 1.5);

  raw.objects = {{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}};
  EXPECT_NE(parseError(raw.bytes()).find("64-bit"), std::string::npos);
}

TEST(ArchiveBinaryPlistReader, ReadsUidsOfAnyWidthUpToThirtyTwoBits) {
  RawPlist raw;
  raw.objects = {{0xa4, 1, 2, 3, 4},
                 {0x80, 0x05},
                 {0x81, 0x01, 0x00},
                 {0x83, 0x00, 0x01, 0x00, 0x00},
                 {0x87, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}};
  auto parsed = BinaryPlist::parse(raw.bytes());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->uid(parsed->element(parsed->top(), 0)), 5u);
  EXPECT_EQ(parsed->uid(parsed->element(parsed->top(), 1)), 256u);
  EXPECT_EQ(parsed->uid(parsed->element(parsed->top(), 2)), 65536u);
  EXPECT_EQ(parsed->uid(parsed->element(parsed->top(), 3)), 0xffffffffU);

  raw.objects = {{0x84, 0x01, 0x00, 0x00, 0x00, 0x00}};
  EXPECT_NE(parseError(raw.bytes()).find("UID"), std::string::npos);
}

TEST(ArchiveBinaryPlistReader, RefusesBadHeadersAndTrailers) {
  RawPlist good;
  good.objects = {{0x10, 0x01}};
  ASSERT_TRUE(BinaryPlist::parse(good.bytes()));

  auto bytes = good.bytes();
  bytes[7] = '1';
  parseError(bytes);                                                    // not bplist00
  parseError(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 20));  // too short

  for (unsigned size : {0u, 9u}) {
    RawPlist raw = good;
    raw.offsetSize = size == 0 ? 1 : size;
    auto b = raw.bytes();
    b[b.size() - 26] = static_cast<uint8_t>(size);
    parseError(b);
    b = good.bytes();
    b[b.size() - 25] = static_cast<uint8_t>(size);
    parseError(b);
  }
  RawPlist raw = good;
  raw.objectCount = 0;
  parseError(raw.bytes());
  raw.objectCount = 1ULL << 40;  // far more offsets than the table holds
  parseError(raw.bytes());
  raw = good;
  raw.top = 1;
  parseError(raw.bytes());
  raw = good;
  raw.tableOffset = 1ULL << 62;
  parseError(raw.bytes());
  raw.tableOffset = 3;  // inside the header
  parseError(raw.bytes());
}

TEST(ArchiveBinaryPlistReader, RefusesOffsetsAndReferencesOutsideTheBuffer) {
  RawPlist raw;
  raw.objects = {{0xa1, 0x01}, {0x10, 0x07}};
  ASSERT_TRUE(BinaryPlist::parse(raw.bytes()));

  RawPlist beyond = raw;
  beyond.offsetOverrides = {{1, 5000}};
  parseError(beyond.bytes());
  beyond.offsetOverrides = {{1, 2}};  // inside the header
  parseError(beyond.bytes());

  RawPlist badRef = raw;
  badRef.objects[0] = {0xa1, 0x02};
  EXPECT_NE(parseError(badRef.bytes()).find("reference"), std::string::npos);

  // Lengths that run past the object area, for every kind that has one.
  for (std::vector<uint8_t> object :
       {std::vector<uint8_t>{0x45, 1, 2}, std::vector<uint8_t>{0x5f, 0x10, 0xff, 'a'},
        std::vector<uint8_t>{0x62, 0x00, 'a'}, std::vector<uint8_t>{0x13, 1, 2, 3},
        std::vector<uint8_t>{0x23, 1, 2}, std::vector<uint8_t>{0x83, 1},
        std::vector<uint8_t>{0x4f, 0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}}) {
    RawPlist truncated;
    truncated.objects = {object};
    parseError(truncated.bytes());
  }
}

TEST(ArchiveBinaryPlistReader, RefusesCountsTheBufferCannotHoldBeforeAllocating) {
  RawPlist raw;
  // An array claiming 2^62 elements, and a dictionary claiming 2^31 pairs.
  raw.objects = {{0xaf, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0, 0x00}};
  EXPECT_NE(parseError(raw.bytes()).find("beyond"), std::string::npos);
  raw.objects = {{0xdf, 0x12, 0x80, 0, 0, 0, 0x00, 0x00}};
  parseError(raw.bytes());
}

TEST(ArchiveBinaryPlistReader, RefusesCyclesButAcceptsSharedValues) {
  RawPlist shared;
  shared.objects = {{0xa2, 1, 1}, {0x51, 'x'}};
  auto parsed = BinaryPlist::parse(shared.bytes());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->element(parsed->top(), 0), parsed->element(parsed->top(), 1));

  RawPlist self;
  self.objects = {{0xa1, 0}};
  EXPECT_NE(parseError(self.bytes()).find("contains itself"), std::string::npos);
  RawPlist loop;
  loop.objects = {{0xa1, 1}, {0xd1, 2, 0}, {0x51, 'k'}};
  parseError(loop.bytes());
}

TEST(ArchiveBinaryPlistReader, RefusesNonStringKeysUnknownMarkersAndDeepNesting) {
  RawPlist raw;
  raw.objects = {{0xd1, 1, 1}, {0x10, 0x01}};
  EXPECT_NE(parseError(raw.bytes()).find("key"), std::string::npos);
  for (uint8_t marker : {0x0f, 0x07, 0x70, 0xc0, 0x90, 0x34, 0x21}) {
    raw.objects = {{marker, 0, 0, 0, 0, 0, 0, 0, 0}};
    parseError(raw.bytes());
  }
  // 600 arrays each holding the next.
  RawPlist deep;
  deep.offsetSize = 2;
  deep.refSize = 2;
  for (int i = 0; i < 600; ++i) {
    deep.objects.push_back({0xa1, static_cast<uint8_t>((i + 1) >> 8), static_cast<uint8_t>(i + 1)});
  }
  deep.objects.push_back({0x10, 0x00});
  EXPECT_NE(parseError(deep.bytes()).find("deep"), std::string::npos);
}

TEST(ArchiveBinaryPlistReader, RefusesObjectsThatShareTheirBytes) {
  // 200 offsets all naming one 100-element array of 100 other arrays that all
  // name one leaf: accepting it would cost 200 * 100 references for 300 bytes.
  RawPlist raw;
  raw.offsetSize = 2;
  raw.objects.push_back({0x10, 0x00});  // object 0: the leaf
  std::vector<uint8_t> outer = {0xaf, 0x10, 100};
  for (int i = 0; i < 100; ++i) outer.push_back(static_cast<uint8_t>(101 + i));
  raw.objects.push_back({0xa1, 0x00});  // object 1 .. 100: arrays naming the leaf
  for (int i = 2; i <= 100; ++i) raw.objects.push_back({});
  raw.objects.push_back(outer);  // object 101 .. 200: the same outer array
  for (int i = 102; i <= 200; ++i) raw.objects.push_back({});
  raw.objects.push_back({0xaf, 0x10, 100});  // object 201: top, naming 101 .. 200
  for (int i = 0; i < 100; ++i) raw.objects.back().push_back(static_cast<uint8_t>(101 + i));
  raw.refSize = 1;
  raw.top = 201;
  auto bytes = raw.bytes();
  // Point every empty object at the shared one before it.
  std::size_t table = bytes.size() - 32 - raw.objects.size() * 2;
  auto offsetOf = [&](std::size_t i) {
    return (bytes[table + 2 * i] << 8) | bytes[table + 2 * i + 1];
  };
  for (std::size_t i = 2; i <= 100; ++i) {
    bytes[table + 2 * i] = static_cast<uint8_t>(offsetOf(1) >> 8);
    bytes[table + 2 * i + 1] = static_cast<uint8_t>(offsetOf(1));
  }
  for (std::size_t i = 102; i <= 200; ++i) {
    bytes[table + 2 * i] = static_cast<uint8_t>(offsetOf(101) >> 8);
    bytes[table + 2 * i + 1] = static_cast<uint8_t>(offsetOf(101));
  }
  // The outer arrays name objects 101 .. 200, which are themselves: give them
  // the inner arrays instead.
  std::size_t outerAt = offsetOf(101);
  for (int i = 0; i < 100; ++i) bytes[outerAt + 3 + i] = static_cast<uint8_t>(1 + i);
  EXPECT_NE(parseError(bytes).find("overlap"), std::string::npos);
}

}  // namespace
}  // namespace qx::testing
