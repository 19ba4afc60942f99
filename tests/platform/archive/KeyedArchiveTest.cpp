// The keyed-archive layout the archiver writes, and what the unarchiver makes of it: identities,
// shared classes, escaped keys, plain values, nesting, restricted decoding.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

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

class KeyedArchive : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }
};

TEST_F(KeyedArchive, ObjectsGetTheirSlotFirstAndOneUidPerInstanceAndClass) {
  auto shared = str("shared");
  auto first = SizeRecord::make(1, false);
  auto root = MutableArray::make();
  for (const ObjectPtr& element : std::vector<ObjectPtr>{
           shared, first, shared, first, str("shared"), SizeRecord::make(2, true)}) {
    root->addObject(element);
  }
  json objects = {
      "$null",
      {{"NS.objects", {uid(2), uid(3), uid(2), uid(3), uid(5), uid(6)}}, {"$class", uid(7)}},
      "shared",
      {{"size", 1}, {"busy", false}, {"$class", uid(4)}},
      classDict("QXFileSizeItem", {"QXFileSizeItem", "NSObject"}),
      "shared",  // an equal but distinct instance
      {{"size", 2}, {"busy", true}, {"$class", uid(4)}},
      classDict("NSMutableArray", {"NSMutableArray", "NSArray", "NSObject"})};
  EXPECT_EQ(readJson(archived(root)), keyedArchive(objects));

  auto back = cast<MutableArray>(roundTrip(root));
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->isEqual(*root));
  EXPECT_EQ(back->objectAtIndex(0), back->objectAtIndex(2));
  EXPECT_EQ(back->objectAtIndex(1), back->objectAtIndex(3));

  // Index paths longer than what one, or the decoder, holds in place.
  for (std::size_t length : {5, 17}) {
    std::vector<uint64_t> indexes(length);
    for (std::size_t i = 0; i < length; ++i) indexes[i] = i * 1000;
    auto path = IndexPath::make(indexes);
    EXPECT_TRUE(isEqual(roundTrip(path), path)) << length;
  }

  EXPECT_EQ(readJson(archived(nullptr)), keyedArchive(json::array({"$null"}), uid(0)));
  ErrorPtr error;
  EXPECT_EQ(roundTrip(nullptr, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_F(KeyedArchive, ValuesStandInlinePlainObjectsHaveNoClassAndDollarKeysGetAnotherDollar) {
  auto everything = std::make_shared<Everything>();
  everything->small = std::numeric_limits<int32_t>::min();
  everything->large = std::numeric_limits<int64_t>::min();
  everything->flag = true;
  everything->real = -1e300;
  everything->bytes = {1, 2, 3};
  everything->list = {str("text"),
                      Number::numberWithBool(true),
                      Number::numberWithInteger(-3),
                      Number::numberWithDouble(0.5),
                      Data::make({0xde, 0xad}),
                      nullptr};
  everything->dollar = 9;
  json objects = readJson(archived(everything))["$objects"];
  json list = json::array();
  for (int i : {2, 3, 4, 5, 6, 0}) list.push_back(uid(i));
  EXPECT_EQ(objects[1], json({{"small", std::numeric_limits<int32_t>::min()},
                              {"large", std::numeric_limits<int64_t>::min()},
                              {"flag", true},
                              {"real", {{"real", -1e300}}},
                              {"bytes", {{"data", "010203"}}},
                              {"object", uid(0)},
                              {"list", list},
                              {"$$dollar", 9},
                              {"$class", uid(7)}}));
  EXPECT_EQ(json(std::vector(objects.begin() + 2, objects.begin() + 7)),
            json::array({"text", true, -3, {{"real", 0.5}}, {{"data", "dead"}}}));

  auto back = cast<Everything>(roundTrip(everything));
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->isEqual(*everything));
  std::vector<Number::Kind> kinds;
  for (int i : {1, 2, 3}) kinds.push_back(cast<Number>(back->list[i])->kind());
  EXPECT_EQ(kinds, (std::vector{Number::Kind::Bool, Number::Kind::Integer, Number::Kind::Real}));
}

TEST_F(KeyedArchive, NullTargetsAndMissingKeysDecodeAsNilAndDefaultsAndHintsAreIgnored) {
  json archive = keyedArchive(json::array(
      {"$null",
       {{"NS.objects", {uid(0), uid(2), uid(3), uid(5)}}, {"$class", uid(4)}},
       "$null",
       {{"size", 12}, {"busy", true}, {"$class", uid(6)}},
       {{"$classname", "NSArray"}},  // no $classes
       {{"$class", uid(7)}},
       {{"$classname", "QXFileSizeItem"}, {"$classes", {"Bogus"}}, {"$classhints", {"NSArray"}}},
       classDict("QXTestEverything", {"QXTestEverything", "NSObject"})}));
  ErrorPtr error;
  auto back = cast<Array>(KeyedUnarchiver::unarchiveObjectWithData(writeJson(archive), &error));
  ASSERT_TRUE(back) << describe(error);
  EXPECT_TRUE(back->isEqual(*Array::make(
      {nullptr, nullptr, SizeRecord::make(12, true), std::make_shared<Everything>()})));
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

TEST_F(KeyedArchive, ArchivesNestInArchivesUpTo256LevelsAllTold) {
  ErrorPtr error;
  EXPECT_TRUE(roundTrip(nestedArrays(kMaxArchiveDepth), &error)) << describe(error);
  EXPECT_FALSE(roundTrip(nestedArrays(kMaxArchiveDepth + 1), &error));
  EXPECT_THAT(describe(error), HasSubstr("deeper than 256"));
  // A chain of archives inside archives counts toward the same limit.
  EXPECT_TRUE(roundTrip(nodeChain(200), &error)) << describe(error);
  EXPECT_FALSE(roundTrip(nodeChain(300), &error));
  EXPECT_THAT(describe(error), HasSubstr("deeper than 256"));
  // The depth counter is back at zero afterwards.
  EXPECT_TRUE(roundTrip(nestedArrays(kMaxArchiveDepth), &error)) << describe(error);
}

// A nesting node whose child list names one child archive `times` times; the child archive carries
// `padding` bytes of unused objects.
std::vector<uint8_t> repeatedChild(std::size_t times, std::size_t padding) {
  json nodeClass = classDict("QXTestNestingNode", {"QXTestNestingNode", "NSObject"});
  std::vector<uint8_t> child = writeJson(keyedArchive(json::array(
      {"$null", {{"object", uid(0)}, {"$class", uid(2)}}, nodeClass, std::string(padding, 'x')})));
  return writeJson(keyedArchive(
      json::array({"$null",
                   {{"children", uid(2)}, {"$class", uid(4)}},
                   {{"NS.objects", std::vector<json>(times, uid(3))}, {"$class", uid(5)}},
                   {{"data", hex(child)}},
                   nodeClass,
                   classDict("NSArray", {"NSArray", "NSObject"})})));
}

TEST_F(KeyedArchive, NestedArchivesCannotMultiplyTheInput) {
  ErrorPtr error;
  auto few =
      cast<NestingNode>(KeyedUnarchiver::unarchiveObjectWithData(repeatedChild(50, 20000), &error));
  ASSERT_TRUE(few) << describe(error);
  EXPECT_EQ(few->children.size(), 50u);
  // 5000 decodes of a 20 kB archive named from a 30 kB one: refused, not decoded 5000 times over.
  EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(repeatedChild(5000, 20000), &error));
  EXPECT_THAT(describe(error), HasSubstr("nested in each other"));
  // The budget belongs to one outermost archive only.
  EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(repeatedChild(50, 20000), &error));
}

