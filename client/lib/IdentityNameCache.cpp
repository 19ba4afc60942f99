#include "client/lib/IdentityNameCache.h"

#include <chrono>
#include <map>
#include <mutex>

#include "platform/membership/IdentityNames.h"

namespace qxfile {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kLifetime = std::chrono::seconds(3);

struct Name {
  std::string text;
  Clock::time_point looked;
};

// One table per kind of identity; `lookUp` runs outside the lock. The tables
// are never destroyed, so a reply thread still running at exit finds them.
template <class Id, class LookUp>
std::string cachedName(Id id, LookUp lookUp) {
  static auto& mutex = *new std::mutex;
  static auto& names = *new std::map<Id, Name>;
  const auto now = Clock::now();
  {
    std::lock_guard lock(mutex);
    auto found = names.find(id);
    if (found != names.end() && now - found->second.looked < kLifetime) return found->second.text;
  }
  std::string text = lookUp(id).value_or("");
  std::lock_guard lock(mutex);
  names[id] = Name{text, now};
  return text;
}

}  // namespace

std::string IdentityNameCache::userName(uid_t uid) {
  return cachedName(uid, [](uid_t id) { return qx::IdentityNames::userName(id); });
}

std::string IdentityNameCache::groupName(gid_t gid) {
  return cachedName(gid, [](gid_t id) { return qx::IdentityNames::groupName(id); });
}

}  // namespace qxfile
