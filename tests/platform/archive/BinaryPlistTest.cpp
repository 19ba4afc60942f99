// The binary property-list codec: the bytes it writes, what it reads back
// (malformed buffers: HostileInputTest), and Python's plistlib, an independent
// implementation, as the oracle: archives the project writes load in it with
// the same structure. (Archives plistlib writes: rows of data/archives.jsonl.)
#include <gtest/gtest.h>

#include <fstream>

#include "platform/archive/BinaryPlist.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
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

TEST(ArchiveOracle, ArchivesLoadInPlistlibWithTheSameStructure) {
  registerTestClasses();
  auto url = Url::fileURLWithPath("/tmp/a b%\xff");
  auto info = MutableDictionary::make();
  info->setObject(url, "NSURL");
  info->setObject(Error::errorWithDomain(kPOSIXErrorDomain, 2), "NSUnderlyingError");
  info->setObject(str("d\xc3\xa9j\xc3\xa0 vu \xf0\x9f\x98\x80"), "NSLocalizedDescription");
  info->setObject(str("Ask the owner"), "NSLocalizedRecoverySuggestion");
  auto everything = std::make_shared<Everything>();
  everything->large = 1LL << 50;
  everything->real = 0.25;
  everything->bytes = {0, 1, 2, 255};
  everything->object = url;
  everything->list = {Number::numberWithBool(false), Number::numberWithDouble(-3.5), nullptr};
  // 10,000 strings: references and offsets wider than one and two bytes.
  auto many = MutableArray::make();
  for (int i = 0; i < 10000; ++i) many->addObject(str("item " + std::to_string(i)));
  // Each index path writes a data object of its own: none may take the UID
  // of another's.
  auto paths = MutableArray::make();
  for (uint64_t i = 0; i < 200; ++i) paths->addObject(IndexPath::make({i, i * 300, 7}));
  auto root = Array::make(
      {Error::errorWithDomain(kCocoaErrorDomain, 4, info), everything, IndexPath::make({}),
       IndexPath::make({42}), IndexPath::make({1, 300, 2}),
       Uuid::withString("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5"), SizeRecord::make(-1, true), many,
       IndexPath::make({0, 127, 128, 16383, 16384, ~uint64_t(0)}),
       Url::URLWithString("https://host.invalid/x?y=1"),
       Dictionary::withStringKeys({{"k", str("v")}}), paths, str("bad \xc3 utf8")});
  std::vector<uint8_t> bytes = archived(root);
  json ours = readJson(bytes);
  json viaPython = plistlibRead(bytes);
  EXPECT_EQ(viaPython, ours);

  // The layout of the Foundation classes, as another reader sees it.
  const json& objects = viaPython["$objects"];
  auto at = [&](const json& reference) { return objects[reference["UID"].get<int>()]; };
  auto element = [&](int i) { return at(objects[1]["NS.objects"][i]); };
  EXPECT_EQ(element(0)["NSCode"], 4);
  EXPECT_EQ(at(element(0)["NSDomain"]), "NSCocoaErrorDomain");
  json userInfo = at(element(0)["NSUserInfo"]);
  EXPECT_EQ(at(userInfo["$class"])["$classname"], "NSMutableDictionary");
  // The URL is one object, referenced from the error's user info and from
  // the record alike, its path percent-encoded.
  json urlObject = at(element(1)["object"]);
  EXPECT_EQ(urlObject["NS.base"], uid(0));
  EXPECT_EQ(at(urlObject["NS.relative"]), "file:///tmp/a%20b%25%FF");
  for (std::size_t i = 0; i < userInfo["NS.keys"].size(); ++i) {
    if (at(userInfo["NS.keys"][i]) == "NSURL") {
      EXPECT_EQ(userInfo["NS.objects"][i], element(1)["object"]);
    }
  }
  EXPECT_EQ(element(2)["NSIndexPathLength"], 0);
  EXPECT_FALSE(element(2).contains("NSIndexPathValue") || element(2).contains("NSIndexPathData"));
  EXPECT_EQ(element(3)["NSIndexPathLength"], 1);
  EXPECT_EQ(element(3)["NSIndexPathValue"], 42);
  EXPECT_FALSE(element(3).contains("NSIndexPathData"));
  EXPECT_EQ(element(4)["NSIndexPathLength"], 3);
  EXPECT_EQ(at(element(4)["NSIndexPathData"]), json({{"data", "01ac0202"}}));
  EXPECT_EQ(element(5)["NS.uuidbytes"], json({{"data", "ffffeeeeddddccccbbbbaaaa000001f5"}}));
  EXPECT_EQ(at(element(7)["NS.objects"][9999]), "item 9999");
  EXPECT_EQ(element(12), "bad \xef\xbf\xbd utf8");

  // And back, under the usual sets: the same classes and values, the shared
  // URL decoded once.
  ErrorPtr error;
  auto back = cast<Array>(KeyedUnarchiver::unarchivedObjectOfClasses(
      {&Array::classInfo(), &Dictionary::classInfo(), &String::classInfo(), &Number::classInfo(),
       &Url::classInfo(), &IndexPath::classInfo(), &Uuid::classInfo(), &Error::classInfo(),
       &Everything::classInfo(), &SizeRecord::classInfo()},
      bytes, &error));
  ASSERT_TRUE(back) << describe(error);
  ASSERT_EQ(back->count(), root->count());
  for (std::size_t i = 0; i + 1 < root->count(); ++i) {
    EXPECT_EQ(&back->objectAtIndex(i)->objectClass(), &root->objectAtIndex(i)->objectClass()) << i;
    EXPECT_TRUE(back->objectAtIndex(i)->isEqual(*root->objectAtIndex(i))) << i;
  }
  ObjectPtr decodedUrl = cast<Everything>(back->objectAtIndex(1))->object;
  EXPECT_EQ(back->objectAs<Error>(0)->userInfo()->objectForKey("NSURL"), decodedUrl);
  EXPECT_EQ(cast<Url>(decodedUrl)->fileSystemRepresentation(), "/tmp/a b%\xff");
}

}  // namespace
}  // namespace qx::testing
