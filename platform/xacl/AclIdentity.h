#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "platform/xacl/ExtendedEntry.h"

namespace qx::xacl {

// A user or group whose access is asked about, with the groups it belongs to resolved once.
// Membership answers are those of mbr_check_membership, without asking NSS again.
struct AclIdentity {
  enum class Kind { User, Group, Unknown };

  AclUuid uuid{};
  Kind kind = Kind::Unknown;
  uint32_t id = 0;
  // The gids a user belongs to (primary and supplementary); a group belongs to itself.
  std::vector<uint32_t> groups;
  // What a membership question answers when the groups could not be resolved (a user without
  // a passwd entry: ENOENT); 0 when they were.
  int status = 0;

  static AclIdentity user(uid_t uid, std::vector<uint32_t> groups);
  static AclIdentity group(gid_t gid);
  // Any UUID: its kind and id from its form, no groups.
  static AclIdentity fromUuid(const AclUuid& uuid);

  // Whether the identity belongs to the group named by `qualifier` (never to a user UUID):
  // 0 with the answer, or the error number mbr_check_membership would answer.
  int memberOf(const AclUuid& qualifier, bool* member) const;
  // Whether an entry with this qualifier speaks for the identity: the same UUID, or a group it
  // belongs to. 0 with the answer, or an error number.
  int matches(const AclUuid& qualifier, bool* applies) const;
  bool inGroup(uint32_t gid) const;
};

}  // namespace qx::xacl
