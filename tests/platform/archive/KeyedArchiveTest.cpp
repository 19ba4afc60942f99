// The keyed-archive layout the archiver writes, and what the unarchiver makes
// of it: identities, shared classes, escaped keys, plain values, nesting.
#include <gtest/gtest.h>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using json = nlohmann::json;

json uid(uint32_t n) {
  return {{"UID", n}};
}

json archiveJson(const ObjectPtr& root) {
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
  if (!data) throw std::runtime_error("no archive");
  return readJson(data->span());
}

// A class whose coding throws, as code that runs out of memory would.
class Throwing final : public Object {
  QX_DECLARE_CLASS()

 public:
  static ObjectPtr initWithCoder(KeyedUnarchiver&) { throw std::runtime_error("no memory"); }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    if (throwOnEncode) throw 42;
    coder.encodeBool(true, "flag");
  }
  bool throwOnEncode = false;
};

QX_DEFINE_CLASS(Throwing, "QXTestThrowing", Object)

class ArchiveLayout : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }
};

TEST_F(ArchiveLayout, MutableArrayOfTwoStringsHasTheReferenceLayout) {
  auto array = MutableArray::make();
  array->addObject(str("a"));
  array->addObject(str("b"));
  json expected = {{"$archiver", "NSKeyedArchiver"},
                   {"$version", 100000},
                   {"$top", {{"root", uid(1)}}},
                   {"$objects",
                    {"$null",
                     {{"NS.objects", {uid(2), uid(3)}}, {"$class", uid(4)}},
                     "a",
                     "b",
                     {{"$classname", "NSMutableArray"},
                      {"$classes", {"NSMutableArray", "NSArray", "NSObject"}}}}}};
  EXPECT_EQ(archiveJson(array), expected);
}

