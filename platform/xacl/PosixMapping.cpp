#include "platform/xacl/PosixMapping.h"

#include <algorithm>
#include <vector>

#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {

namespace {

constexpr uint32_t kPosixBitOrder[] = {PosixAcl::kRead, PosixAcl::kWrite, PosixAcl::kExecute};

struct Named {
  std::vector<AclUuid> users, groups;
};

// The users and groups named, each once, in the order they first appear.
Named namedIn(const ExtendedEntries& entries) {
  Named named;
  for (const ExtendedEntry& entry : entries) {
    auto decoded = IdentityUuid::decode(entry.qualifier.data());
    if (!decoded) continue;
    auto& list = decoded->type == ID_TYPE_UID ? named.users : named.groups;
    if (std::find(list.begin(), list.end(), entry.qualifier) == list.end()) {
      list.push_back(entry.qualifier);
    }
  }
  return named;
}

bool isGroupUuid(const AclUuid& uuid) {
  auto decoded = IdentityUuid::decode(uuid.data());
  return decoded && decoded->type == ID_TYPE_GID;
}

// Memberships that cannot be resolved make no one a member: the kernel matches by id only.
AclIdentity userIdentity(const AclUuid& uuid, const PosixMapping::Identities& users) {
  auto it = users.find(uuid);
  AclIdentity identity = it != users.end() ? it->second : AclIdentity::fromUuid(uuid);
  if (identity.status != 0) {
    identity.status = 0;
    identity.groups.clear();
  }
  return identity;
}

uint32_t granted(const ExtendedEntries& entries, const AclIdentity& identity,
                 const ItemOwnership& item) {
  AccessEvaluator::Decision d = AccessEvaluator::evaluate(entries, identity, item);
  return d.status == 0 ? d.granted : 0;
}

// A right a group holds is taken away when, before the group's own entry naming it, a deny
// entry for another group names it: a user in both would be denied by the entries, and
// granted by the kernel's union of group entries.
uint32_t lessEarlierDenials(const ExtendedEntries& entries, const AclUuid& group, uint32_t rights) {
  uint32_t decidedHere = 0, taken = 0;
  for (const ExtendedEntry& entry : entries) {
    if (entry.qualifier == group) {
      decidedHere |= entry.rights;
    } else if (entry.tag == ACL_EXTENDED_DENY && isGroupUuid(entry.qualifier)) {
      taken |= entry.rights & ~decidedHere;
    }
  }
  return rights & ~taken;
}

// The item as a group's entry sees the mode. The entry reaches members of the owning group,
// who hold the group bits besides and are answered from them, and members of no other class,
// answered from the other bits: of the mode it may carry only what both classes hold.
ItemOwnership forGroupEntry(ItemOwnership item) {
  const mode_t shared = (item.mode >> 3) & item.mode & 07;
  item.mode = (item.mode & 0700) | shared << 3 | shared;
  return item;
}

// Named entries for one kind of item.
PosixAcl namedEntries(const ExtendedEntries& entries, const ItemOwnership& item,
                      const PosixMapping::Identities& users, const Named& named) {
  PosixAcl acl;
  for (const AclUuid& uuid : named.users) {
    AclIdentity identity = userIdentity(uuid, users);
    acl.set(PosixAcl::User, PosixMapping::bitsFor(granted(entries, identity, item), item.isFolder),
            identity.id);
  }
  for (const AclUuid& uuid : named.groups) {
    AclIdentity identity = AclIdentity::fromUuid(uuid);
    uint32_t rights =
        lessEarlierDenials(entries, uuid, granted(entries, identity, forGroupEntry(item)));
    acl.set(PosixAcl::Group, PosixMapping::bitsFor(rights, item.isFolder), identity.id);
  }
  return acl;
}

PosixAcl withNamed(mode_t mode, const PosixAcl& named) {
  PosixAcl acl = PosixAcl::fromMode(mode);
  for (const PosixAcl::Entry& e : named.entries()) acl.set(e.tag, e.perm, e.id);
  acl.recomputeMask();
  return acl;
}

bool inheritedByBoth(const ExtendedEntry& entry) {
  const bool file = entry.flags & ACL_ENTRY_FILE_INHERIT;
  const bool folder = entry.flags & ACL_ENTRY_DIRECTORY_INHERIT;
  return entry.tag == ACL_EXTENDED_DENY ? (file || folder) : (file && folder);
}

std::optional<PosixAcl> defaultAcl(const ExtendedEntries& entries, const ItemOwnership& item,
                                   const PosixMapping::Identities& users) {
  ExtendedEntries inherited;
  std::copy_if(entries.begin(), entries.end(), std::back_inserter(inherited), inheritedByBoth);
  const Named named = namedIn(inherited);
  if (named.users.empty() && named.groups.empty()) return std::nullopt;
  ItemOwnership asFile = item, asFolder = item;
  asFile.isFolder = false;
  asFolder.isFolder = true;
  // A bit goes to a named entry only when both a new file and a new folder would have it.
  PosixAcl forFiles = namedEntries(inherited, asFile, users, named);
  PosixAcl forFolders = namedEntries(inherited, asFolder, users, named);
  PosixAcl both;
  for (const PosixAcl::Entry& e : forFiles.entries()) {
    both.set(e.tag, e.perm & forFolders.perm(e.tag, e.id).value_or(0), e.id);
  }
  return withNamed(item.mode, both);
}

}  // namespace

