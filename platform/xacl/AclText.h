#pragma once

#include <optional>
#include <string>

#include "platform/xacl/xacl.h"

namespace qx::xacl {

// A text form of extended ACLs for people, one entry a line:
//   allow user:alice read_data,execute file_inherit
//   deny group:staff write_data,append_data,delete
// The tag, the qualifier as "user:NAME" or "group:NAME" (the UUID where NSS knows no name, a
// bare UUID when it names neither a user nor a group), the permissions by short name ("none"
// when there is none) and, when there are any, the entry flags. Permissions shared by files
// and folders are named for the item's kind (read_data on a file, list_directory on a folder).
class AclText {
 public:
  // Every entry, each line ending with '\n'; nullopt with EINVAL when `acl` is not an ACL.
  // The ACL's iteration position is not touched.
  static std::optional<std::string> format(acl_t acl, bool directory = false);

  // One entry, without a line end; nullopt with EINVAL when `entry` is not an entry.
  static std::optional<std::string> formatEntry(acl_entry_t entry, bool directory = false);

  // The ACL of the item at `path` (not following a link): "" when it has none; nullopt with
  // errno when it cannot be read.
  static std::optional<std::string> forPath(const char* path);

  static std::string identity(const unsigned char uuid[16]);
  static std::string permissions(acl_perm_t bits, bool directory);
  static std::string flags(acl_flag_t bits);
};

}  // namespace qx::xacl
