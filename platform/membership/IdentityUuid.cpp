#include "platform/membership/IdentityUuid.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace qx {

namespace {

constexpr size_t kPrefixSize = 12;
constexpr std::array<unsigned char, kPrefixSize> kUserPrefix = {0xff, 0xff, 0xee, 0xee, 0xdd, 0xdd,
                                                                0xcc, 0xcc, 0xbb, 0xbb, 0xaa, 0xaa};
constexpr std::array<unsigned char, kPrefixSize> kGroupPrefix = {
    0xab, 0xcd, 0xef, 0xab, 0xcd, 0xef, 0xab, 0xcd, 0xef, 0xab, 0xcd, 0xef};

void compose(const std::array<unsigned char, kPrefixSize>& prefix, uint32_t id, uuid_t uuid) {
  std::copy(prefix.begin(), prefix.end(), uuid);
  uuid[12] = static_cast<unsigned char>(id >> 24);
  uuid[13] = static_cast<unsigned char>(id >> 16);
  uuid[14] = static_cast<unsigned char>(id >> 8);
  uuid[15] = static_cast<unsigned char>(id);
}

bool hasPrefix(const uuid_t uuid, const std::array<unsigned char, kPrefixSize>& prefix) {
  return std::equal(prefix.begin(), prefix.end(), uuid);
}

id_t idPart(const uuid_t uuid) {
  return uint32_t{uuid[12]} << 24 | uint32_t{uuid[13]} << 16 | uint32_t{uuid[14]} << 8 |
         uint32_t{uuid[15]};
}

}  // namespace

void IdentityUuid::forUser(uid_t uid, uuid_t uuid) {
  compose(kUserPrefix, uid, uuid);
}

void IdentityUuid::forGroup(gid_t gid, uuid_t uuid) {
  compose(kGroupPrefix, gid, uuid);
}

std::optional<IdentityUuid::Identity> IdentityUuid::decode(const uuid_t uuid) {
  if (hasPrefix(uuid, kUserPrefix)) return Identity{ID_TYPE_UID, idPart(uuid)};
  if (hasPrefix(uuid, kGroupPrefix)) return Identity{ID_TYPE_GID, idPart(uuid)};
  return std::nullopt;
}

}  // namespace qx
