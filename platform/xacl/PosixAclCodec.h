#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/xacl/PosixAcl.h"

namespace qx::xacl {

// The kernel's form of a POSIX ACL in system.posix_acl_access / system.posix_acl_default,
// all little-endian: version (u32, 2), then per entry tag (u16), perm (u16), id (u32).
class PosixAclCodec {
 public:
  static constexpr uint32_t kVersion = 2;

  static std::vector<uint8_t> encode(const PosixAcl& acl);
  // False for anything the kernel would not have written: a wrong version or size, an unknown
  // tag or permission bits, a repeated entry, or a required entry missing.
  static bool decode(std::span<const uint8_t> bytes, PosixAcl* acl);
};

}  // namespace qx::xacl
