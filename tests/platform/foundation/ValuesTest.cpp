// Index paths, errors and the value classes.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/foundation/Foundation.h"

namespace qx {
namespace {

TEST(FoundationIndexPath, PositionsPastTheEndAreNotFound) {
  auto path = IndexPath::make({4, 5});
  EXPECT_EQ(path->indexAtPosition(1), 5u);
  EXPECT_EQ(path->indexAtPosition(2), 0x7fffffffffffffffULL);
  EXPECT_EQ(IndexPath::make({})->indexAtPosition(0), kNotFound);
  EXPECT_EQ(path->indexPathByAddingIndex(6)->indexes(), (std::vector<uint64_t>{4, 5, 6}));
  EXPECT_EQ(path->indexes(), (std::vector<uint64_t>{4, 5}));
  EXPECT_FALSE(path->isEqual(*IndexPath::make({4})));
  EXPECT_EQ(path->description(), "{length = 2, path = 4 - 5}");
}

TEST(FoundationError, DescriptionsFallBackToTheReasonThenTheDomain) {
  const std::string prefix = "The operation couldn\u2019t be completed. ";
  const std::pair<ErrorPtr, std::string> cases[] = {
      {Error::errorWithDomain(
           kCocoaErrorDomain, 4,
           Dictionary::withStringKeys({{"NSLocalizedDescription", str("Gone")}})),
       "Gone"},
      {Error::errorWithDomain(
           kCocoaErrorDomain, 4,
           Dictionary::withStringKeys({{"NSLocalizedFailureReason", str("It was removed.")}})),
       prefix + "It was removed."},
      {Error::errorWithDomain(kPOSIXErrorDomain, ENOENT), prefix + std::strerror(ENOENT)},
      {Error::errorWithDomain("QXOperation", 7), prefix + "(QXOperation error 7.)"},
      // A description that is not a string does not count.
      {Error::errorWithDomain(
           kCocoaErrorDomain, 1,
           Dictionary::withStringKeys({{"NSLocalizedDescription", Number::numberWithInteger(3)}})),
       prefix + "(NSCocoaErrorDomain error 1.)"},
  };
  for (const auto& [error, text] : cases) EXPECT_EQ(error->localizedDescription(), text);

  auto underlying = Error::errorWithDomain(kPOSIXErrorDomain, EACCES);
  auto error = Error::errorWithDomain(
      kCocoaErrorDomain, kFileWriteNoPermissionError,
      Dictionary::withStringKeys({{"NSLocalizedRecoverySuggestion", str("Try again.")},
                                  {"NSUnderlyingError", underlying}}));
  EXPECT_EQ(error->localizedRecoverySuggestion(), "Try again.");
  EXPECT_EQ(error->underlyingError(), underlying);
  EXPECT_NE(error->description().find("Code=513"), std::string::npos);
  auto bare = Error::errorWithDomain(kCocoaErrorDomain, 1);
  EXPECT_EQ(bare->localizedRecoverySuggestion(), std::nullopt);
  EXPECT_EQ(bare->underlyingError(), nullptr);
  ASSERT_TRUE(bare->userInfo());
  EXPECT_EQ(bare->userInfo()->count(), 0u);
}

TEST(FoundationValues, EqualityFollowsContents) {
  EXPECT_FALSE(str("a")->isEqual(*Data::make({'a'})));
  EXPECT_TRUE(Number::numberWithInteger(1)->isEqual(*Number::numberWithDouble(1.0)));
  EXPECT_TRUE(Number::numberWithBool(true)->isEqual(*Number::numberWithInteger(1)));
  EXPECT_EQ(Number::numberWithDouble(1e300)->integerValue(), 0);  // out of range: clamped
  EXPECT_EQ(Number::numberWithDouble(-2.7)->integerValue(), -2);
  EXPECT_EQ(Data::make({0xde, 0xad, 0xbe, 0xef, 1})->description(), "<deadbeef 01>");
  auto uuid = Uuid::withString("ffffeeee-dddd-cccc-bbbb-aaaa000001f5");
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->UUIDString(), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5");
  EXPECT_EQ(Uuid::withString("not a uuid"), nullptr);
  EXPECT_FALSE(Uuid::make()->isEqual(*Uuid::make()));
  auto dict = MutableDictionary::make();
  dict->setObject(str("1"), "a");
  dict->setObject(str("2"), "a");
  EXPECT_TRUE(dict->isEqual(*Dictionary::withStringKeys({{"a", str("2")}})));
  dict->removeObjectForKey("a");
  EXPECT_EQ(dict->count(), 0u);
  EXPECT_TRUE(Array::make({str("x"), nullptr})->isEqual(*Array::make({str("x"), nullptr})));
}

// Up to two pairs live in the dictionary itself, more in a vector: growing
// past two, shrinking back and copying must keep every pair and the order.
TEST(FoundationValues, DictionaryKeepsPairsInOrderAcrossItsStorage) {
  auto keysOf = [](const Dictionary& dict) {
    std::string keys;
    for (const auto& [key, value] : dict.entries())
      keys += key->description() + value->description();
    return keys;
  };
  auto dict = MutableDictionary::make();
  for (const char* key : {"a", "b", "c", "d"}) dict->setObject(str(std::string(key) + "1"), key);
  EXPECT_EQ(keysOf(*dict), "aa1bb1cc1dd1");
  auto copy = dict->copy();
  dict->removeObjectForKey("b");
  dict->removeObjectForKey("d");
  EXPECT_EQ(keysOf(*dict), "aa1cc1");
  dict->setObject(str("e1"), "e");
  dict->removeObjectForKey("a");
  EXPECT_EQ(keysOf(*dict), "cc1ee1");
  EXPECT_EQ(keysOf(*copy), "aa1bb1cc1dd1");
  DictionaryEntries pairs = copy->entries();
  DictionaryEntries moved = std::move(pairs);
  EXPECT_EQ(pairs.size(), 0u);
  EXPECT_EQ(Dictionary::make(std::move(moved))->objectForKey("d")->description(), "d1");
}

}  // namespace
}  // namespace qx
