#pragma once

#include <array>
#include <cstdint>

#include "platform/xacl/ExtendedEntry.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {

// Handles of the C-style interface point at these. Each starts with a tag word so that a
// pointer of the wrong kind or a zeroed one is refused instead of being trusted.
struct AclPermset {
  static constexpr uint32_t kMagic = 0x7870736d;
  uint32_t magic = kMagic;
  acl_perm_t bits = 0;

  bool valid() const { return magic == kMagic; }
};

struct AclFlagset {
  static constexpr uint32_t kMagic = 0x7866736d;
  uint32_t magic = kMagic;
  acl_flag_t bits = 0;

  bool valid() const { return magic == kMagic; }
};

struct AclEntry {
  static constexpr uint32_t kMagic = 0x7865746d;
  uint32_t magic = kMagic;
  acl_tag_t tag = ACL_UNDEFINED_TAG;
  bool hasQualifier = false;
  std::array<uint8_t, 16> qualifier{};
  AclPermset permset;
  AclFlagset flagset;

  bool valid() const { return magic == kMagic; }
  // Complete enough to be stored: an allow or deny tag and a qualifier.
  bool storable() const;
};

// An extended ACL in memory. Entries live in fixed storage so that entry, permission-set and
// flag-set handles stay valid while entries are added.
class Acl {
 public:
  static constexpr int kMaxEntries = ACL_MAX_ENTRIES;

  Acl() = default;
  Acl(const Acl&) = delete;
  Acl& operator=(const Acl&) = delete;

  bool valid() const { return magic_ == kMagic; }
  int size() const { return size_; }
  AclEntry& at(int index) { return entries_[index]; }
  const AclEntry& at(int index) const { return entries_[index]; }

  // The entries as plain values, and the reverse (false when there are more than 128).
  ExtendedEntries entries() const;
  bool assign(const ExtendedEntries& entries);

  // The new last entry, or nullptr when the ACL is full.
  AclEntry* append();

  // Moves the iteration cursor (ACL_FIRST_ENTRY, ACL_NEXT_ENTRY, ACL_LAST_ENTRY or an index)
  // and returns the entry it lands on, or nullptr past the end or for an unknown id.
  AclEntry* step(int entryId);

 private:
  static constexpr uint32_t kMagic = 0x7861636c;
  uint32_t magic_ = kMagic;
  int size_ = 0;
  int cursor_ = -1;
  std::array<AclEntry, kMaxEntries> entries_{};
};

}  // namespace qx::xacl