TEST_F(ArchiveLayout, NilRootIsUidZero) {
  json archive = archiveJson(nullptr);
  EXPECT_EQ(archive["$top"]["root"], uid(0));
  EXPECT_EQ(archive["$objects"], json::array({"$null"}));
  ErrorPtr error;
  auto data = KeyedArchiver::archivedDataWithRootObject(nullptr);
  EXPECT_EQ(KeyedUnarchiver::unarchiveObjectWithData(*data, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_F(ArchiveLayout, OneInstanceIsWrittenOnceAndReferencedBySameUid) {
  auto shared = str("shared");
  auto record = SizeRecord::make(7, true);
  auto root = Array::make({shared, record, shared, record, str("shared")});
  json archive = archiveJson(root);
  json elements = archive["$objects"][1]["NS.objects"];
  EXPECT_EQ(elements[0], elements[2]);
  EXPECT_EQ(elements[1], elements[3]);
  // An equal but distinct instance is an object of its own.
  EXPECT_NE(elements[0], elements[4]);
  // null, array, "shared", record, class of record, second "shared", class of array
  EXPECT_EQ(archive["$objects"].size(), 7u);

  auto back = cast<Array>(roundTrip(root));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->objectAtIndex(0), back->objectAtIndex(2));
  EXPECT_EQ(back->objectAtIndex(1), back->objectAtIndex(3));
  // The two equal strings share one plist value, so the reader may hand out
  // one immutable string for both; only equality is promised.
  EXPECT_TRUE(back->objectAtIndex(0)->isEqual(*back->objectAtIndex(4)));
  EXPECT_TRUE(back->isEqual(*root));
}

TEST_F(ArchiveLayout, ObjectSlotIsReservedBeforeItsContentsAndClassesAreShared) {
  auto root = Array::make({SizeRecord::make(1, false), SizeRecord::make(2, true)});
  json objects = archiveJson(root)["$objects"];
  // root, first record, its class, second record, class of the array
  ASSERT_EQ(objects.size(), 6u);
  EXPECT_EQ(objects[1]["NS.objects"], json::array({uid(2), uid(4)}));
  EXPECT_EQ(objects[2]["$class"], uid(3));
  EXPECT_EQ(objects[4]["$class"], uid(3));
  EXPECT_EQ(objects[3]["$classname"], "QXFileSizeItem");
  EXPECT_EQ(objects[3]["$classes"], json::array({"QXFileSizeItem", "NSObject"}));
  EXPECT_EQ(objects[2]["size"], 1);
  EXPECT_EQ(objects[2]["busy"], false);
  EXPECT_EQ(objects[5]["$classname"], "NSArray");
}

TEST_F(ArchiveLayout, ValuesStandInlineAndDollarKeysGetOneMoreDollar) {
  auto everything = std::make_shared<Everything>();
  everything->small = -5;
  everything->large = 1LL << 40;
  everything->flag = true;
  everything->real = 2.5;
  everything->bytes = {1, 2, 3};
  everything->dollar = 9;
  json object = archiveJson(everything)["$objects"][1];
  EXPECT_EQ(object["small"], -5);
  EXPECT_EQ(object["large"], 1LL << 40);
  EXPECT_EQ(object["flag"], true);
  EXPECT_EQ(object["real"], json({{"real", 2.5}}));
  EXPECT_EQ(object["bytes"], json({{"data", "010203"}}));
  EXPECT_EQ(object["object"], uid(0));
  EXPECT_EQ(object["list"], json::array());
  EXPECT_EQ(object["$$dollar"], 9);
  EXPECT_FALSE(object.contains("$dollar"));
  EXPECT_TRUE(roundTrip(everything)->isEqual(*everything));
}

TEST_F(ArchiveLayout, StringsNumbersAndDataArePlainValuesWithoutClass) {
  auto root =
      Array::make({str("text"), Number::numberWithBool(true), Number::numberWithInteger(-3),
                   Number::numberWithDouble(0.5), Data::make({0xde, 0xad}), str("caf\xc3\xa9")});
  json objects = archiveJson(root)["$objects"];
  EXPECT_EQ(objects[2], "text");
  EXPECT_EQ(objects[3], true);
  EXPECT_EQ(objects[4], -3);
  EXPECT_EQ(objects[5], json({{"real", 0.5}}));
  EXPECT_EQ(objects[6], json({{"data", "dead"}}));
  EXPECT_EQ(objects[7], "caf\xc3\xa9");

  auto back = cast<Array>(roundTrip(root));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->objectAs<Number>(1)->kind(), Number::Kind::Bool);
  EXPECT_EQ(back->objectAs<Number>(2)->kind(), Number::Kind::Integer);
  EXPECT_EQ(back->objectAs<Number>(3)->kind(), Number::Kind::Real);
  EXPECT_TRUE(back->isEqual(*root));
}

TEST_F(ArchiveLayout, TemporariesMadeWhileEncodingKeepTheirOwnUids) {
  // Each index path makes a temporary data object while it is encoded; a
  // freed temporary's address must not alias the next one.
  auto root = MutableArray::make();
  for (uint64_t i = 0; i < 200; ++i) root->addObject(IndexPath::make({i, i * 300, 7}));
  auto back = roundTrip(root);
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->isEqual(*root));
}

class ArchiveReader : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }
};

TEST_F(ArchiveReader, EveryCoderCallRoundTrips) {
  auto everything = std::make_shared<Everything>();
  everything->small = std::numeric_limits<int32_t>::min();
  everything->large = std::numeric_limits<int64_t>::min();
  everything->flag = true;
  everything->real = -1e300;
  everything->bytes = std::vector<uint8_t>(300, 0xab);
  everything->object = Dictionary::withStringKeys({{"k", Number::numberWithInteger(1)}});
  everything->list = {str("x"), nullptr, SizeRecord::make(-1, true)};
  everything->dollar = -77;
  ErrorPtr error;
  auto back = roundTrip(everything, &error);
  ASSERT_TRUE(back) << describe(error);
  EXPECT_TRUE(back->isEqual(*everything));
  EXPECT_EQ(cast<Everything>(back)->list[1], nullptr);
}

