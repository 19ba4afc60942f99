#include "platform/xacl/AclRegistry.h"

#include <mutex>
#include <new>
#include <unordered_map>

namespace qx::xacl {

namespace {

struct FreeFailure {
  int error = 0;
  testing::FreeTarget target = testing::FreeTarget::Any;
  unsigned skip = 0;
};

struct State {
  std::mutex mutex;
  std::unordered_map<const void*, AclObjectKind> objects;
  std::optional<FreeFailure> failure;
};

// Never destroyed: objects may still be released while static destructors run.
State& state() {
  static State* instance = new State;
  return *instance;
}

bool matches(testing::FreeTarget target, AclObjectKind kind) {
  switch (target) {
    case testing::FreeTarget::Any:
      return true;
    case testing::FreeTarget::Acl:
      return kind == AclObjectKind::Acl;
    case testing::FreeTarget::Qualifier:
      return kind == AclObjectKind::Qualifier;
  }
  return false;
}

}  // namespace

bool AclRegistry::add(const void* object, AclObjectKind kind) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  try {
    s.objects.emplace(object, kind);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

std::optional<AclObjectKind> AclRegistry::take(const void* object) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  auto it = s.objects.find(object);
  if (it == s.objects.end()) return std::nullopt;
  AclObjectKind kind = it->second;
  s.objects.erase(it);
  return kind;
}

int AclRegistry::injectedFreeError(AclObjectKind kind) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.failure || !matches(s.failure->target, kind)) return 0;
  if (s.failure->skip > 0) {
    --s.failure->skip;
    return 0;
  }
  int error = s.failure->error;
  s.failure.reset();
  return error;
}

void AclRegistry::armFreeFailure(int error, testing::FreeTarget target, unsigned skip) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.failure = FreeFailure{error, target, skip};
}

void AclRegistry::disarmFreeFailure() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.failure.reset();
}

bool AclRegistry::freeFailurePending() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.failure.has_value();
}

size_t AclRegistry::live(AclObjectKind kind) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  size_t count = 0;
  for (const auto& [object, objectKind] : s.objects) count += objectKind == kind ? 1 : 0;
  return count;
}

}  // namespace qx::xacl
