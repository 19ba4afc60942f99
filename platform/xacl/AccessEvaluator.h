#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>

#include "platform/xacl/AclIdentity.h"
#include "platform/xacl/ExtendedEntry.h"

namespace qx::xacl {

// The owner, owning group and permission bits an item's access is judged against.
struct ItemOwnership {
  uint32_t owner = 0;  // uid
  uint32_t group = 0;  // gid
  // Owner, owning-group and other bits (0777). Where a POSIX ACL has a mask, the owning
  // group's bits are those of its group entry, not the mask.
  mode_t mode = 0;
  bool isFolder = false;
};

// The rights an identity holds on an item, decided by the item's extended ACL entries and then
// its mode. Pure: memberships come resolved with the identity.
class AccessEvaluator {
 public:
  AccessEvaluator() = delete;

  static constexpr int kMode = -1;  // decided by the mode, not by an entry

  struct Decision {
    int status = 0;        // an error number when a membership could not be answered
    uint32_t granted = 0;  // the rights granted, among those shown for the item's kind
    // For each right bit (index = bit position), the entry that decided it, or kMode.
    std::array<int, 32> decidedBy{};
    int decider(uint32_t right) const;
  };

  // Entries in order: the first entry that applies to the identity and names a right decides
  // it, allow or deny. "Read Permissions" follows "Read Attributes": a later denying entry
  // takes an allowed "Read Permissions" back while "Read Attributes" is not granted, and a
  // denied "Read Attributes" takes it back at the end. Rights no entry decides come from the
  // mode bits of the identity's class (owner, owning group or member, others). A folder that
  // cannot be searched grants no right to add or remove its contents.
  static Decision evaluate(const ExtendedEntries& entries, const AclIdentity& identity,
                           const ItemOwnership& item);

  enum class Search { Undecided, Allowed, Denied };
  // The first applying entry that names search decides; Undecided when none does.
  static int searchByEntries(const ExtendedEntries& entries, const AclIdentity& identity,
                             Search* verdict);
  // The execute bit of the identity's class.
  static int searchByMode(const AclIdentity& identity, const ItemOwnership& item, bool* allowed);

  // The rights of the permission table shown for a file or for a folder.
  static uint32_t rightsFor(bool isFolder);

 private:
  enum class PosixClass { Owner, Group, Other };
  static int classify(const AclIdentity& identity, const ItemOwnership& item, PosixClass* cls);
};

}  // namespace qx::xacl