uint16_t PosixMapping::bitsFor(uint32_t granted, bool isFolder) {
  uint16_t bits = 0;
  for (uint32_t bit : kPosixBitOrder) {
    const uint32_t rights = rightsOfBits(static_cast<uint16_t>(bit), isFolder);
    if ((granted & rights) == rights) bits |= static_cast<uint16_t>(bit);
  }
  return bits;
}

uint32_t PosixMapping::rightsOfBits(uint16_t bits, bool isFolder) {
  uint32_t rights = 0;
  if (bits & PosixAcl::kRead) rights |= ACL_READ_DATA;
  if (bits & PosixAcl::kWrite) {
    rights |= ACL_WRITE_DATA | ACL_APPEND_DATA | (isFolder ? ACL_DELETE_CHILD : 0);
  }
  if (bits & PosixAcl::kExecute) rights |= ACL_EXECUTE;
  return rights;
}

uint32_t PosixMapping::translatedRights(uint16_t bits, bool isFolder) {
  uint32_t rights = rightsOfBits(bits, isFolder);
  if (bits & PosixAcl::kRead) {
    rights |= ACL_READ_ATTRIBUTES | ACL_READ_EXTATTRIBUTES | ACL_READ_SECURITY;
  }
  if (bits & PosixAcl::kWrite) rights |= ACL_WRITE_ATTRIBUTES | ACL_WRITE_EXTATTRIBUTES;
  return rights;
}

PosixMapping::Enforced PosixMapping::enforce(const ExtendedEntries& entries,
                                             const ItemOwnership& item, const Identities& users) {
  Enforced enforced;
  enforced.access = withNamed(item.mode, namedEntries(entries, item, users, namedIn(entries)));
  if (item.isFolder) enforced.defaults = defaultAcl(entries, item, users);
  return enforced;
}

ExtendedEntries PosixMapping::translate(const PosixAcl& access,
                                        const std::optional<PosixAcl>& defaults, bool isFolder) {
  ExtendedEntries entries;
  auto add = [&](const PosixAcl& acl, uint32_t flags) {
    const uint16_t mask = acl.perm(PosixAcl::Mask).value_or(7);
    for (const PosixAcl::Entry& e : acl.entries()) {
      if (e.tag != PosixAcl::User && e.tag != PosixAcl::Group) continue;
      ExtendedEntry entry;
      entry.tag = ACL_EXTENDED_ALLOW;
      if (e.tag == PosixAcl::User) {
        IdentityUuid::forUser(e.id, entry.qualifier.data());
      } else {
        IdentityUuid::forGroup(e.id, entry.qualifier.data());
      }
      entry.rights = translatedRights(e.perm & mask, isFolder || flags != 0);
      entry.flags = flags;
      entries.push_back(entry);
    }
  };
  add(access, 0);
  if (isFolder && defaults) {
    add(*defaults, ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_ONLY_INHERIT);
  }
  return entries;
}

}  // namespace qx::xacl
