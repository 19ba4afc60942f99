#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/xacl/PosixAcl.h"

namespace qx::xacl {

// POSIX ACLs through libacl. Its <sys/acl.h> is included by the source file alone: its names
// clash with those of the extended interface.
class PosixAclStore {
 public:
  PosixAclStore() = delete;

  enum class Kind { Access, Default };

  // Sets the item's access or default ACL. `path` must name the item itself (callers pass a
  // descriptor's /proc path, so no link is followed). 0, or -1 with errno (ENOTSUP where the
  // file system has no POSIX ACLs).
  static int write(const char* path, Kind kind, const PosixAcl& acl);
  // Removes a folder's default ACL; 0 also when there is none.
  static int removeDefault(const char* path);

  // The entries in getfacl's words ("user::rwx", "user:alice:r-x", "mask::r-x", ...), user and
  // group names where NSS knows them, numbers otherwise.
  static std::vector<std::string> text(const PosixAcl& acl);
};

}  // namespace qx::xacl
