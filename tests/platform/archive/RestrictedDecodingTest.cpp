// Restricted decoding: which classes a set lets through, where a nested set
// takes over, and that the archive's own class list is never trusted.
#include <gtest/gtest.h>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

class ArchiveRestricted : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }

  static ObjectPtr decode(const ObjectPtr& root, const ClassSet& classes, ErrorPtr* error) {
    DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
    return KeyedUnarchiver::unarchivedObjectOfClasses(classes, *data, error);
  }

  static void expectRefusal(const ErrorPtr& error, std::string_view key, std::string_view cls) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kCocoaErrorDomain);
    EXPECT_EQ(error->code(), kCoderReadCorruptError);
    std::string text = describe(error);
    EXPECT_NE(text.find("\"" + std::string(key) + "\""), std::string::npos) << text;
    EXPECT_NE(text.find(cls), std::string::npos) << text;
  }
};

TEST_F(ArchiveRestricted, SubclassPassesWhereItsSuperclassIsAllowedNotTheReverse) {
  auto mutableArray = MutableArray::make();
  mutableArray->addObject(str("x"));
  ErrorPtr error;
  EXPECT_TRUE(decode(mutableArray, {&Array::classInfo(), &String::classInfo()}, &error))
      << describe(error);
  EXPECT_FALSE(
      decode(Array::make({str("x")}), {&MutableArray::classInfo(), &String::classInfo()}, &error));
  expectRefusal(error, "root", "NSArray");
}

TEST_F(ArchiveRestricted, PlainValuesAreCheckedAsStringNumberAndData) {
  ErrorPtr error;
  auto numbers = Array::make({str("a"), Number::numberWithInteger(3)});
  EXPECT_FALSE(decode(numbers, {&Array::classInfo(), &String::classInfo()}, &error));
  expectRefusal(error, "NS.objects", "NSNumber");
  EXPECT_TRUE(
      decode(numbers, {&Array::classInfo(), &String::classInfo(), &Number::classInfo()}, &error));

  EXPECT_FALSE(decode(Data::make({1}), {&String::classInfo()}, &error));
  expectRefusal(error, "root", "NSData");
  EXPECT_FALSE(decode(str("s"), {&Data::classInfo()}, &error));
  expectRefusal(error, "root", "NSString");
  EXPECT_TRUE(decode(str("s"), {&Object::classInfo()}, &error));
  // Dictionary keys are checked like values.
  auto dict = Dictionary::withStringKeys({{"k", Number::numberWithInteger(1)}});
  EXPECT_FALSE(decode(dict, {&Dictionary::classInfo(), &Number::classInfo()}, &error));
  expectRefusal(error, "NS.keys", "NSString");
}

TEST_F(ArchiveRestricted, NestedSetTakesOverForItsKey) {
  // The root set has no size record, but the node names its own set for
  // "object"; a string there is refused even though the root set allows it.
  ClassSet rootSet{&NestingNode::classInfo(), &String::classInfo()};
  ErrorPtr error;
  auto node = std::make_shared<NestingNode>(SizeRecord::make(4, true));
  EXPECT_TRUE(decode(node, rootSet, &error)) << describe(error);
  EXPECT_FALSE(decode(std::make_shared<NestingNode>(str("not a record")), rootSet, &error));
  expectRefusal(error, "object", "NSString");
  // A subclass of the record passes its superclass's set.
  EXPECT_TRUE(
      decode(std::make_shared<NestingNode>(std::make_shared<SubRecord>(1, false)), rootSet, &error))
      << describe(error);
}

TEST_F(ArchiveRestricted, ChildArchivesDecodedInsideAreUnrestricted) {
  // A node whose record is a string is refused at the top, yet the same
  // node inside a child's archive decodes: the child archive is unarchived
  // with the unrestricted call.
  auto root = std::make_shared<NestingNode>(SizeRecord::make(1, true));
  root->children.push_back(std::make_shared<NestingNode>(str("a string")));
  ErrorPtr error;
  auto back = cast<NestingNode>(decode(root, {&NestingNode::classInfo()}, &error));
  ASSERT_TRUE(back) << describe(error);
  ASSERT_EQ(back->children.size(), 1u);
  EXPECT_TRUE(back->children[0]->object->isEqual(*str("a string")));
}

