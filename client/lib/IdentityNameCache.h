#pragma once

#include <sys/types.h>

#include <string>

namespace qxfile {

// User and group names for the records a client hands out. Every ACL listing
// names its owner and group, and with the files backend each lookup reads the
// whole of /etc/passwd or /etc/group, so names are kept for a few seconds: a
// renamed user shows under the new name soon after, not on every request.
class IdentityNameCache {
 public:
  // The name of `uid` (`gid`), "" when the database has none.
  static std::string userName(uid_t uid);
  static std::string groupName(gid_t gid);
};

}  // namespace qxfile
