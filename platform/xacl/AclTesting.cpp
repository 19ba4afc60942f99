#include "platform/xacl/AclTesting.h"

#include "platform/xacl/AclRegistry.h"

namespace qx::xacl::testing {

void FailNextFree(int error, FreeTarget target, unsigned skip) {
  AclRegistry::armFreeFailure(error, target, skip);
}

void ClearFreeFailure() {
  AclRegistry::disarmFreeFailure();
}

bool FreeFailurePending() {
  return AclRegistry::freeFailurePending();
}

size_t LiveAcls() {
  return AclRegistry::live(AclObjectKind::Acl);
}

size_t LiveQualifiers() {
  return AclRegistry::live(AclObjectKind::Qualifier);
}

}  // namespace qx::xacl::testing
