#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/Foundation.h"

// Entry listings as a client sends them in a setAclEntries request, and the
// rights read back from an effective access answer.
namespace qx::test::acl {

inline constexpr int32_t kAllow = 1;
inline constexpr int32_t kDeny = 2;

// Rights and flags by their numbers in the extended ACL.
inline constexpr uint32_t kReadData = 0x2;     // List Folder Contents
inline constexpr uint32_t kWriteData = 0x4;    // Create Files
inline constexpr uint32_t kExecute = 0x8;      // Traverse Folder
inline constexpr uint32_t kAppendData = 0x20;  // Create Folder
inline constexpr uint32_t kDeleteChild = 0x40;
inline constexpr uint32_t kAllRights = 0x3ffe;
inline constexpr uint32_t kInherited = 0x10;
inline constexpr uint32_t kFileInherit = 0x20;
inline constexpr uint32_t kDirectoryInherit = 0x40;
inline constexpr uint32_t kLimitInherit = 0x80;
inline constexpr uint32_t kOnlyInherit = 0x100;

inline qx::UuidPtr uuidOf(const char* prefix, unsigned id) {
  char text[40];
  std::snprintf(text, sizeof text, "%s%08X", prefix, id);
  return qx::Uuid::withString(text);
}
inline qx::UuidPtr userUuid(uid_t uid) {
  return uuidOf("FFFFEEEE-DDDD-CCCC-BBBB-AAAA", uid);
}
inline qx::UuidPtr groupUuid(gid_t gid) {
  return uuidOf("ABCDEFAB-CDEF-ABCD-EFAB-CDEF", gid);
}

struct Ace {
  int32_t tag;
  qx::UuidPtr who;
  uint32_t rights = 0;
  uint32_t flags = 0;
};

inline QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, permission, state));
}

// The record of `ace` as a listing of a folder (with "Applies to") or of a
// file shows it; rights that do not apply to the item's kind are dropped.
inline QXAclEntryPtr record(const Ace& ace, bool folder) {
  auto permissions = qx::MutableArray::make(4);
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = node(group->name, kQXGroupNodePermission, 0);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, folder)) continue;
      groupNode->mutableChildNodes().addObject(
          node(row->name, row->value, (ace.rights & row->value) ? 1 : 0));
    }
    QXAclEntry::resolveStateForPermissionNode(groupNode);
    permissions->addObject(groupNode);
  }
  if (folder) {
    const bool folders = (ace.flags & kDirectoryInherit) != 0;
    const std::pair<const char*, bool> children[] = {
        {"This item", (ace.flags & kOnlyInherit) == 0},
        {"Child files", (ace.flags & kFileInherit) != 0},
        {"Child folders", folders},
        {"All descendants", folders && (ace.flags & kLimitInherit) == 0}};
    const uint32_t flags[] = {kOnlyInherit, kFileInherit, kDirectoryInherit, kLimitInherit};
    auto appliesTo = node("Applies to", kQXAppliesToPermission, 0);
    for (int i = 0; i < 4; ++i) {
      appliesTo->mutableChildNodes().addObject(
          node(children[i].first, flags[i], children[i].second ? 1 : 0));
    }
    QXAclEntry::resolveStateForPermissionNode(appliesTo);
    permissions->addObject(appliesTo);
  }
  return QXAclEntry::make(ace.who, ace.tag, permissions->copy(), (ace.flags & kInherited) != 0);
}

// "ACL", the entries, "POSIX", then the owner, group and everyone
// pseudo-entries that give the item `owner`, `group` and `mode`.
inline qx::ArrayPtr listing(const std::vector<Ace>& entries, bool folder, mode_t mode, uid_t owner,
                            gid_t group) {
  auto array = qx::MutableArray::make();
  array->addObject(qx::str("ACL"));
  for (const Ace& ace : entries) array->addObject(record(ace, folder));
  array->addObject(qx::str("POSIX"));
  const qx::UuidPtr identities[3] = {userUuid(owner), groupUuid(group), nullptr};
  for (int who = 0; who < 3; ++who) {
    auto bit = [&](int value) -> int64_t { return (mode >> (6 - 3 * who)) & value ? 1 : 0; };
    auto permissions = qx::Array::make(
        {node("Read", folder ? 0x80 : 2, bit(4)), node("Write", folder ? 0x100 : 4, bit(2)),
         node(folder ? "Traverse Folder" : "Execute File", folder ? 0x1000 : 8, bit(1))});
    array->addObject(QXAclEntry::make(identities[who], kAllow, permissions, false));
  }
  return array;
}

