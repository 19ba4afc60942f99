#pragma once

#include <cstdint>

// The permission table and the "Applies to" table from which every permission
// tree is built and read back. Both are constant data in two levels, walked
// until a row whose name is null.

// Which items a permission row applies to: a folder asks with kQXAclKindFolder,
// a file with kQXAclKindFile, and a row is used when (asked & kind) != 0.
inline constexpr uint32_t kQXAclKindFolder = 1;
inline constexpr uint32_t kQXAclKindFile = 2;
inline constexpr uint32_t kQXAclKindBoth = 3;

// Permission values of the table rows (the extended ACL's permission bits).
inline constexpr uint32_t kQXAclReadData = 0x2;   // also "List Folder Contents"
inline constexpr uint32_t kQXAclWriteData = 0x4;  // also "Create Files"
inline constexpr uint32_t kQXAclExecute = 0x8;    // also "Traverse Folder"
inline constexpr uint32_t kQXAclDelete = 0x10;
inline constexpr uint32_t kQXAclAppendData = 0x20;  // also "Create Folder"
inline constexpr uint32_t kQXAclDeleteChild = 0x40;
inline constexpr uint32_t kQXAclReadAttributes = 0x80;
inline constexpr uint32_t kQXAclWriteAttributes = 0x100;
inline constexpr uint32_t kQXAclReadExtAttributes = 0x200;
inline constexpr uint32_t kQXAclWriteExtAttributes = 0x400;
inline constexpr uint32_t kQXAclReadSecurity = 0x800;
inline constexpr uint32_t kQXAclWriteSecurity = 0x1000;
inline constexpr uint32_t kQXAclChangeOwner = 0x2000;

// Entry flags of the "Applies to" rows and the inherited mark.
inline constexpr uint32_t kQXAclEntryInherited = 0x10;
inline constexpr uint32_t kQXAclEntryFileInherit = 0x20;
inline constexpr uint32_t kQXAclEntryDirectoryInherit = 0x40;
inline constexpr uint32_t kQXAclEntryLimitInherit = 0x80;
inline constexpr uint32_t kQXAclEntryOnlyInherit = 0x100;

// The `permission` of a group node and of the "Applies to" node.
inline constexpr int32_t kQXGroupNodePermission = 2;
inline constexpr int32_t kQXAppliesToPermission = 0x2000;

struct QXAclPermRow {
  const char* name;  // null ends a group's rows
  uint32_t value;
  uint32_t kind;
};

struct QXAclPermGroup {
  const char* name;  // null ends the list of groups
  const QXAclPermRow* rows;
};

struct QXAclFlagRow {
  const char* name;  // null ends the list
  uint32_t flag;
};

extern const QXAclPermRow acl_read_perms[];
extern const QXAclPermRow acl_write_perms[];
extern const QXAclPermRow acl_admin_perms[];
// "Read", "Write", "Administration", then (null, null).
extern const QXAclPermGroup acl_perms[];
// "This item", "Child files", "Child folders", "All descendants", then a null row.
extern const QXAclFlagRow acl_flags[];

// True when `row` is shown for a folder (`isFolder`) or for a file.
inline bool QXAclRowApplies(const QXAclPermRow& row, bool isFolder) {
  return ((isFolder ? kQXAclKindFolder : kQXAclKindFile) & row.kind) != 0;
}
