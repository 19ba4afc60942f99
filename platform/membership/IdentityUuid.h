#pragma once

#include <sys/types.h>
#include <uuid/uuid.h>

#include <optional>

namespace qx {

inline constexpr int ID_TYPE_UID = 0;
inline constexpr int ID_TYPE_GID = 1;

// The UUID forms of user and group ids. Every id has one, whether or not the user or group
// exists: a user is FFFFEEEE-DDDD-CCCC-BBBB-AAAA followed by the uid as 8 hex digits, a group
// ABCDEFAB-CDEF-ABCD-EFAB-CDEF followed by the gid.
class IdentityUuid {
 public:
  struct Identity {
    int type;  // ID_TYPE_UID or ID_TYPE_GID
    id_t id;
  };

  static void forUser(uid_t uid, uuid_t uuid);
  static void forGroup(gid_t gid, uuid_t uuid);
  // The id a UUID of either form stands for; nullopt for any other UUID.
  static std::optional<Identity> decode(const uuid_t uuid);
};

}  // namespace qx
