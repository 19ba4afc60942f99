#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/xacl/Acl.h"

namespace qx::xacl {

// The stored form of an extended ACL, all words big-endian:
//   magic 0x012cc16d, entry count (u32), ACL flags (u32, always 0),
//   then per entry: qualifier UUID (16 bytes), flags word (u32: tag in bits 0-3, entry flags
//   0x10..0x100 above it), permission bits (u32).
class AclCodec {
 public:
  static constexpr uint32_t kMagic = 0x012cc16d;
  static constexpr size_t kHeaderSize = 12;
  static constexpr size_t kEntrySize = 24;
  static constexpr size_t kMaxSize = kHeaderSize + kEntrySize * Acl::kMaxEntries;

  // 0, or EINVAL when an entry lacks an allow/deny tag or a qualifier.
  static int encode(const Acl& acl, std::vector<uint8_t>& bytes);

  // Fills an empty `acl`. 0, or EINVAL for anything damaged: short or over-long data, wrong
  // magic, a count that disagrees with the size or exceeds 128, ACL flags, an unknown tag,
  // unknown entry flags or unknown permission bits.
  static int decode(std::span<const uint8_t> bytes, Acl& acl);
};

}  // namespace qx::xacl
