#include "platform/membership/Membership.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/membership/IdentityNames.h"

namespace qx {

int mbr_uid_to_uuid(uid_t uid, uuid_t uu) {
  if (uu == nullptr) return EINVAL;
  IdentityUuid::forUser(uid, uu);
  return 0;
}

int mbr_gid_to_uuid(gid_t gid, uuid_t uu) {
  if (uu == nullptr) return EINVAL;
  IdentityUuid::forGroup(gid, uu);
  return 0;
}

int mbr_uuid_to_id(const uuid_t uu, id_t* id, int* id_type) {
  if (uu == nullptr || id == nullptr || id_type == nullptr) return EINVAL;
  auto identity = IdentityUuid::decode(uu);
  if (!identity) return ENOENT;
  *id = identity->id;
  *id_type = identity->type;
  return 0;
}

int mbr_check_membership(const uuid_t identity, const uuid_t group, int* ismember) {
  if (identity == nullptr || group == nullptr || ismember == nullptr) return EINVAL;
  auto who = IdentityUuid::decode(identity);
  auto target = IdentityUuid::decode(group);
  if (!who || !target) return ENOENT;
  if (target->type == ID_TYPE_UID) {
    *ismember = 0;
    return 0;
  }
  if (who->type == ID_TYPE_GID) {
    *ismember = who->id == target->id ? 1 : 0;
    return 0;
  }
  try {
    int error = 0;
    auto user = IdentityNames::user(who->id, &error);
    if (!user) return error;
    std::vector<gid_t> groups = IdentityNames::groupsOf(*user);
    *ismember = std::find(groups.begin(), groups.end(), target->id) != groups.end() ? 1 : 0;
    return 0;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

}  // namespace qx
