#pragma once

#include <cstddef>
#include <optional>

#include "platform/xacl/AclTesting.h"

namespace qx::xacl {

enum class AclObjectKind { Acl, Qualifier };

// Every object the interface hands out, so that acl_free knows what it releases and can refuse
// pointers it never handed out (or already took back). Also holds the test-only release
// failure of AclTesting.h. Thread-safe.
class AclRegistry {
 public:
  // False when the registry could not record the object (out of memory).
  static bool add(const void* object, AclObjectKind kind);

  // Forgets the object and tells what it was; nullopt for an unknown pointer.
  static std::optional<AclObjectKind> take(const void* object);

  // The error an armed test failure wants this release of `kind` to report, else 0.
  static int injectedFreeError(AclObjectKind kind);

  static void armFreeFailure(int error, testing::FreeTarget target, unsigned skip);
  static void disarmFreeFailure();
  static bool freeFailurePending();
  static size_t live(AclObjectKind kind);
};

}  // namespace qx::xacl
