#pragma once

#include <cstddef>

// Test-only controls of the extended ACL interface. Production code never calls these.
//
// Releasing an ACL or a qualifier cannot fail for real, yet callers must report a failing
// acl_free; these hooks make one release report a failure so that those paths can be tested.
// The object is still released, so tests stay free of leaks. The hooks are process-wide (the
// code under test may release on another thread) and meant for one test at a time.
namespace qx::xacl::testing {

enum class FreeTarget { Any, Acl, Qualifier };

// Makes a later acl_free of `target` return -1 with errno `error`: the first matching release
// after `skip` matching releases. One-shot; a new call replaces an armed failure.
void FailNextFree(int error, FreeTarget target = FreeTarget::Any, unsigned skip = 0);

// Disarms a failure that has not fired yet.
void ClearFreeFailure();

// True while a failure is armed and has not fired.
bool FreeFailurePending();

// Objects handed out and not yet released: ACLs from acl_init / acl_get_link_np, and
// qualifiers from acl_get_qualifier. Lets tests check that every object is released.
size_t LiveAcls();
size_t LiveQualifiers();

// Arms a failure for its lifetime and disarms whatever is left of it at the end.
class ScopedFreeFailure {
 public:
  ScopedFreeFailure(int error, FreeTarget target = FreeTarget::Any, unsigned skip = 0) {
    FailNextFree(error, target, skip);
  }
  ~ScopedFreeFailure() { ClearFreeFailure(); }
  ScopedFreeFailure(const ScopedFreeFailure&) = delete;
  ScopedFreeFailure& operator=(const ScopedFreeFailure&) = delete;
};

}  // namespace qx::xacl::testing
