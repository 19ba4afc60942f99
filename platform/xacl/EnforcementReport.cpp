#include "platform/xacl/EnforcementReport.h"

#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/PosixMapping.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {

namespace {

constexpr uint16_t kBits[] = {PosixAcl::kRead, PosixAcl::kWrite, PosixAcl::kExecute};

// The POSIX bit standing for `right`, or 0.
uint16_t bitOf(uint32_t right, bool isFolder) {
  for (uint16_t bit : kBits) {
    if (PosixMapping::rightsOfBits(bit, isFolder) & right) return bit;
  }
  return 0;
}

bool isGroupUuid(const AclUuid& uuid) {
  auto decoded = IdentityUuid::decode(uuid.data());
  return decoded && decoded->type == ID_TYPE_GID;
}

void eachRight(uint32_t rights, auto&& visit) {
  for (uint32_t right = 1; right != 0 && right <= rights; right <<= 1) {
    if (rights & right) visit(right);
  }
}

}  // namespace

const char* EnforcementReport::name(For who) {
  switch (who) {
    case For::Owner:
      return "owner";
    case For::OwningGroup:
      return "owning group";
    case For::Others:
      return "others";
    case For::NoPosixBit:
      return "no POSIX bit";
    case For::Partly:
      return "partly";
  }
  return "";
}

std::vector<std::vector<EnforcementReport::Unenforced>> EnforcementReport::forEntries(
    const ExtendedEntries& entries, const ItemOwnership& item, const AclIdentity& owner) {
  const bool folder = item.isFolder;
  const uint32_t shown = AccessEvaluator::rightsFor(folder);
  const uint32_t posixRights = PosixMapping::rightsOfBits(7, folder);
  const AccessEvaluator::Decision forOwner = AccessEvaluator::evaluate(entries, owner, item);
  std::vector<std::vector<Unenforced>> report(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    const ExtendedEntry& entry = entries[i];
    const uint32_t named = entry.rights & shown;
    std::vector<Unenforced>& out = report[i];
    eachRight(named & ~posixRights, [&](uint32_t right) {
      out.push_back({right, For::NoPosixBit});
    });
    for (uint16_t bit : kBits) {
      const uint32_t rights = PosixMapping::rightsOfBits(bit, folder);
      if ((named & rights) != 0 && (named & rights) != rights) {
        eachRight(named & rights, [&](uint32_t right) { out.push_back({right, For::Partly}); });
      }
    }
    if (entry.tag != ACL_EXTENDED_DENY) continue;
    eachRight(named & posixRights, [&](uint32_t right) {
      const uint16_t bit = bitOf(right, folder);
      const bool ownerHasBit = (item.mode >> 6) & bit;
      const bool groupHasBit = (item.mode >> 3) & bit;
      if (forOwner.status == 0 && forOwner.decider(right) == static_cast<int>(i) && ownerHasBit) {
        out.push_back({right, For::Owner});
      }
      // Members of the owning group get its bits from the kernel whatever group entries
      // say; a group-wide denial reaches any of them.
      if (isGroupUuid(entry.qualifier) && groupHasBit) out.push_back({right, For::OwningGroup});
    });
  }
  return report;
}

}  // namespace qx::xacl
