#include "platform/xacl/AccessEvaluator.h"

#include <bit>
#include <optional>

#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {

namespace {

// The table's rows in its order (Read, Write, Administration) with the kinds they are shown
// for: 1 folder, 2 file, 3 both. The order matters for the "Read Permissions" rule.
struct Row {
  uint32_t value;
  uint32_t kind;
};
constexpr Row kRows[] = {
    {ACL_READ_DATA, 3},           {ACL_EXECUTE, 3},
    {ACL_READ_ATTRIBUTES, 3},     {ACL_READ_EXTATTRIBUTES, 3},
    {ACL_READ_SECURITY, 3},       {ACL_WRITE_DATA, 3},
    {ACL_APPEND_DATA, 3},         {ACL_DELETE, 3},
    {ACL_DELETE_CHILD, 1},        {ACL_WRITE_ATTRIBUTES, 3},
    {ACL_WRITE_EXTATTRIBUTES, 3}, {ACL_WRITE_SECURITY, 3},
    {ACL_CHANGE_OWNER, 3},
};

bool shown(const Row& row, bool isFolder) {
  return (row.kind & (isFolder ? 1u : 2u)) != 0;
}

struct Bits {
  bool read, write, execute;
};

Bits classBits(mode_t mode, int shift) {
  return {(mode & (04u << shift)) != 0, (mode & (02u << shift)) != 0, (mode & (01u << shift)) != 0};
}

bool fromMode(uint32_t right, Bits bits, bool owner) {
  switch (right) {
    case ACL_READ_DATA:
    case ACL_READ_EXTATTRIBUTES:
      return bits.read;
    case ACL_WRITE_DATA:
    case ACL_APPEND_DATA:
    case ACL_DELETE_CHILD:
    case ACL_WRITE_EXTATTRIBUTES:
      return bits.write;
    case ACL_EXECUTE:
      return bits.execute;
    case ACL_DELETE:
    case ACL_READ_ATTRIBUTES:
    case ACL_READ_SECURITY:
      return true;
    case ACL_WRITE_ATTRIBUTES:
    case ACL_WRITE_SECURITY:
      return owner;
    default:  // "Change Owner"
      return false;
  }
}

int bitIndex(uint32_t right) {
  return std::countr_zero(right);
}

}  // namespace

int AccessEvaluator::Decision::decider(uint32_t right) const {
  return decidedBy[bitIndex(right)];
}

uint32_t AccessEvaluator::rightsFor(bool isFolder) {
  uint32_t rights = 0;
  for (const Row& row : kRows) {
    if (shown(row, isFolder)) rights |= row.value;
  }
  return rights;
}

int AccessEvaluator::classify(const AclIdentity& identity, const ItemOwnership& item,
                              PosixClass* cls) {
  AclUuid owner, group;
  IdentityUuid::forUser(item.owner, owner.data());
  IdentityUuid::forGroup(item.group, group.data());
  if (identity.uuid == owner) {
    *cls = PosixClass::Owner;
  } else if (identity.uuid == group) {
    *cls = PosixClass::Group;
  } else {
    bool member = false;
    if (int status = identity.memberOf(group, &member)) return status;
    *cls = member ? PosixClass::Group : PosixClass::Other;
  }
  return 0;
}

AccessEvaluator::Decision AccessEvaluator::evaluate(const ExtendedEntries& entries,
                                                    const AclIdentity& identity,
                                                    const ItemOwnership& item) {
  Decision d;
  d.decidedBy.fill(kMode);
  uint32_t decided = 0;
  std::optional<bool> firstReadSecurity;
  for (size_t i = 0; i < entries.size(); ++i) {
    const ExtendedEntry& entry = entries[i];
    bool applies = false;
    if ((d.status = identity.matches(entry.qualifier, &applies)) != 0) return d;
    if (!applies) continue;
    const bool allows = entry.tag == ACL_EXTENDED_ALLOW;
    for (const Row& row : kRows) {
      if (!shown(row, item.isFolder) || (entry.rights & row.value) == 0) continue;
      if ((decided & row.value) == 0) {
        decided |= row.value;
        d.granted = allows ? d.granted | row.value : d.granted & ~row.value;
        d.decidedBy[bitIndex(row.value)] = static_cast<int>(i);
      }
      if (row.value != ACL_READ_SECURITY) continue;
      if (!firstReadSecurity) firstReadSecurity = allows;
      const bool attributesOff = (d.granted & ACL_READ_ATTRIBUTES) == 0;
      if (*firstReadSecurity && !allows && attributesOff) d.granted &= ~ACL_READ_SECURITY;
    }
  }
  if ((decided & ACL_READ_ATTRIBUTES) && !(d.granted & ACL_READ_ATTRIBUTES)) {
    d.granted &= ~ACL_READ_SECURITY;
  }

  PosixClass cls = PosixClass::Other;
  if ((d.status = classify(identity, item, &cls)) != 0) return d;
  const Bits bits = classBits(item.mode, cls == PosixClass::Owner   ? 6
                                         : cls == PosixClass::Group ? 3
                                                                    : 0);
  for (const Row& row : kRows) {
    if (!shown(row, item.isFolder) || (decided & row.value) != 0) continue;
    if (fromMode(row.value, bits, cls == PosixClass::Owner)) d.granted |= row.value;
  }
  if (item.isFolder && !(d.granted & ACL_SEARCH)) {
    d.granted &= ~(ACL_ADD_FILE | ACL_ADD_SUBDIRECTORY | ACL_DELETE_CHILD);
  }
  return d;
}

int AccessEvaluator::searchByEntries(const ExtendedEntries& entries, const AclIdentity& identity,
                                     Search* verdict) {
  *verdict = Search::Undecided;
  for (const ExtendedEntry& entry : entries) {
    bool applies = false;
    if (int status = identity.matches(entry.qualifier, &applies)) return status;
    if (!applies || (entry.rights & ACL_SEARCH) == 0) continue;
    *verdict = entry.tag == ACL_EXTENDED_DENY ? Search::Denied : Search::Allowed;
    return 0;
  }
  return 0;
}

int AccessEvaluator::searchByMode(const AclIdentity& identity, const ItemOwnership& item,
                                  bool* allowed) {
  PosixClass cls = PosixClass::Other;
  if (int status = classify(identity, item, &cls)) return status;
  const int shift = cls == PosixClass::Owner ? 6 : cls == PosixClass::Group ? 3 : 0;
  *allowed = classBits(item.mode, shift).execute;
  return 0;
}

}  // namespace qx::xacl
