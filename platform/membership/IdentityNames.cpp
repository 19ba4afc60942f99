#include "platform/membership/IdentityNames.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>

namespace qx {

namespace {

constexpr size_t kInitialBuffer = 1024;
constexpr size_t kMaxBuffer = 1 << 20;

// Runs a *_r lookup, growing its buffer while it answers ERANGE. Returns the lookup's error,
// ENOENT when it found nothing.
template <typename Record, typename Lookup>
int lookup(Record& record, Lookup&& call) {
  std::vector<char> buffer(kInitialBuffer);
  for (;;) {
    Record* result = nullptr;
    int error = call(&record, buffer.data(), buffer.size(), &result);
    if (error == ERANGE && buffer.size() < kMaxBuffer) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0) return error;
    return result == nullptr ? ENOENT : 0;
  }
}

template <typename Lookup>
std::optional<IdentityNames::User> userFrom(int* error, Lookup&& call) {
  struct passwd pw;
  IdentityNames::User user{};
  int status =
      lookup(pw, [&](struct passwd* record, char* buffer, size_t size, struct passwd** result) {
        int rc = call(record, buffer, size, result);
        if (rc == 0 && *result != nullptr) user = {pw.pw_uid, pw.pw_gid, pw.pw_name};
        return rc;
      });
  if (error != nullptr) *error = status;
  if (status != 0) return std::nullopt;
  return user;
}

}  // namespace

std::optional<IdentityNames::User> IdentityNames::user(uid_t uid, int* error) {
  return userFrom(error,
                  [uid](struct passwd* record, char* buffer, size_t size, struct passwd** result) {
                    return getpwuid_r(uid, record, buffer, size, result);
                  });
}

std::optional<IdentityNames::User> IdentityNames::userNamed(std::string_view name, int* error) {
  std::string key(name);
  return userFrom(error,
                  [&key](struct passwd* record, char* buffer, size_t size, struct passwd** result) {
                    return getpwnam_r(key.c_str(), record, buffer, size, result);
                  });
}

std::optional<std::string> IdentityNames::userName(uid_t uid) {
  auto found = user(uid);
  if (!found) return std::nullopt;
  return found->name;
}

std::optional<std::string> IdentityNames::groupName(gid_t gid) {
  struct group gr;
  std::string name;
  int status =
      lookup(gr, [&](struct group* record, char* buffer, size_t size, struct group** result) {
        int rc = getgrgid_r(gid, record, buffer, size, result);
        if (rc == 0 && *result != nullptr) name = gr.gr_name;
        return rc;
      });
  if (status != 0) return std::nullopt;
  return name;
}

std::optional<gid_t> IdentityNames::groupNamed(std::string_view name) {
  struct group gr;
  std::string key(name);
  gid_t gid = 0;
  int status =
      lookup(gr, [&](struct group* record, char* buffer, size_t size, struct group** result) {
        int rc = getgrnam_r(key.c_str(), record, buffer, size, result);
        if (rc == 0 && *result != nullptr) gid = gr.gr_gid;
        return rc;
      });
  if (status != 0) return std::nullopt;
  return gid;
}

std::vector<gid_t> IdentityNames::groupsOf(const User& user) {
  std::vector<gid_t> groups(16);
  for (;;) {
    int count = static_cast<int>(groups.size());
    int found = getgrouplist(user.name.c_str(), user.gid, groups.data(), &count);
    if (found >= 0) {
      groups.resize(static_cast<size_t>(found));
      return groups;
    }
    // count now holds the number needed; grow at least by one step in case it does not.
    size_t needed = static_cast<size_t>(count);
    groups.resize(needed > groups.size() ? needed : groups.size() * 2);
  }
}

}  // namespace qx
