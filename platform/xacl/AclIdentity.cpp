#include "platform/xacl/AclIdentity.h"

#include <algorithm>
#include <cerrno>

#include "platform/membership/IdentityUuid.h"

namespace qx::xacl {

AclIdentity AclIdentity::user(uid_t uid, std::vector<uint32_t> groups) {
  AclIdentity identity;
  IdentityUuid::forUser(uid, identity.uuid.data());
  identity.kind = Kind::User;
  identity.id = uid;
  identity.groups = std::move(groups);
  return identity;
}

AclIdentity AclIdentity::group(gid_t gid) {
  AclIdentity identity;
  IdentityUuid::forGroup(gid, identity.uuid.data());
  identity.kind = Kind::Group;
  identity.id = gid;
  identity.groups = {gid};
  return identity;
}

AclIdentity AclIdentity::fromUuid(const AclUuid& uuid) {
  AclIdentity identity;
  identity.uuid = uuid;
  if (auto decoded = IdentityUuid::decode(uuid.data())) {
    identity.kind = decoded->type == ID_TYPE_UID ? Kind::User : Kind::Group;
    identity.id = decoded->id;
    if (identity.kind == Kind::Group) identity.groups = {identity.id};
  }
  return identity;
}

bool AclIdentity::inGroup(uint32_t gid) const {
  return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

int AclIdentity::memberOf(const AclUuid& qualifier, bool* member) const {
  auto target = IdentityUuid::decode(qualifier.data());
  if (kind == Kind::Unknown || !target) return ENOENT;
  *member = false;
  if (target->type == ID_TYPE_UID) return 0;
  if (kind == Kind::Group) {
    *member = id == target->id;
    return 0;
  }
  if (status != 0) return status;
  *member = inGroup(target->id);
  return 0;
}

int AclIdentity::matches(const AclUuid& qualifier, bool* applies) const {
  *applies = qualifier == uuid;
  return *applies ? 0 : memberOf(qualifier, applies);
}

}  // namespace qx::xacl
