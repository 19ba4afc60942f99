#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace qx::xacl {

using AclUuid = std::array<uint8_t, 16>;

// One entry of an extended ACL as a plain value: what the rules work on.
struct ExtendedEntry {
  int32_t tag = 0;  // ACL_EXTENDED_ALLOW or ACL_EXTENDED_DENY
  AclUuid qualifier{};
  uint32_t rights = 0;  // permission bits
  uint32_t flags = 0;   // entry flags

  bool operator==(const ExtendedEntry&) const = default;
};

using ExtendedEntries = std::vector<ExtendedEntry>;

}  // namespace qx::xacl