TEST_F(ArchiveReader, NullTargetsDecodeAsNilAndClassHintsAreIgnored) {
  HandArchive archive;
  auto& p = archive.plist();
  uint32_t arrayClass = archive.addClass("NSArray");  // no $classes
  archive.set(0, p.addString("$null"));
  uint32_t null2 = archive.add(p.addString("$null"));
  uint32_t recordClass = archive.add(archive.object(
      {{"$classname", archive.str("QXFileSizeItem")},
       {"$classes", p.addArray(std::vector<BinaryPlist::Ref>{archive.str("Bogus")})},
       {"$classhints", p.addArray(std::vector<BinaryPlist::Ref>{archive.str("NSArray")})}}));
  uint32_t record = archive.add(archive.object({{"size", archive.integer(12)},
                                                {"busy", p.addBool(true)},
                                                {"$class", archive.uid(recordClass)}}));
  uint32_t root = archive.add(archive.object(
      {{"NS.objects", archive.uids({0, null2, record})}, {"$class", archive.uid(arrayClass)}}));
  ErrorPtr error;
  auto bytes = archive.bytes(root);
  auto back = cast<Array>(KeyedUnarchiver::unarchiveObjectWithData(bytes, &error));
  ASSERT_TRUE(back) << describe(error);
  ASSERT_EQ(back->count(), 3u);
  EXPECT_EQ(back->objectAtIndex(0), nullptr);
  EXPECT_EQ(back->objectAtIndex(1), nullptr);
  EXPECT_TRUE(back->objectAtIndex(2)->isEqual(*SizeRecord::make(12, true)));
}

TEST_F(ArchiveReader, MissingKeysGiveDefaults) {
  HandArchive archive;
  uint32_t cls = archive.addClass("QXTestEverything", {"QXTestEverything", "NSObject"});
  archive.add(archive.object({{"$class", archive.uid(cls)}}));
  ErrorPtr error;
  auto back = cast<Everything>(KeyedUnarchiver::unarchiveObjectWithData(archive.bytes(2), &error));
  ASSERT_TRUE(back) << describe(error);
  EXPECT_TRUE(back->isEqual(Everything()));
}

TEST_F(ArchiveReader, ArchivesNestInsideArchives) {
  auto root = std::make_shared<NestingNode>(SizeRecord::make(1, true));
  auto child = std::make_shared<NestingNode>(SizeRecord::make(2, false));
  child->children.push_back(std::make_shared<NestingNode>(SizeRecord::make(3, true)));
  root->children.push_back(child);
  root->children.push_back(std::make_shared<NestingNode>());
  ErrorPtr error;
  auto back = cast<NestingNode>(roundTrip(root, &error));
  ASSERT_TRUE(back) << describe(error);
  ASSERT_EQ(back->children.size(), 2u);
  EXPECT_TRUE(back->object->isEqual(*SizeRecord::make(1, true)));
  ASSERT_EQ(back->children[0]->children.size(), 1u);
  EXPECT_TRUE(back->children[0]->children[0]->object->isEqual(*SizeRecord::make(3, true)));
  EXPECT_EQ(back->children[1]->object, nullptr);
}

ObjectPtr nestedArrays(int levels) {
  ObjectPtr inner = Array::make();
  for (int i = 1; i < levels; ++i) inner = Array::make({inner});
  return inner;
}

std::shared_ptr<NestingNode> nodeChain(int levels) {
  auto root = std::make_shared<NestingNode>();
  auto node = root;
  for (int i = 1; i < levels; ++i) {
    node->children.push_back(std::make_shared<NestingNode>());
    node = node->children.back();
  }
  return root;
}

