// Tree nodes: weak parent links, index paths and moving children.
#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace qx {
namespace {

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
