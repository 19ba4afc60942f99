#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/MutableArray.h"

// Permission trees as an entry listing shows them, written out row by row so
// that a wrong row in the listing fails: the expected trees never come from the
// tables the listing itself is built from.
namespace qx::test {

// A node of a permission record, with `children` under it.
inline QXTreeNodePtr permissionNode(const char* name, uint32_t permission, int64_t state,
                                    const std::vector<QXTreeNodePtr>& children = {}) {
  auto node =
      QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, permission, state));
  for (const auto& child : children) node->mutableChildNodes().addObject(child);
  return node;
}

inline QXAclPermissionPtr recordOf(const ObjectPtr& node) {
  auto tree = cast<TreeNode>(node);
  return tree ? tree->representedObjectAs<QXAclPermission>() : nullptr;
}

inline std::string nameOf(const ObjectPtr& node) {
  auto record = recordOf(node);
  return record && record->name() ? record->name()->str() : "<nil>";
}

// A node and everything below it as text: "Name:PERMISSION=STATE[child,...,]"; "^" marks a child
// whose parent link does not point back, "(TreeNode)" a node of the plain class.
inline std::string treeText(const ObjectPtr& object) {
  auto node = cast<TreeNode>(object);
  if (!node) return "<not a node>";
  std::string text = cast<QXTreeNode>(node) ? "" : "(TreeNode)";
  if (auto record = recordOf(node)) {
    text += nameOf(node) + ":" + std::to_string(static_cast<uint32_t>(record->permission())) + "=" +
            std::to_string(record->state());
  }
  if (node->childNodes().empty()) return text;
  text += "[";
  for (const auto& child : node->childNodes()) {
    text += (child->parentNode() == node ? "" : "^") + treeText(child) + ",";
  }
  return text + "]";
}

// An entry record as text: identity, tag, the inherited mark and every tree ("nil" for none).
inline std::string entryText(const QXAclEntryPtr& entry) {
  std::string text = (entry->uuid() ? entry->uuid()->UUIDString() : "everyone") + " tag " +
                     std::to_string(entry->tag()) + (entry->inherited() ? " inherited" : "") + ":";
  if (!entry->permissions()) return text + " nil";
  for (const ObjectPtr& node : *entry->permissions()) text += " " + treeText(node);
  return text;
}

struct PermissionRow {
  const char* name;
  uint32_t value;
};
struct PermissionGroup {
  const char* name;
  std::vector<PermissionRow> rows;
};

// The rows of a file's or a folder's entry, in their order.
inline const std::vector<PermissionGroup>& permissionGroups(bool folder) {
  // clang-format off
  static const std::vector<PermissionGroup> file = {
      {"Read", {{"Read Data", 0x2}, {"Execute File", 0x8}, {"Read Attributes", 0x80},
                {"Read Extended Attributes", 0x200}, {"Read Permissions", 0x800}}},
      {"Write", {{"Write Data", 0x4}, {"Append Data", 0x20}, {"Delete", 0x10},
                 {"Write Attributes", 0x100}, {"Write Extended Attributes", 0x400}}},
      {"Administration", {{"Change Permissions", 0x1000}, {"Change Owner", 0x2000}}}};
  static const std::vector<PermissionGroup> folders = {
      {"Read", {{"List Folder Contents", 0x2}, {"Traverse Folder", 0x8}, {"Read Attributes", 0x80},
                {"Read Extended Attributes", 0x200}, {"Read Permissions", 0x800}}},
      {"Write", {{"Create Files", 0x4}, {"Create Folder", 0x20}, {"Delete", 0x10},
                 {"Delete Subfolders and Files", 0x40}, {"Write Attributes", 0x100},
                 {"Write Extended Attributes", 0x400}}},
      {"Administration", {{"Change Permissions", 0x1000}, {"Change Owner", 0x2000}}}};
  // clang-format on
  return folder ? folders : file;
}

// A group node (permission 2, or 0x2000 for "Applies to") over leaves and their states: 1 when
// every leaf is on, 0 when every leaf is off, -1 when they differ.
inline QXTreeNodePtr groupNode(const char* name, uint32_t permission,
                               const std::vector<std::pair<PermissionRow, int64_t>>& leaves) {
  int64_t state = leaves.empty() ? 0 : leaves.front().second;
  for (const auto& leaf : leaves) state = leaf.second == state ? state : -1;
  auto group = permissionNode(name, permission, state);
  for (const auto& [row, leafState] : leaves) {
    group->mutableChildNodes().addObject(permissionNode(row.name, row.value, leafState));
  }
  return group;
}

// The entry record of an ACL entry with permission bits `perms` and entry flags
// `flags` (0x10 inherited, 0x20 files, 0x40 folders, 0x80 one level, 0x100 only
// inherit); a folder's adds the "Applies to" node.
inline QXAclEntryPtr entryRecord(UuidPtr who, int32_t tag, uint32_t perms, uint32_t flags,
                                 bool folder) {
  auto permissions = MutableArray::make(4);
  for (const PermissionGroup& group : permissionGroups(folder)) {
    std::vector<std::pair<PermissionRow, int64_t>> leaves;
    for (const PermissionRow& row : group.rows)
      leaves.push_back({row, (perms & row.value) ? 1 : 0});
    permissions->addObject(groupNode(group.name, 2, leaves));
  }
  if (folder) {
    const bool childFolders = (flags & 0x40) != 0;
    permissions->addObject(
        groupNode("Applies to", 0x2000,
                  {{{"This item", 0x100}, (flags & 0x100) ? 0 : 1},
                   {{"Child files", 0x20}, (flags & 0x20) ? 1 : 0},
                   {{"Child folders", 0x40}, childFolders ? 1 : 0},
                   {{"All descendants", 0x80}, childFolders && !(flags & 0x80) ? 1 : 0}}));
  }
  return QXAclEntry::make(std::move(who), tag, permissions->copy(), (flags & 0x10) != 0);
}

// A POSIX pseudo-entry: read, write and execute (or traverse) leaves.
inline QXAclEntryPtr posixRecord(UuidPtr who, int64_t read, int64_t write, int64_t execute,
                                 bool folder = false) {
  auto permissions = Array::make(
      {permissionNode("Read", folder ? 0x80 : 2, read),
       permissionNode("Write", folder ? 0x100 : 4, write),
       permissionNode(folder ? "Traverse Folder" : "Execute File", folder ? 0x1000 : 8, execute)});
  return QXAclEntry::make(std::move(who), 1, permissions, false);
}

}  // namespace qx::test
