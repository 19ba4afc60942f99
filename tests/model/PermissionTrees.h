#pragma once

#include <string>
#include <vector>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/MutableArray.h"

namespace qxtest {

inline QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, permission, state));
}

inline QXAclPermissionPtr recordOf(const qx::TreeNodePtr& node) {
  return node->representedObjectAs<QXAclPermission>();
}

inline std::string nameOf(const qx::TreeNodePtr& node) {
  auto record = recordOf(node);
  return record && record->name() ? record->name()->str() : "<nil>";
}

inline std::vector<std::string> childNames(const qx::TreeNodePtr& node) {
  std::vector<std::string> names;
  for (const auto& child : node->childNodes()) names.push_back(nameOf(child));
  return names;
}

// An entry of tree shape 1 (file) or 2 (folder) whose leaves are all `state`;
// groups resolved, "Applies to" leaves as given.
inline QXAclEntryPtr entryFromTables(bool isFolder, int64_t state, int32_t tag = 1) {
  auto permissions = qx::MutableArray::make(4);
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = node(group->name, kQXGroupNodePermission, 0);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (QXAclRowApplies(*row, isFolder)) {
        groupNode->mutableChildNodes().addObject(node(row->name, row->value, state));
      }
    }
    QXAclEntry::resolveStateForPermissionNode(groupNode);
    permissions->addObject(groupNode);
  }
  if (isFolder) {
    auto appliesTo = node("Applies to", kQXAppliesToPermission, 0);
    for (const QXAclFlagRow* row = acl_flags; row->name; ++row) {
      appliesTo->mutableChildNodes().addObject(node(row->name, row->flag, 1));
    }
    QXAclEntry::resolveStateForPermissionNode(appliesTo);
    permissions->addObject(appliesTo);
  }
  return QXAclEntry::make(qx::Uuid::make(), tag, permissions->copy(), false);
}

// A POSIX pseudo-entry (tree shape 3) for a file.
inline QXAclEntryPtr posixEntry(int64_t read, int64_t write, int64_t execute) {
  auto permissions = qx::Array::make(
      {node("Read", 2, read), node("Write", 4, write), node("Execute File", 8, execute)});
  return QXAclEntry::make(qx::Uuid::make(), 1, permissions, false);
}

}  // namespace qxtest
