#pragma once

#include <cstdint>

#include "platform/xacl/xacl.h"

// The permission table and the "Applies to" table from which every permission
// tree is built and read back. Both are constant data in two levels, walked
// until a row whose name is null.

// Which items a permission row applies to: a folder asks with kQXAclKindFolder,
// a file with kQXAclKindFile, and a row is used when (asked & kind) != 0.
inline constexpr uint32_t kQXAclKindFolder = 1;
inline constexpr uint32_t kQXAclKindFile = 2;
inline constexpr uint32_t kQXAclKindBoth = 3;

// Permission values of the table rows: the extended ACL's permission bits,
// under the names the tables and their readers use.
inline constexpr uint32_t kQXAclReadData = qx::xacl::ACL_READ_DATA;  // also "List Folder Contents"
inline constexpr uint32_t kQXAclWriteData = qx::xacl::ACL_WRITE_DATA;  // also "Create Files"
inline constexpr uint32_t kQXAclExecute = qx::xacl::ACL_EXECUTE;       // also "Traverse Folder"
inline constexpr uint32_t kQXAclDelete = qx::xacl::ACL_DELETE;
inline constexpr uint32_t kQXAclAppendData = qx::xacl::ACL_APPEND_DATA;  // also "Create Folder"
inline constexpr uint32_t kQXAclDeleteChild = qx::xacl::ACL_DELETE_CHILD;
inline constexpr uint32_t kQXAclReadAttributes = qx::xacl::ACL_READ_ATTRIBUTES;
inline constexpr uint32_t kQXAclWriteAttributes = qx::xacl::ACL_WRITE_ATTRIBUTES;
inline constexpr uint32_t kQXAclReadExtAttributes = qx::xacl::ACL_READ_EXTATTRIBUTES;
inline constexpr uint32_t kQXAclWriteExtAttributes = qx::xacl::ACL_WRITE_EXTATTRIBUTES;
inline constexpr uint32_t kQXAclReadSecurity = qx::xacl::ACL_READ_SECURITY;
inline constexpr uint32_t kQXAclWriteSecurity = qx::xacl::ACL_WRITE_SECURITY;
inline constexpr uint32_t kQXAclChangeOwner = qx::xacl::ACL_CHANGE_OWNER;

// Entry flags of the "Applies to" rows and the inherited mark.
inline constexpr uint32_t kQXAclEntryInherited = qx::xacl::ACL_ENTRY_INHERITED;
inline constexpr uint32_t kQXAclEntryFileInherit = qx::xacl::ACL_ENTRY_FILE_INHERIT;
inline constexpr uint32_t kQXAclEntryDirectoryInherit = qx::xacl::ACL_ENTRY_DIRECTORY_INHERIT;
inline constexpr uint32_t kQXAclEntryLimitInherit = qx::xacl::ACL_ENTRY_LIMIT_INHERIT;
inline constexpr uint32_t kQXAclEntryOnlyInherit = qx::xacl::ACL_ENTRY_ONLY_INHERIT;

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