TEST_F(ArchiveRestricted, PlainNestedDecodesInheritTheSetInForce) {
  auto everything = std::make_shared<Everything>();
  everything->object = Array::make({SizeRecord::make(1, true)});
  everything->list = {str("x")};
  ErrorPtr error;
  ClassSet withRecords{&Everything::classInfo(), &Array::classInfo(), &String::classInfo(),
                       &SizeRecord::classInfo()};
  EXPECT_TRUE(decode(everything, withRecords, &error)) << describe(error);
  ClassSet withoutRecords{&Everything::classInfo(), &Array::classInfo(), &String::classInfo()};
  EXPECT_FALSE(decode(everything, withoutRecords, &error));
  expectRefusal(error, "NS.objects", "QXFileSizeItem");
}

TEST_F(ArchiveRestricted, TheArchivesOwnClassListIsNeverTrusted) {
  ErrorPtr error;
  // A subclass record that claims to be an NSArray in $classes.
  HandArchive lying;
  uint32_t cls = lying.addClass("QXTestSubRecord", {"QXTestSubRecord", "NSArray", "NSObject"});
  lying.add(lying.object({{"size", lying.integer(1)}, {"$class", lying.uid(cls)}}));
  EXPECT_FALSE(
      KeyedUnarchiver::unarchivedObjectOfClasses({&Array::classInfo()}, lying.bytes(2), &error));
  expectRefusal(error, "root", "QXTestSubRecord");

  // An array whose $classes claims a record superclass does not pass a
  // record-only set either.
  HandArchive claims;
  uint32_t arrayClass = claims.addClass("NSArray", {"NSArray", "QXFileSizeItem", "NSObject"});
  claims.add(claims.object({{"NS.objects", claims.uids({})}, {"$class", claims.uid(arrayClass)}}));
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses({&SizeRecord::classInfo()},
                                                          claims.bytes(2), &error));
  expectRefusal(error, "root", "NSArray");
}

TEST_F(ArchiveRestricted, TheSetIsCheckedOnEveryReferenceNotOncePerObject) {
  // The record is decoded first as an array element (allowed); the URL then
  // names the same record under NS.relative, where only strings are allowed.
  HandArchive archive;
  uint32_t root = archive.add(0);
  uint32_t record = archive.add(0);
  uint32_t url = archive.add(0);
  uint32_t arrayClass = archive.addClass("NSArray", {"NSArray", "NSObject"});
  uint32_t recordClass = archive.addClass("QXFileSizeItem", {"QXFileSizeItem", "NSObject"});
  uint32_t urlClass = archive.addClass("NSURL", {"NSURL", "NSObject"});
  archive.set(root, archive.object({{"NS.objects", archive.uids({record, url})},
                                    {"$class", archive.uid(arrayClass)}}));
  archive.set(record,
              archive.object({{"size", archive.integer(3)}, {"$class", archive.uid(recordClass)}}));
  archive.set(url, archive.object({{"NS.base", archive.uid(0)},
                                   {"NS.relative", archive.uid(record)},
                                   {"$class", archive.uid(urlClass)}}));
  ErrorPtr error;
  ClassSet set{&Array::classInfo(), &SizeRecord::classInfo(), &Url::classInfo(),
               &String::classInfo()};
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(set, archive.bytes(root), &error));
  expectRefusal(error, "NS.relative", "QXFileSizeItem");
}

// One collection instance named by two entries of the root array, the entries
// decoded one by one with sets of their own, in the order given.
struct SharedReference {
  std::size_t index;
  ClassSet set;
};

ObjectPtr decodeEntries(const ObjectPtr& shared, std::vector<SharedReference> references,
                        ErrorPtr* error, std::vector<ObjectPtr>* decoded = nullptr) {
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(Array::make({shared, shared}));
  return KeyedUnarchiver::unarchiveRootWith(
      data->span(), {&Array::classInfo()},
      [&](KeyedUnarchiver& coder) -> ObjectPtr {
        for (const SharedReference& reference : references) {
          ObjectPtr object = coder.decodeObjectOfClassesAtIndexForKey(reference.set, "NS.objects",
                                                                      reference.index);
          if (!object) return nullptr;
          if (decoded) decoded->push_back(object);
        }
        return Array::make({});
      },
      error);
}

