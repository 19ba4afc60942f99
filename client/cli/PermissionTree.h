#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/QXAclEntry.h"
#include "platform/foundation/Array.h"

namespace qxcli {

// Permission trees of ACL entries, built and read the way the service lists
// them: the three groups "Read", "Write" and "Administration" with the rows
// that apply to a file or a folder, and for a folder the "Applies to" node.
class PermissionTree {
 public:
  // The inheritance flags of the "Applies to" rows.
  static constexpr uint32_t kFileInherit = 0x20;
  static constexpr uint32_t kDirectoryInherit = 0x40;
  static constexpr uint32_t kLimitInherit = 0x80;
  static constexpr uint32_t kOnlyInherit = 0x100;

  // The top-level nodes of an entry granting `rights` (permission bits): the
  // three groups, and for a folder the "Applies to" node set from `flags`.
  static qx::ArrayPtr make(uint32_t rights, uint32_t flags, bool folder);

  // A comma-separated list of permission names ("Read Data", read-data,
  // read_data, list_directory, ...), group names ("read", "write",
  // "administration") or "all", as permission bits of a file or a folder.
  // Throws UsageError for a name that does not exist or does not apply.
  static uint32_t parseRights(std::string_view list, bool folder);
  // A comma-separated list of file, dir, limit, only (or file_inherit,
  // directory_inherit, limit_inherit, only_inherit) as inheritance flags.
  static uint32_t parseInheritance(std::string_view list);

  // The permission bits an entry grants or denies: each leaf not off.
  static uint32_t rights(const QXAclEntry& entry);
  // The names of the leaves that are on, in table order.
  static std::vector<std::string> grantedNames(const QXAclEntry& entry);
  // The leaves that are on, group by group, a fully granted group as "all":
  // "Read: all; Write: Create Files, Delete". "none" when nothing is on.
  static std::string summary(const QXAclEntry& entry);
  // The names of the "Applies to" rows that are on; empty for a file's entry.
  static std::vector<std::string> appliesTo(const QXAclEntry& entry);
  // The inheritance flags the service writes for the entry's "Applies to"
  // node (0 for a file's entry).
  static uint32_t inheritance(const QXAclEntry& entry);
  // Whether the entry has the folder shape (an "Applies to" node).
  static bool hasFolderShape(const QXAclEntry& entry);
};

}  // namespace qxcli
