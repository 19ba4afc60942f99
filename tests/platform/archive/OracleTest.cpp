// Python's plistlib, an independent implementation of binary property lists,
// as the oracle: archives the project writes load in it with the same
// structure. (Archives plistlib writes: rows of data/archives.jsonl.)
#include <gtest/gtest.h>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

class ArchiveOracle : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }
};

TEST_F(ArchiveOracle, ArchivesLoadInPlistlibWithTheSameStructure) {
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
