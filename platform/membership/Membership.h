#pragma once

// Directory-service membership by the platform's names: users and groups are named by UUIDs
// (see IdentityUuid) and resolved through NSS. Each call returns a status: 0 on success, else
// an errno value (ENOENT, EINVAL, ...); errno itself is not the result.

#include <sys/types.h>
#include <uuid/uuid.h>

#include "platform/membership/IdentityUuid.h"

namespace qx {

// Every id maps, with or without a passwd or group entry: always 0 (EINVAL for a NULL uuid).
int mbr_uid_to_uuid(uid_t uid, uuid_t uu);
int mbr_gid_to_uuid(gid_t gid, uuid_t uu);

// The reverse of those two forms: the id and ID_TYPE_UID or ID_TYPE_GID. ENOENT for any other
// UUID.
int mbr_uuid_to_id(const uuid_t uu, id_t* id, int* id_type);

// Whether `identity` is a member of `group` (*ismember 1 or 0). A user is a member of its
// primary group and of its supplementary groups; a user without a passwd entry answers
// ENOENT. A group is a member only of itself. Nothing is a member of a user UUID. A UUID of
// neither form answers ENOENT.
int mbr_check_membership(const uuid_t identity, const uuid_t group, int* ismember);

}  // namespace qx