TEST_F(ArchiveReader, NestingIsLimitedTo256LevelsCountingArchivesInArchives) {
  ErrorPtr error;
  EXPECT_TRUE(roundTrip(nestedArrays(kMaxArchiveDepth), &error)) << describe(error);
  EXPECT_FALSE(roundTrip(nestedArrays(kMaxArchiveDepth + 1), &error));
  ASSERT_TRUE(error);
  EXPECT_NE(describe(error).find("deeper than 256"), std::string::npos) << describe(error);

  // Each node level is one object, and its child array one more while the
  // child archive is decoded: 200 node levels stay inside, 300 do not.
  EXPECT_TRUE(roundTrip(nodeChain(200), &error)) << describe(error);
  EXPECT_FALSE(roundTrip(nodeChain(300), &error));
  EXPECT_NE(describe(error).find("deeper than 256"), std::string::npos) << describe(error);
  // The depth counter is back at zero afterwards.
  EXPECT_TRUE(roundTrip(nestedArrays(kMaxArchiveDepth), &error)) << describe(error);
}

// A nesting node whose child list names one child archive `times` times; the
// child archive carries `padding` bytes of unused objects.
std::vector<uint8_t> repeatedChild(std::size_t times, std::size_t padding) {
  HandArchive child;
  uint32_t node = child.add(0);
  uint32_t cls = child.addClass("QXTestNestingNode", {"QXTestNestingNode", "NSObject"});
  child.set(node, child.object({{"object", child.uid(0)}, {"$class", child.uid(cls)}}));
  child.add(child.str(std::string(padding, 'x')));
  std::vector<uint8_t> blob = child.bytes(node);

  HandArchive outer;
  uint32_t root = outer.add(0);
  uint32_t list = outer.add(0);
  uint32_t data = outer.add(outer.plist().addData(blob));
  uint32_t nodeClass = outer.addClass("QXTestNestingNode", {"QXTestNestingNode", "NSObject"});
  uint32_t arrayClass = outer.addClass("NSArray", {"NSArray", "NSObject"});
  std::vector<BinaryPlist::Ref> names(times, outer.uid(data));
  outer.set(list, outer.object({{"NS.objects", outer.plist().addArray(names)},
                                {"$class", outer.uid(arrayClass)}}));
  outer.set(root, outer.object({{"children", outer.uid(list)}, {"$class", outer.uid(nodeClass)}}));
  return outer.bytes(root);
}

TEST_F(ArchiveReader, NestedArchivesCannotMultiplyTheInput) {
  ErrorPtr error;
  auto few =
      cast<NestingNode>(KeyedUnarchiver::unarchiveObjectWithData(repeatedChild(50, 20000), &error));
  ASSERT_TRUE(few) << describe(error);
  EXPECT_EQ(few->children.size(), 50u);
  // 5000 decodes of a 20 kB archive named from a 30 kB one: refused, not
  // decoded 5000 times over.
  EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(repeatedChild(5000, 20000), &error));
  EXPECT_NE(describe(error).find("nested in each other"), std::string::npos) << describe(error);
  // The budget belongs to one outermost archive only.
  EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(repeatedChild(50, 20000), &error));
}

TEST_F(ArchiveReader, ExceptionsInCodingBecomeNilAndAnError) {
  ClassRegistry::registerClass(Throwing::classInfo(), &Throwing::initWithCoder);
  auto throwing = std::make_shared<Throwing>();
  throwing->throwOnEncode = true;
  EXPECT_EQ(KeyedArchiver::archivedDataWithRootObject(Array::make({throwing})), nullptr);

  throwing->throwOnEncode = false;
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(Array::make({throwing}));
  ASSERT_TRUE(data);
  ErrorPtr error;
  EXPECT_EQ(KeyedUnarchiver::unarchiveObjectWithData(*data, &error), nullptr);
  EXPECT_NE(describe(error).find("no memory"), std::string::npos) << describe(error);
  // The thread's nesting count is back at zero afterwards.
  EXPECT_TRUE(roundTrip(nestedArrays(kMaxArchiveDepth), &error)) << describe(error);
}

}  // namespace
}  // namespace qx::testing
