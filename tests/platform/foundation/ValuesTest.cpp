// Index paths, errors, the value classes and tree nodes.
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
  ASSERT_TRUE(bare->userInfo());
  EXPECT_EQ(std::tuple(bare->localizedRecoverySuggestion(), bare->underlyingError(),
                       bare->userInfo()->count()),
            std::tuple(std::nullopt, nullptr, 0u));
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

// Tree nodes: weak parent links, index paths and moving children.

TreeNodePtr node(const std::string& name) {
  return TreeNode::treeNodeWithRepresentedObject(str(name));
}

std::vector<uint64_t> pathOf(const TreeNodePtr& n) {
  return n->indexPath()->indexes();
}

TEST(FoundationTreeNode, ChildrenKeepTheirParentAndIndexPathThroughEveryChange) {
  auto root = node("root"), a = node("a"), b = node("b"), c = node("c"), b1 = node("b1");
  root->mutableChildNodes().addObject(a);
  root->mutableChildNodes().addObject(c);
  root->mutableChildNodes().insertObject(b, 1);
  b->mutableChildNodes().addObject(b1);
  EXPECT_EQ(b1->parentNode(), b);
  EXPECT_EQ(root->parentNode(), nullptr);
  EXPECT_EQ(pathOf(root), std::vector<uint64_t>{});
  EXPECT_EQ(pathOf(b1), (std::vector<uint64_t>{1, 0}));
  EXPECT_EQ(pathOf(c), std::vector<uint64_t>{2});
  EXPECT_TRUE(b1->isLeaf());
  EXPECT_FALSE(root->isLeaf());

  root->mutableChildNodes().removeObjectAtIndex(0);
  EXPECT_EQ(a->parentNode(), nullptr);
  EXPECT_EQ(pathOf(c), std::vector<uint64_t>{1});
  // Moving to another parent leaves the first; moving within one keeps one copy.
  a->mutableChildNodes().addObject(c);
  EXPECT_EQ(c->parentNode(), a);
  ASSERT_EQ(root->childNodes().size(), 1u);
  a->mutableChildNodes().addObject(b);
  a->mutableChildNodes().insertObject(b, 0);
  ASSERT_EQ(a->childNodes().size(), 2u);
  EXPECT_EQ(a->childNodes()[0], b);
  EXPECT_EQ(pathOf(c), std::vector<uint64_t>{1});
  EXPECT_TRUE(root->childNodes().empty());
  a->mutableChildNodes().removeAllObjects();
  EXPECT_EQ(b->parentNode(), nullptr);
  // A child outlives its parent without a link.
  {
    auto parent = node("parent");
    parent->mutableChildNodes().addObject(b);
  }
  EXPECT_EQ(b->parentNode(), nullptr);
  EXPECT_EQ(pathOf(b1), std::vector<uint64_t>{0});
}

TEST(FoundationTreeNode, RefusesBadIndexesNilAndNodesThatWouldBeTheirOwnAncestor) {
  auto root = node("root"), child = node("child");
  root->mutableChildNodes().addObject(child);
  EXPECT_THROW(root->mutableChildNodes().insertObject(node("x"), 2), std::out_of_range);
  EXPECT_THROW(root->mutableChildNodes().addObject(nullptr), std::invalid_argument);
  EXPECT_THROW(child->mutableChildNodes().addObject(root), std::invalid_argument);
  EXPECT_THROW(root->mutableChildNodes().addObject(root), std::invalid_argument);
  EXPECT_EQ(child->parentNode(), root);
  EXPECT_EQ(root->parentNode(), nullptr);
  EXPECT_EQ(root->childNodes().size(), 1u);
}

}  // namespace
}  // namespace qx
