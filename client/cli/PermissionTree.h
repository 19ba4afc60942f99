#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qxcli {

// The permission tables as a person reads and writes them: the three groups
// "Read", "Write" and "Administration" with the rows that apply to a file or
// a folder, and for a folder the "Applies to" rows.
class PermissionTree {
 public:
  // The inheritance flags of the "Applies to" rows.
  static constexpr uint32_t kFileInherit = 0x20;
  static constexpr uint32_t kDirectoryInherit = 0x40;
  static constexpr uint32_t kLimitInherit = 0x80;
  static constexpr uint32_t kOnlyInherit = 0x100;

  // A comma-separated list of permission names ("Read Data", read-data,
  // read_data, list_directory, ...), group names ("read", "write",
  // "administration") or "all", as permission bits of a file or a folder.
  // Throws UsageError for a name that does not exist or does not apply.
  static uint32_t parseRights(std::string_view list, bool folder);
  // A comma-separated list of file, dir, limit, only (or file_inherit,
  // directory_inherit, limit_inherit, only_inherit) as inheritance flags.
  static uint32_t parseInheritance(std::string_view list);

  // The names of the rows of a file's or a folder's table whose bits are in
  // `rights`, in table order.
  static std::vector<std::string> grantedNames(uint32_t rights, bool folder);
  // The rows granted, group by group, a fully granted group as "all":
  // "Read: all; Write: Create Files, Delete". "none" when nothing is.
  static std::string summary(uint32_t rights, bool folder);
  // The names of the "Applies to" rows that the inheritance flags turn on.
  static std::vector<std::string> appliesTo(uint32_t flags);
};

}  // namespace qxcli