TEST_F(KeyedArchive, ExceptionsInCodingBecomeNilAndAnError) {
  ClassRegistry::registerClass(Throwing::classInfo(), &Throwing::initWithCoder);
  auto throwing = std::make_shared<Throwing>();
  throwing->throwOnEncode = true;
  EXPECT_EQ(KeyedArchiver::archivedDataWithRootObject(Array::make({throwing})), nullptr);
  throwing->throwOnEncode = false;
  ErrorPtr error;
  EXPECT_EQ(roundTrip(Array::make({throwing}), &error), nullptr);
  EXPECT_THAT(describe(error), HasSubstr("no memory"));
  // The thread's nesting count is back at zero afterwards.
  EXPECT_TRUE(roundTrip(nestedArrays(kMaxArchiveDepth), &error)) << describe(error);
}

// The objects of one message share memory: each must stay whole while any other of them is alive,
// whichever thread lets the others go (ASan and TSan builds catch an early or racing release).
TEST_F(KeyedArchive, DecodedObjectsOutliveTheDecodingAndEachOtherOnAnyThread) {
  auto records = MutableArray::make();
  for (int i = 0; i < 300; ++i) {
    records->addObject(
        Dictionary::withStringKeys({{"path", IndexPath::make({1, static_cast<uint64_t>(i)})},
                                    {"name", str("n" + std::to_string(i))}}));
  }
  auto decoded = cast<Array>(roundTrip(records));
  ASSERT_NE(decoded, nullptr);
  auto kept = decoded->objectAs<Dictionary>(123);
  auto other = decoded->objectAs<Dictionary>(7);
  ASSERT_NE(kept, nullptr);
  std::thread([moved = std::move(decoded)]() mutable { moved.reset(); }).join();
  std::thread([moved = std::move(other)]() mutable { moved.reset(); }).join();
  EXPECT_TRUE(kept->objectForKeyAs<IndexPath>("path")->isEqual(*IndexPath::make({1, 123})));
  EXPECT_EQ(kept->objectForKeyAs<String>("name")->str(), "n123");
}

