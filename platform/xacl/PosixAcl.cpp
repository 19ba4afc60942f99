#include "platform/xacl/PosixAcl.h"

#include <algorithm>

namespace qx::xacl {

namespace {

bool named(uint16_t tag) {
  return tag == PosixAcl::User || tag == PosixAcl::Group;
}

bool before(const PosixAcl::Entry& a, const PosixAcl::Entry& b) {
  return a.tag != b.tag ? a.tag < b.tag : a.id < b.id;
}

}  // namespace

PosixAcl PosixAcl::fromMode(mode_t mode) {
  PosixAcl acl;
  acl.set(UserObj, (mode >> 6) & 7);
  acl.set(GroupObj, (mode >> 3) & 7);
  acl.set(Other, mode & 7);
  return acl;
}

void PosixAcl::set(uint16_t tag, uint16_t perm, uint32_t id) {
  Entry entry{tag, static_cast<uint16_t>(perm & 7), named(tag) ? id : 0};
  auto it = std::lower_bound(entries_.begin(), entries_.end(), entry, before);
  if (it != entries_.end() && it->tag == entry.tag && it->id == entry.id) {
    it->perm = entry.perm;
  } else {
    entries_.insert(it, entry);
  }
}

void PosixAcl::erase(uint16_t tag, uint32_t id) {
  std::erase_if(entries_, [&](const Entry& e) { return e.tag == tag && e.id == id; });
}

std::optional<uint16_t> PosixAcl::perm(uint16_t tag, uint32_t id) const {
  for (const Entry& e : entries_) {
    if (e.tag == tag && e.id == id) return e.perm;
  }
  return std::nullopt;
}

bool PosixAcl::hasNamedEntries() const {
  return std::any_of(entries_.begin(), entries_.end(), [](const Entry& e) { return named(e.tag); });
}

bool PosixAcl::isMinimal() const {
  return std::all_of(entries_.begin(), entries_.end(), [](const Entry& e) {
    return e.tag == UserObj || e.tag == GroupObj || e.tag == Other;
  });
}

void PosixAcl::recomputeMask() {
  erase(Mask);
  if (!hasNamedEntries()) return;
  uint16_t mask = 0;
  for (const Entry& e : entries_) {
    if (named(e.tag) || e.tag == GroupObj) mask |= e.perm;
  }
  // The kernel consults an ACL only while the mode's group bits, the mask, are not all clear:
  // an empty mask would hand named users and groups the other bits. The entries it limits
  // grant nothing then, so any bit keeps them at that; read is the one a new item's mask keeps
  // when this ACL is a folder's default and the item is created 0666 or 0777.
  set(Mask, mask != 0 ? mask : kRead);
}

mode_t PosixAcl::modeBits() const {
  return static_cast<mode_t>(perm(UserObj).value_or(0) << 6 | perm(GroupObj).value_or(0) << 3 |
                             perm(Other).value_or(0));
}

mode_t PosixAcl::statModeBits() const {
  const uint16_t group = perm(Mask).value_or(perm(GroupObj).value_or(0));
  return static_cast<mode_t>(perm(UserObj).value_or(0) << 6 | group << 3 | perm(Other).value_or(0));
}

bool PosixAcl::permits(std::optional<uint32_t> uid, const std::vector<uint32_t>& gids,
                       uint32_t owner, uint32_t owningGroup, uint16_t want) const {
  auto holds = [want](uint16_t bits) { return (bits & want) == want; };
  auto masked = [&](uint16_t bits) {
    std::optional<uint16_t> mask = perm(Mask);
    return holds(bits) && (!mask || holds(*mask));
  };
  auto inGroup = [&](uint32_t gid) {
    return std::find(gids.begin(), gids.end(), gid) != gids.end();
  };
  if (uid && *uid == owner) return holds(perm(UserObj).value_or(0));
  // With no group bits in the mode the kernel leaves the ACL aside: members of the owning
  // group get those bits (none), everyone else the other bits.
  if ((statModeBits() & 070) == 0) {
    return holds(inGroup(owningGroup) ? 0 : perm(Other).value_or(0));
  }
  bool groupFound = false;
  for (const Entry& e : entries_) {
    switch (e.tag) {
      case User:
        if (uid && *uid == e.id) return masked(e.perm);
        break;
      case GroupObj:
      case Group:
        if (inGroup(e.tag == GroupObj ? owningGroup : e.id)) {
          groupFound = true;
          if (holds(e.perm)) return masked(e.perm);
        }
        break;
      case Other:
        return !groupFound && holds(e.perm);
      default:
        break;
    }
  }
  return false;
}

}  // namespace qx::xacl
