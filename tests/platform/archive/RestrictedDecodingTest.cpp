// Restricted decoding of one object named from several places: each reference
// is checked against its own set. (Which classes one set lets through, where a
// nested set takes over and that the archive's class chains are never trusted:
// rows of data/archives.jsonl.)
#include <gtest/gtest.h>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

class ArchiveRestricted : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }

  // `refusal` is "" for a decode, else "<key> <class>" that the error names.
  static void expectOutcome(const ObjectPtr& decoded, const ErrorPtr& error,
                            const std::string& refusal, std::size_t row) {
    if (refusal.empty()) {
      EXPECT_TRUE(decoded) << "row " << row << ": " << describe(error);
      return;
    }
    EXPECT_FALSE(decoded) << "row " << row;
    ASSERT_TRUE(error) << "row " << row;
    EXPECT_EQ(error->domain(), kCocoaErrorDomain);
    EXPECT_EQ(error->code(), kCoderReadCorruptError);
    std::size_t space = refusal.find(' ');
    std::string text = describe(error);
    EXPECT_NE(text.find("\"" + refusal.substr(0, space) + "\""), std::string::npos) << text;
    EXPECT_NE(text.find(refusal.substr(space + 1)), std::string::npos) << text;
  }
};

// One instance named by both entries of the root array, the entries decoded
// one by one with sets of their own, in the order given.
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

TEST_F(ArchiveRestricted, ASharedObjectIsCheckedAgainstTheSetOfEachReference) {
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
    const Case& c = cases[i];
    ErrorPtr error;
    ObjectPtr decoded = decodeEntries(c.shared, c.references, &error);
    expectOutcome(decoded, error, c.refusal, i);
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
