#include "platform/xacl/PosixAclCodec.h"

namespace qx::xacl {

namespace {

void put(std::vector<uint8_t>& bytes, uint32_t value, int size) {
  for (int i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

uint32_t get(std::span<const uint8_t> bytes, size_t offset, int size) {
  uint32_t value = 0;
  for (int i = size - 1; i >= 0; --i) value = value << 8 | bytes[offset + i];
  return value;
}

bool knownTag(uint32_t tag) {
  switch (tag) {
    case PosixAcl::UserObj:
    case PosixAcl::User:
    case PosixAcl::GroupObj:
    case PosixAcl::Group:
    case PosixAcl::Mask:
    case PosixAcl::Other:
      return true;
    default:
      return false;
  }
}

constexpr size_t kHeader = 4, kEntry = 8;

}  // namespace

std::vector<uint8_t> PosixAclCodec::encode(const PosixAcl& acl) {
  std::vector<uint8_t> bytes;
  bytes.reserve(kHeader + kEntry * acl.entries().size());
  put(bytes, kVersion, 4);
  for (const PosixAcl::Entry& e : acl.entries()) {
    const bool named = e.tag == PosixAcl::User || e.tag == PosixAcl::Group;
    put(bytes, e.tag, 2);
    put(bytes, e.perm, 2);
    put(bytes, named ? e.id : 0xffffffffu, 4);  // the kernel's "undefined id"
  }
  return bytes;
}

bool PosixAclCodec::decode(std::span<const uint8_t> bytes, PosixAcl* acl) {
  if (bytes.size() < kHeader || (bytes.size() - kHeader) % kEntry != 0) return false;
  if (get(bytes, 0, 4) != kVersion) return false;
  PosixAcl decoded;
  const size_t count = (bytes.size() - kHeader) / kEntry;
  for (size_t i = 0; i < count; ++i) {
    const size_t at = kHeader + kEntry * i;
    const uint32_t tag = get(bytes, at, 2), perm = get(bytes, at + 2, 2),
                   id = get(bytes, at + 4, 4);
    if (!knownTag(tag) || perm > 7) return false;
    const uint16_t t = static_cast<uint16_t>(tag);
    const uint32_t key = (t == PosixAcl::User || t == PosixAcl::Group) ? id : 0;
    if (decoded.perm(t, key)) return false;
    decoded.set(t, static_cast<uint16_t>(perm), key);
  }
  const bool complete = decoded.perm(PosixAcl::UserObj) && decoded.perm(PosixAcl::GroupObj) &&
                        decoded.perm(PosixAcl::Other);
  if (!complete || (decoded.hasNamedEntries() && !decoded.perm(PosixAcl::Mask))) return false;
  *acl = std::move(decoded);
  return true;
}

}  // namespace qx::xacl
