#pragma once

#include <memory>

#include "platform/foundation/TreeNode.h"

// The node class of the permission trees (wire class "QXTreeNode", a tree
// node). Its represented object is a QXAclPermission, its children are further
// QXTreeNodes.
//
// Coding: each child is archived by itself into a standalone archive and the
// node stores the array of those blobs under "children", the represented
// object under "object". Decoding restricts the represented object of the
// node the caller decodes to QXAclPermission; the children's own archives are
// decoded without a class list. This is how a tree travels through a coder
// that cannot take the child list directly.
class QXTreeNode final : public qx::TreeNode {
  QX_DECLARE_CLASS()

 public:
  explicit QXTreeNode(qx::ObjectPtr representedObject = nullptr)
      : qx::TreeNode(std::move(representedObject)) {}

  static std::shared_ptr<QXTreeNode> treeNodeWithRepresentedObject(
      qx::ObjectPtr representedObject) {
    return std::make_shared<QXTreeNode>(std::move(representedObject));
  }
  static constexpr bool supportsSecureCoding() { return true; }
  static qx::ObjectPtr initWithCoder(qx::KeyedUnarchiver& coder);
  void encodeWithCoder(qx::KeyedArchiver& coder) const override;
};

using QXTreeNodePtr = std::shared_ptr<QXTreeNode>;
