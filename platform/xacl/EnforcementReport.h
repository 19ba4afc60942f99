#pragma once

#include <cstdint>
#include <vector>

#include "platform/xacl/AccessEvaluator.h"
#include "platform/xacl/AclIdentity.h"
#include "platform/xacl/ExtendedEntry.h"

namespace qx::xacl {

// Which rights of each entry Linux cannot enforce exactly, and for whom. Pure.
class EnforcementReport {
 public:
  EnforcementReport() = delete;

  enum class For {
    Owner,        // a denial the owner's mode bits still grant
    OwningGroup,  // a denial the owning group's bits grant to its members
    Others,       // a denial the others' bits grant
    NoPosixBit,   // a right no POSIX bit stands for
    Partly,       // a POSIX bit whose rights the entry names only in part
  };

  struct Unenforced {
    uint32_t right;
    For who;
    bool operator==(const Unenforced&) const = default;
  };

  // One list per entry, in entry order; rights in the permission table's bit order. `owner`
  // is the item's owner with its groups.
  static std::vector<std::vector<Unenforced>> forEntries(const ExtendedEntries& entries,
                                                         const ItemOwnership& item,
                                                         const AclIdentity& owner);

  static const char* name(For who);
};

}  // namespace qx::xacl