// Restricted decoding of one object named from several places: each reference is checked against
// its own set. (Which classes one set lets through, where a nested set takes over and that the
// archive's class chains are never trusted: rows of data/archives.jsonl.) One instance named by
// both entries of the root array, the entries decoded one by one with sets of their own, in the
// order given.
struct Reference {
  std::size_t index;
  ClassSet set;
};

ObjectPtr decodeEntries(const ObjectPtr& shared, const std::vector<Reference>& references,
                        ErrorPtr* error, std::vector<ObjectPtr>* decoded = nullptr) {
  return KeyedUnarchiver::unarchiveRootWith(
      archived(Array::make({shared, shared})), {&Array::classInfo()},
      [&](KeyedUnarchiver& coder) -> ObjectPtr {
        for (const Reference& reference : references) {
          ObjectPtr object = coder.decodeObjectOfClassesAtIndexForKey(reference.set, "NS.objects",
                                                                      reference.index);
          if (!object) return nullptr;
          if (decoded) decoded->push_back(object);
        }
        return Array::make({});
      },
      error);
}

TEST_F(KeyedArchive, ASharedObjectIsCheckedAgainstTheSetOfEachReference) {
  const ClassInfo &array = Array::classInfo(), &url = Url::classInfo(),
                  &string = String::classInfo(), &number = Number::classInfo(),
                  &dictionary = Dictionary::classInfo(), &node = NestingNode::classInfo();
  auto urls = Array::make({Url::fileURLWithPath("/tmp/a"), Url::fileURLWithPath("/tmp/b")});
  // A dictionary of string keys holding an array of arrays of numbers.
  auto numbers = Array::make({Number::numberWithInteger(1)});
  auto nested = Dictionary::withStringKeys(
      {{"lists", MutableArray::make()}, {"nested", Array::make({numbers, numbers})}});
  const ClassSet all{&dictionary, &array, &string, &number};
  // A record named its own set for what it holds: only its class is checked.
  auto holder = std::make_shared<NestingNode>(SizeRecord::make(2, true));
  const ClassSet holderSet{&node, &SizeRecord::classInfo()};
  struct Case {
    ObjectPtr shared;
    std::vector<Reference> references;
    std::string refusal;
  };
  const Case cases[] = {
      {urls, {{0, {&array, &url}}, {1, {&array, &string}}}, "NS.objects NSURL"},
      {urls, {{1, {&array, &url}}, {0, {&array, &string}}}, "NS.objects NSURL"},
      {urls, {{0, {&array, &string}}, {1, {&array, &url}}}, "NS.objects NSURL"},
      {urls, {{0, {&array, &url}}, {1, {&url}}}, "NS.objects NSArray"},
      {nested, {{0, all}, {1, {&dictionary, &array, &string}}}, "NS.objects NSNumber"},
      {nested, {{1, all}, {0, {&dictionary, &array, &number}}}, "NS.keys NSString"},
      {nested, {{0, all}, {1, all}}, ""},
      {holder, {{0, holderSet}, {1, {&node}}}, ""},
      {holder, {{0, holderSet}, {1, {&string}}}, "NS.objects QXTestNestingNode"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    const std::string& refusal = cases[i].refusal;
    ErrorPtr error;
    const bool decoded = decodeEntries(cases[i].shared, cases[i].references, &error) != nullptr;
    EXPECT_EQ(decoded, refusal.empty()) << describe(error);
    if (decoded || !error) continue;
    EXPECT_EQ(std::pair(error->domain(), error->code()),
              std::pair(std::string(kCocoaErrorDomain), kCoderReadCorruptError));
    EXPECT_THAT(describe(error),
                AllOf(HasSubstr("\"" + refusal.substr(0, refusal.find(' ')) + "\""),
                      HasSubstr(refusal.substr(refusal.find(' ') + 1))));
  }
  // Where both sets allow it, both entries are one instance.
  std::vector<ObjectPtr> decoded;
  ErrorPtr error;
  EXPECT_TRUE(
      decodeEntries(urls, {{0, {&array, &url}}, {1, {&array, &url, &string}}}, &error, &decoded))
      << describe(error);
  ASSERT_EQ(decoded.size(), 2u);
  EXPECT_EQ(decoded[0], decoded[1]);
}

}  // namespace
}  // namespace qx::testing
