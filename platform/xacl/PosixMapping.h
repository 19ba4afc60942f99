#pragma once

#include <map>
#include <optional>

#include "platform/xacl/AccessEvaluator.h"
#include "platform/xacl/AclIdentity.h"
#include "platform/xacl/ExtendedEntry.h"
#include "platform/xacl/PosixAcl.h"

namespace qx::xacl {

// Between extended ACLs and the POSIX ACLs that Linux enforces. Pure.
//
// POSIX bits stand for rights: r = Read Data (List Folder Contents); w = Write Data and Append
// Data (on a folder: Add File, Add Subfolder and Delete Child); x = Execute (Search). A bit is
// granted only when every right it stands for is.
class PosixMapping {
 public:
  PosixMapping() = delete;

  // The identities of the users named in an ACL, keyed by UUID, with their groups as NSS has
  // them now. A user missing here, or whose groups are unknown, counts as in no group.
  using Identities = std::map<AclUuid, AclIdentity>;

  struct Enforced {
    PosixAcl access;
    std::optional<PosixAcl> defaults;  // folders whose inheritable entries name someone

    bool operator==(const Enforced&) const = default;
  };

  // The POSIX ACL that enforces `entries` on an item. The owner, owning-group and other
  // entries are the item's mode, unchanged. Each user named gets its effective access; each
  // group named its effective access, with only the mode bits that the owning group and
  // others both hold, less what an earlier deny for another group takes away (the kernel
  // unions a user's group entries, the owning group's included); the mask is the union of
  // the named and owning-group entries, never empty. A folder's default ACL comes the same
  // way from the entries that a new file and a new folder both inherit (deny entries either
  // inherits are kept).
  static Enforced enforce(const ExtendedEntries& entries, const ItemOwnership& item,
                          const Identities& users);

  // Extended entries for what a POSIX ACL says: each named entry, masked, as an allow entry;
  // default entries as allow entries that only descendants inherit.
  static ExtendedEntries translate(const PosixAcl& access, const std::optional<PosixAcl>& defaults,
                                   bool isFolder);

  // The POSIX bits (4, 2, 1) that `granted` earns in full.
  static uint16_t bitsFor(uint32_t granted, bool isFolder);
  // The rights that POSIX bits stand for, all of them or those of `bits`.
  static uint32_t rightsOfBits(uint16_t bits, bool isFolder);
  // The rights a translated entry carries for `bits`.
  static uint32_t translatedRights(uint16_t bits, bool isFolder);
};

}  // namespace qx::xacl