TEST_F(ArchiveRestricted, ASharedCollectionIsCheckedAgainstTheSetOfEachReference) {
  auto urls = Array::make({Url::fileURLWithPath("/tmp/a"), Url::fileURLWithPath("/tmp/b")});
  ClassSet urlSet{&Array::classInfo(), &Url::classInfo()};
  ClassSet stringSet{&Array::classInfo(), &String::classInfo()};
  ErrorPtr error;
  // Allowed first, refused second: the object decoded for the first entry
  // is not handed out again under the second entry's set.
  EXPECT_FALSE(decodeEntries(urls, {{0, urlSet}, {1, stringSet}}, &error));
  expectRefusal(error, "NS.objects", "NSURL");
  // The reverse order of the two entries.
  EXPECT_FALSE(decodeEntries(urls, {{1, urlSet}, {0, stringSet}}, &error));
  expectRefusal(error, "NS.objects", "NSURL");
  // Refused first: refused at its first decode already.
  EXPECT_FALSE(decodeEntries(urls, {{0, stringSet}, {1, urlSet}}, &error));
  expectRefusal(error, "NS.objects", "NSURL");
  // Both sets allow it: one instance, shared.
  std::vector<ObjectPtr> decoded;
  ClassSet wide{&Array::classInfo(), &Url::classInfo(), &String::classInfo()};
  EXPECT_TRUE(decodeEntries(urls, {{0, urlSet}, {1, wide}}, &error, &decoded)) << describe(error);
  ASSERT_EQ(decoded.size(), 2u);
  EXPECT_EQ(decoded[0], decoded[1]);
  // The collection's own class is checked too.
  EXPECT_FALSE(decodeEntries(urls, {{0, urlSet}, {1, {&Url::classInfo()}}}, &error));
  expectRefusal(error, "NS.objects", "NSArray");
}

TEST_F(ArchiveRestricted, ASharedCollectionIsCheckedThroughItsNestedCollections) {
  // A dictionary of string keys whose value is an array of arrays of numbers,
  // shared by both entries; the second set misses what is nested deepest,
  // then the keys' class.
  auto numbers = Array::make({Number::numberWithInteger(1)});
  auto shared = Dictionary::withStringKeys(
      {{"lists", MutableArray::make()}, {"nested", Array::make({numbers, numbers})}});
  ClassSet full{&Dictionary::classInfo(), &Array::classInfo(), &String::classInfo(),
                &Number::classInfo()};
  ClassSet noNumbers{&Dictionary::classInfo(), &Array::classInfo(), &String::classInfo()};
  ClassSet noStrings{&Dictionary::classInfo(), &Array::classInfo(), &Number::classInfo()};
  ErrorPtr error;
  EXPECT_TRUE(decodeEntries(shared, {{0, full}, {1, full}}, &error)) << describe(error);
  EXPECT_FALSE(decodeEntries(shared, {{0, full}, {1, noNumbers}}, &error));
  expectRefusal(error, "NS.objects", "NSNumber");
  EXPECT_FALSE(decodeEntries(shared, {{1, full}, {0, noStrings}}, &error));
  expectRefusal(error, "NS.keys", "NSString");
}

TEST_F(ArchiveRestricted, ARecordSharedByTwoReferencesHasOnlyItsClassChecked) {
  // The record named its own set for what it holds: a second reference whose
  // set allows the record but not its contents still decodes.
  auto node = std::make_shared<NestingNode>(SizeRecord::make(2, true));
  ClassSet withRecord{&NestingNode::classInfo(), &SizeRecord::classInfo()};
  ClassSet nodeOnly{&NestingNode::classInfo()};
  ErrorPtr error;
  EXPECT_TRUE(decodeEntries(node, {{0, withRecord}, {1, nodeOnly}}, &error)) << describe(error);
  EXPECT_FALSE(decodeEntries(node, {{0, withRecord}, {1, {&String::classInfo()}}}, &error));
  expectRefusal(error, "NS.objects", "QXTestNestingNode");
}

TEST_F(ArchiveRestricted, FoundationClassesDecodeUnderTheirUsualSets) {
  auto info = Dictionary::withStringKeys(
      {{"NSURL", Url::fileURLWithPath("/tmp/x")},
       {"NSUnderlyingError", Error::errorWithDomain(kPOSIXErrorDomain, 13)},
       {"NSLocalizedDescription", str("denied")}});
  auto root = Array::make({Error::errorWithDomain(kCocoaErrorDomain, 257, info), Uuid::make(),
                           IndexPath::make({1, 2, 3}), IndexPath::make({9})});
  ErrorPtr error;
  auto back = decode(
      root, {&Array::classInfo(), &Error::classInfo(), &Uuid::classInfo(), &IndexPath::classInfo()},
      &error);
  ASSERT_TRUE(back) << describe(error);
  EXPECT_TRUE(back->isEqual(*root));
}

}  // namespace
}  // namespace qx::testing
