#include "platform/xacl/AclCodec.h"

#include <algorithm>
#include <cerrno>

namespace qx::xacl {

namespace {

constexpr uint32_t kTagMask = 0xf;

void putWord(std::vector<uint8_t>& bytes, uint32_t word) {
  bytes.push_back(static_cast<uint8_t>(word >> 24));
  bytes.push_back(static_cast<uint8_t>(word >> 16));
  bytes.push_back(static_cast<uint8_t>(word >> 8));
  bytes.push_back(static_cast<uint8_t>(word));
}

uint32_t wordAt(std::span<const uint8_t> bytes, size_t offset) {
  return uint32_t{bytes[offset]} << 24 | uint32_t{bytes[offset + 1]} << 16 |
         uint32_t{bytes[offset + 2]} << 8 | uint32_t{bytes[offset + 3]};
}

bool knownTag(uint32_t tag) {
  return tag == static_cast<uint32_t>(ACL_EXTENDED_ALLOW) ||
         tag == static_cast<uint32_t>(ACL_EXTENDED_DENY);
}

bool decodeEntry(std::span<const uint8_t> bytes, AclEntry& entry) {
  const uint32_t flagsWord = wordAt(bytes, 16);
  const uint32_t rights = wordAt(bytes, 20);
  const uint32_t tag = flagsWord & kTagMask;
  const uint32_t flags = flagsWord & ~kTagMask;
  if (!knownTag(tag) || (flags & ~ACL_ENTRY_FLAG_MASK) != 0 || (rights & ~ACL_PERM_MASK) != 0) {
    return false;
  }
  std::copy_n(bytes.begin(), entry.qualifier.size(), entry.qualifier.begin());
  entry.hasQualifier = true;
  entry.tag = static_cast<acl_tag_t>(tag);
  entry.flagset.bits = flags;
  entry.permset.bits = rights;
  return true;
}

}  // namespace

int AclCodec::encode(const Acl& acl, std::vector<uint8_t>& bytes) {
  bytes.clear();
  bytes.reserve(kHeaderSize + kEntrySize * acl.size());
  putWord(bytes, kMagic);
  putWord(bytes, static_cast<uint32_t>(acl.size()));
  putWord(bytes, 0);
  for (int i = 0; i < acl.size(); ++i) {
    const AclEntry& entry = acl.at(i);
    if (!entry.storable()) return EINVAL;
    bytes.insert(bytes.end(), entry.qualifier.begin(), entry.qualifier.end());
    putWord(bytes, static_cast<uint32_t>(entry.tag) | (entry.flagset.bits & ACL_ENTRY_FLAG_MASK));
    putWord(bytes, entry.permset.bits & ACL_PERM_MASK);
  }
  return 0;
}

int AclCodec::decode(std::span<const uint8_t> bytes, Acl& acl) {
  if (bytes.size() < kHeaderSize || bytes.size() > kMaxSize) return EINVAL;
  if (wordAt(bytes, 0) != kMagic || wordAt(bytes, 8) != 0) return EINVAL;
  const uint32_t count = wordAt(bytes, 4);
  if (count > static_cast<uint32_t>(Acl::kMaxEntries)) return EINVAL;
  if (bytes.size() != kHeaderSize + kEntrySize * count) return EINVAL;
  for (uint32_t i = 0; i < count; ++i) {
    AclEntry* entry = acl.append();
    if (entry == nullptr) return EINVAL;
    if (!decodeEntry(bytes.subspan(kHeaderSize + kEntrySize * i, kEntrySize), *entry)) {
      return EINVAL;
    }
  }
  return 0;
}

}  // namespace qx::xacl
