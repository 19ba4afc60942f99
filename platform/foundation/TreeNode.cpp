#include "platform/foundation/TreeNode.h"

#include <algorithm>
#include <stdexcept>

namespace qx {

QX_DEFINE_CLASS(TreeNode, "NSTreeNode", Object)

TreeNode::~TreeNode() {
  for (auto& child : children_) child->parent_.reset();
}

void TreeNode::ChildNodes::addObject(const TreeNodePtr& child) {
  insertObject(child, owner_.children_.size());
}

void TreeNode::ChildNodes::insertObject(const TreeNodePtr& child, std::size_t index) {
  if (!child) throw std::invalid_argument("TreeNode: nil child");
  if (index > owner_.children_.size()) throw std::out_of_range("TreeNode::insertObject");
  // A node under itself would own itself through shared pointers: a cycle
  // that neither indexPath() nor destruction could get out of.
  if (child.get() == &owner_) throw std::invalid_argument("TreeNode: a node under itself");
  for (TreeNodePtr up = owner_.parent_.lock(); up; up = up->parent_.lock()) {
    if (up == child) throw std::invalid_argument("TreeNode: a node under its descendant");
  }
  TreeNodePtr keep = child;  // the node may be held only by its old parent
  keep->detachFromParent();
  index = std::min(index, owner_.children_.size());
  owner_.children_.insert(owner_.children_.begin() + static_cast<std::ptrdiff_t>(index), keep);
  keep->parent_ = owner_.shared_from_this();
  owner_.renumberFrom(index);
}

void TreeNode::ChildNodes::removeObjectAtIndex(std::size_t index) {
  if (index >= owner_.children_.size()) throw std::out_of_range("TreeNode::removeObjectAtIndex");
  owner_.children_[index]->parent_.reset();
  owner_.children_.erase(owner_.children_.begin() + static_cast<std::ptrdiff_t>(index));
  owner_.renumberFrom(index);
}

void TreeNode::ChildNodes::removeAllObjects() {
  for (auto& child : owner_.children_) child->parent_.reset();
  owner_.children_.clear();
}

void TreeNode::detachFromParent() {
  TreeNodePtr parent = parent_.lock();
  if (!parent) return;
  parent->mutableChildNodes().removeObjectAtIndex(indexInParent_);
}

void TreeNode::renumberFrom(std::size_t index) {
  for (std::size_t i = index; i < children_.size(); ++i) children_[i]->indexInParent_ = i;
}

std::shared_ptr<IndexPath> TreeNode::indexPath() const {
  std::vector<uint64_t> positions;
  TreeNodePtr held;  // keeps the node being looked at alive
  for (const TreeNode* node = this;;) {
    TreeNodePtr parent = node->parent_.lock();
    if (!parent) break;
    positions.push_back(node->indexInParent_);
    held = std::move(parent);
    node = held.get();
  }
  std::reverse(positions.begin(), positions.end());
  return IndexPath::make(std::move(positions));
}

}  // namespace qx