// The rights an effective access answer grants: its granted leaves' bits.
inline uint32_t grantedRights(const qx::ArrayPtr& access) {
  uint32_t rights = 0;
  if (!access) return rights;
  for (const qx::ObjectPtr& group : *access) {
    auto tree = qx::cast<qx::TreeNode>(group);
    if (!tree) continue;
    for (const auto& leaf : tree->childNodes()) {
      auto permission = leaf->representedObjectAs<QXAclPermission>();
      if (permission && permission->state() == 1) {
        rights |= static_cast<uint32_t>(permission->permission());
      }
    }
  }
  return rights;
}

// An entry as text: tag, qualifier, rights, inheritance flags and the
// inherited mark.
inline std::string aceText(int32_t tag, const qx::UuidPtr& who, uint32_t rights, uint32_t flags,
                           bool inherited) {
  char text[128];
  std::snprintf(text, sizeof text, "%s %s rights 0x%x flags 0x%x%s\n",
                tag == kAllow  ? "allow"
                : tag == kDeny ? "deny"
                               : "?",
                who ? who->UUIDString().c_str() : "nobody", rights, flags,
                inherited ? " inherited" : "");
  return text;
}

// The entries of a listing (between "ACL" and "POSIX") as text, one a line,
// read from their permission trees.
inline std::string aclPartText(const qx::ArrayPtr& listing) {
  if (!listing) return "no listing";
  std::string text;
  for (const qx::ObjectPtr& object : *listing) {
    if (auto marker = qx::cast<qx::String>(object)) {
      if (marker->str() == "POSIX") break;
      continue;
    }
    auto entry = qx::cast<QXAclEntry>(object);
    if (!entry || !entry->permissions()) return text + "not an entry\n";
    uint32_t rights = 0, flags = 0;
    for (const qx::ObjectPtr& groupObject : *entry->permissions()) {
      auto group = qx::cast<qx::TreeNode>(groupObject);
      auto groupRecord = group ? group->representedObjectAs<QXAclPermission>() : nullptr;
      if (!groupRecord) return text + "not a permission node\n";
      std::vector<std::pair<std::string, int64_t>> leaves;
      for (const auto& leaf : group->childNodes()) {
        auto record = leaf->representedObjectAs<QXAclPermission>();
        if (!record) continue;
        leaves.emplace_back(record->name() ? record->name()->str() : "", record->state());
        if (groupRecord->name() && groupRecord->name()->str() != "Applies to" &&
            record->state() == 1) {
          rights |= static_cast<uint32_t>(record->permission());
        }
      }
      if (groupRecord->name() && groupRecord->name()->str() == "Applies to") {
        auto on = [&](const char* name) {
          for (const auto& [leafName, state] : leaves) {
            if (leafName == name) return state == 1;
          }
          return false;
        };
        if (!on("This item")) flags |= kOnlyInherit;
        if (on("Child files")) flags |= kFileInherit;
        if (on("Child folders")) flags |= kDirectoryInherit;
        if (on("Child folders") && !on("All descendants")) flags |= kLimitInherit;
      }
    }
    text += aceText(entry->tag(), entry->uuid(), rights, flags, entry->inherited());
  }
  return text;
}

// `entries` as aclPartText shows them once written to a file or a folder:
// a file has neither Delete Child nor inheritance flags.
inline std::string aclPartText(const std::vector<Ace>& entries, bool folder) {
  std::string text;
  for (const Ace& ace : entries) {
    text += aceText(
        ace.tag, ace.who, ace.rights & (folder ? kAllRights : kAllRights & ~kDeleteChild),
        folder ? ace.flags & (kFileInherit | kDirectoryInherit | kLimitInherit | kOnlyInherit) : 0,
        (ace.flags & kInherited) != 0);
  }
  return text;
}

}  // namespace qx::test::acl
