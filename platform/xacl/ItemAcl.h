#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "platform/xacl/AccessEvaluator.h"
#include "platform/xacl/ExtendedEntry.h"
#include "platform/xacl/PosixAcl.h"
#include "platform/xacl/PosixMapping.h"

namespace qx::xacl {

// Where the ACL shown for an item comes from.
enum class AclSource {
  None,         // no ACL
  Stored,       // the extended ACL stored on the item, still what Linux enforces
  Translation,  // the item's POSIX ACL, put in extended entries
};

// An item's two layers as read: what is shown, and what is enforced.
struct AclState {
  AclSource source = AclSource::None;
  // A stored extended ACL is there but is not what Linux enforces (someone changed the POSIX
  // ACL, the mode's mask, a membership, or the attribute itself).
  bool storedNotInForce = false;
  ExtendedEntries entries;  // the ACL shown (empty for None)
  ExtendedEntries stored;   // the stored ACL, in force or not
  PosixAcl access;          // the item's access ACL; the mode's three entries when it has none
  std::optional<PosixAcl> defaults;  // a folder's default ACL
  ItemOwnership item;  // owner, owning group, mode bits (owning group's from its ACL entry)
  struct stat st {};
  bool examined = false;  // the item could be examined: `st` and `item` hold
};

// The two layers of an item: its POSIX ACL, which Linux enforces, and its whole extended ACL
// in the attribute "user.qxfile.acl". Symbolic links (and anything but files and folders)
// carry neither. Functions answer 0, or -1 with errno.
class ItemAcl {
 public:
  ItemAcl() = delete;

  static constexpr const char* kPosixAccess = "system.posix_acl_access";
  static constexpr const char* kPosixDefault = "system.posix_acl_default";

  // Reads both layers of the item itself (never a link's target) and decides what is shown:
  // the stored ACL while it is current (the POSIX ACL it maps to, with the item's owner, group
  // and mode and the memberships now, is the item's), else the translation of a POSIX ACL
  // with named entries or a default ACL, else nothing. Never writes. A damaged attribute:
  // EINVAL.
  static int read(const char* path, AclState* state);

  // Sets the enforcing POSIX ACL (access; on folders also the default ACL, set or removed),
  // then stores `entries`. No entries: removes the named entries, the mask, the default ACL
  // and the attribute; the mode stays. A non-empty ACL where the file system has no POSIX ACLs,
  // or on anything but a file or folder: ENOTSUP, nothing stored. Never follows a link.
  static int write(const char* path, const ExtendedEntries& entries);

  // The owner, owning-group and other bits (0777) of the item, the owning group's from its
  // POSIX ACL's group entry where there is a mask. `st` is the item's lstat data.
  static int modeBits(const char* path, const struct stat& st, mode_t* bits);
  // Writes those bits: the mode, and where the item's POSIX ACL has a mask, its group entry
  // too (a mode change alone would change the mask), the mask being recomputed. Clears the
  // set-id and sticky bits, as a mode change to `bits` does.
  static int setModeBits(const char* path, mode_t bits);

  // The item's access ACL, or the mode's three entries when it has none, and a folder's
  // default ACL. `path` names the item itself (it is not followed if a link).
  static int readPosix(const std::string& path, const struct stat& st, PosixAcl* access,
                       std::optional<PosixAcl>* defaults);

  // The POSIX ACL that enforces `entries` on an item, with the named users' memberships now.
  static PosixMapping::Enforced enforcing(const ExtendedEntries& entries,
                                          const ItemOwnership& item);
};

}  // namespace qx::xacl
