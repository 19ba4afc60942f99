#include "platform/xacl/AclMembership.h"

#include <cerrno>
#include <chrono>
#include <mutex>
#include <new>

#include "platform/membership/IdentityNames.h"
#include "platform/membership/IdentityUuid.h"

namespace qx::xacl {

namespace {

using Clock = std::chrono::steady_clock;

struct Kept {
  AclIdentity identity;
  Clock::time_point until;
};

struct Cache {
  std::mutex mutex;
  std::map<AclUuid, Kept> users;
};

// Never destroyed: lookups may still run while static destructors do.
Cache& cache() {
  static Cache* instance = new Cache;
  return *instance;
}

AclIdentity lookUpUser(uid_t uid) {
  AclIdentity identity = AclIdentity::user(uid, {});
  try {
    int error = 0;
    auto user = IdentityNames::user(uid, &error);
    if (!user) {
      identity.status = error != 0 ? error : ENOENT;
      return identity;
    }
    for (gid_t gid : IdentityNames::groupsOf(*user)) identity.groups.push_back(gid);
  } catch (const std::bad_alloc&) {
    identity.status = ENOMEM;
  }
  return identity;
}

}  // namespace

AclIdentity AclMembership::resolve(const AclUuid& uuid) {
  AclIdentity identity = AclIdentity::fromUuid(uuid);
  if (identity.kind != AclIdentity::Kind::User) return identity;
  Cache& c = cache();
  const Clock::time_point now = Clock::now();
  {
    std::lock_guard lock(c.mutex);
    auto it = c.users.find(uuid);
    if (it != c.users.end() && it->second.until > now) return it->second.identity;
  }
  identity = lookUpUser(identity.id);
  if (identity.status == ENOMEM) return identity;
  std::lock_guard lock(c.mutex);
  c.users[uuid] = Kept{identity, now + std::chrono::seconds(kKeepSeconds)};
  return identity;
}

PosixMapping::Identities AclMembership::usersNamedIn(const ExtendedEntries& entries) {
  PosixMapping::Identities users;
  for (const ExtendedEntry& entry : entries) {
    if (users.count(entry.qualifier)) continue;
    auto decoded = IdentityUuid::decode(entry.qualifier.data());
    if (decoded && decoded->type == ID_TYPE_UID)
      users.emplace(entry.qualifier, resolve(entry.qualifier));
  }
  return users;
}

}  // namespace qx::xacl
