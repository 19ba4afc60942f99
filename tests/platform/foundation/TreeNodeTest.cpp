// Tree nodes: parent links, index paths and moving children.
#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace qx {
namespace {

TreeNodePtr node(const std::string& name) {
  return TreeNode::treeNodeWithRepresentedObject(str(name));
}

std::string nameOf(const TreeNodePtr& n) {
  return n->representedObjectAs<String>()->str();
}

TEST(FoundationTreeNode, AppendingSetsParentAndIndexPath) {
  auto root = node("root");
  auto a = node("a");
  auto b = node("b");
  auto b1 = node("b1");
  root->mutableChildNodes().addObject(a);
  root->mutableChildNodes().addObject(b);
  b->mutableChildNodes().addObject(b1);
  EXPECT_EQ(a->parentNode(), root);
  EXPECT_EQ(b1->parentNode(), b);
  EXPECT_EQ(root->parentNode(), nullptr);
  EXPECT_EQ(root->indexPath()->length(), 0u);
  EXPECT_EQ(b1->indexPath()->indexes(), (std::vector<uint64_t>{1, 0}));
  EXPECT_FALSE(root->isLeaf());
  EXPECT_TRUE(b1->isLeaf());
}

TEST(FoundationTreeNode, InsertingAndRemovingRenumbersSiblings) {
  auto root = node("root");
  auto a = node("a");
  auto c = node("c");
  root->mutableChildNodes().addObject(a);
  root->mutableChildNodes().addObject(c);
  auto b = node("b");
  root->mutableChildNodes().insertObject(b, 1);
  EXPECT_EQ(c->indexPath()->indexes(), (std::vector<uint64_t>{2}));
  root->mutableChildNodes().removeObjectAtIndex(0);
  EXPECT_EQ(a->parentNode(), nullptr);
  EXPECT_EQ(b->indexPath()->indexes(), (std::vector<uint64_t>{0}));
  EXPECT_EQ(c->indexPath()->indexes(), (std::vector<uint64_t>{1}));
  EXPECT_THROW(root->mutableChildNodes().insertObject(node("x"), 5), std::out_of_range);
  EXPECT_THROW(root->mutableChildNodes().addObject(nullptr), std::invalid_argument);
  root->mutableChildNodes().removeAllObjects();
  EXPECT_EQ(b->parentNode(), nullptr);
  EXPECT_EQ(root->childNodes().size(), 0u);
}

TEST(FoundationTreeNode, MovingAChildBetweenParents) {
  auto first = node("first");
  auto second = node("second");
  auto x = node("x");
  auto y = node("y");
  first->mutableChildNodes().addObject(x);
  first->mutableChildNodes().addObject(y);
  second->mutableChildNodes().addObject(x);
  EXPECT_EQ(x->parentNode(), second);
  ASSERT_EQ(first->childNodes().size(), 1u);
  EXPECT_EQ(nameOf(first->childNodes()[0]), "y");
  EXPECT_EQ(y->indexPath()->indexes(), (std::vector<uint64_t>{0}));
  EXPECT_EQ(x->indexPath()->indexes(), (std::vector<uint64_t>{0}));
  // Moving within the same parent keeps one copy.
  second->mutableChildNodes().addObject(y);
  second->mutableChildNodes().insertObject(y, 0);
  ASSERT_EQ(second->childNodes().size(), 2u);
  EXPECT_EQ(nameOf(second->childNodes()[0]), "y");
  EXPECT_EQ(x->indexPath()->indexes(), (std::vector<uint64_t>{1}));
}

TEST(FoundationTreeNode, RefusesToMakeANodeItsOwnAncestor) {
  auto root = node("root");
  auto child = node("child");
  root->mutableChildNodes().addObject(child);
  EXPECT_THROW(child->mutableChildNodes().addObject(root), std::invalid_argument);
  EXPECT_THROW(root->mutableChildNodes().addObject(root), std::invalid_argument);
  EXPECT_EQ(child->parentNode(), root);
  EXPECT_EQ(root->parentNode(), nullptr);
}

TEST(FoundationTreeNode, ChildrenOutliveTheirParentWithoutALink) {
  auto child = node("child");
  {
    auto parent = node("parent");
    parent->mutableChildNodes().addObject(child);
  }
  EXPECT_EQ(child->parentNode(), nullptr);
  EXPECT_EQ(child->indexPath()->length(), 0u);
}

}  // namespace
}  // namespace qx
