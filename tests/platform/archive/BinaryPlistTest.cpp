// The binary property-list codec on its own: the bytes it writes, what it
// reads back (malformed buffers: HostileInputTest).
#include <gtest/gtest.h>

#include <fstream>

#include "platform/archive/BinaryPlist.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using Ref = BinaryPlist::Ref;
using Bytes = std::vector<uint8_t>;

TEST(ArchiveBinaryPlist, WritesEachValueInItsSmallestFormAndReadsItBack) {
  // encodings.jsonl: values and the first bytes of their object in hex.
  std::ifstream rows(QX_SOURCE_DIR "/tests/platform/archive/encodings.jsonl");
  int count = 0;
  for (std::string line; std::getline(rows, line); ++count) {
    const json row = json::parse(line);
    Bytes bytes = writeJson(row["value"]), head = unhex(row["head"]);
    EXPECT_EQ(Bytes(bytes.begin() + 8, bytes.begin() + 8 + head.size()), head) << line;
    EXPECT_EQ(readJson(bytes), row["value"]);
  }
  EXPECT_EQ(count, 21);
  // Lengths written as two- and four-byte integers.
  for (const auto& [data, head] :
       {std::pair{Bytes(256, 1), Bytes{0x4f, 0x11, 0x01, 0x00, 1}},
        std::pair{Bytes(70000, 2), Bytes{0x4f, 0x12, 0, 1, 0x11, 0x70, 2}}}) {
    Bytes bytes = writeJson({{"data", hex(data)}});
    EXPECT_EQ(Bytes(bytes.begin() + 8, bytes.begin() + 8 + head.size()), head);
    EXPECT_EQ(readJson(bytes), json({{"data", hex(data)}}));
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
