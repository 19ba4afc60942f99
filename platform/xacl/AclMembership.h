#pragma once

#include "platform/xacl/AclIdentity.h"
#include "platform/xacl/ExtendedEntry.h"
#include "platform/xacl/PosixMapping.h"

namespace qx::xacl {

// Resolves identities' groups through NSS. Answers are kept process-wide for a few seconds, so
// a request that asks about many items or entries looks each identity up once. Thread-safe.
class AclMembership {
 public:
  AclMembership() = delete;

  static constexpr int kKeepSeconds = 3;

  // Any UUID: a user with its primary and supplementary groups (status ENOENT when it has no
  // passwd entry), a group, or an identity of neither form.
  static AclIdentity resolve(const AclUuid& uuid);

  // Every user named by the entries.
  static PosixMapping::Identities usersNamedIn(const ExtendedEntries& entries);
};

}  // namespace qx::xacl
