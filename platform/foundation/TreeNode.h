#pragma once

#include <memory>
#include <vector>

#include "platform/foundation/IndexPath.h"
#include "platform/foundation/Object.h"

namespace qx {

class TreeNode;
using TreeNodePtr = std::shared_ptr<TreeNode>;

// A node of an ordered tree (NSTreeNode): a represented object, an ordered list
// of children and a weak link to the parent. Changing the children through
// mutableChildNodes() keeps every child's parent link and position up to date,
// so indexPath() costs one step per level.
class TreeNode : public Object, public std::enable_shared_from_this<TreeNode> {
  QX_DECLARE_CLASS()

 public:
  // The mutable view of a node's children (`mutableChildNodes`).
  class ChildNodes {
   public:
    std::size_t count() const { return owner_.children_.size(); }
    const TreeNodePtr& operator[](std::size_t index) const { return owner_.children_.at(index); }
    // Appending or inserting a node moves it from its previous parent, if any.
    void addObject(const TreeNodePtr& child);
    void insertObject(const TreeNodePtr& child, std::size_t index);
    void removeObjectAtIndex(std::size_t index);
    void removeAllObjects();

   private:
    friend class TreeNode;
    explicit ChildNodes(TreeNode& owner) : owner_(owner) {}
    TreeNode& owner_;
  };

  explicit TreeNode(ObjectPtr representedObject = nullptr)
      : representedObject_(std::move(representedObject)) {}
  ~TreeNode() override;

  static TreeNodePtr treeNodeWithRepresentedObject(ObjectPtr representedObject) {
    return std::make_shared<TreeNode>(std::move(representedObject));
  }

  const ObjectPtr& representedObject() const { return representedObject_; }
  template <class T>
  std::shared_ptr<T> representedObjectAs() const {
    return std::dynamic_pointer_cast<T>(representedObject_);
  }
  const std::vector<TreeNodePtr>& childNodes() const { return children_; }
  ChildNodes mutableChildNodes() { return ChildNodes(*this); }
  TreeNodePtr parentNode() const { return parent_.lock(); }
  bool isLeaf() const { return children_.empty(); }
  // Positions from the root to this node; empty for a root.
  std::shared_ptr<IndexPath> indexPath() const;

 private:
  void detachFromParent();
  void renumberFrom(std::size_t index);

  ObjectPtr representedObject_;
  std::vector<TreeNodePtr> children_;
  std::weak_ptr<TreeNode> parent_;
  std::size_t indexInParent_ = 0;
};

}  // namespace qx
