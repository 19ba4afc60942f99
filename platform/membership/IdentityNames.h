#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// The user and group database (NSS), reentrant lookups only. Lookups may throw
// std::bad_alloc.
class IdentityNames {
 public:
  struct User {
    uid_t uid;
    gid_t gid;  // primary group
    std::string name;
  };

  // The passwd entry of `uid`: the user, nullopt with error ENOENT when there is none, or
  // nullopt with the lookup's own error.
  static std::optional<User> user(uid_t uid, int* error = nullptr);
  static std::optional<User> userNamed(std::string_view name, int* error = nullptr);

  static std::optional<std::string> userName(uid_t uid);
  static std::optional<std::string> groupName(gid_t gid);
  static std::optional<gid_t> groupNamed(std::string_view name);

  // The primary group and every supplementary group of a user (getgrouplist).
  static std::vector<gid_t> groupsOf(const User& user);
};

}  // namespace qx
