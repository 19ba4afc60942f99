#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace qx::xacl {

// A POSIX.1e ACL (access or default) as the kernel keeps it, as a plain value. Entries are
// kept in the kernel's order (by tag, then id), so two ACLs with the same entries compare
// equal whatever order they were added in.
class PosixAcl {
 public:
  // The kernel's tag values.
  enum Tag : uint16_t {
    UserObj = 0x01,
    User = 0x02,
    GroupObj = 0x04,
    Group = 0x08,
    Mask = 0x10,
    Other = 0x20,
  };
  static constexpr uint16_t kRead = 4, kWrite = 2, kExecute = 1;

  struct Entry {
    uint16_t tag = 0;
    uint16_t perm = 0;  // rwx as 4, 2, 1
    uint32_t id = 0;    // for User and Group; 0 otherwise
    bool operator==(const Entry&) const = default;
  };

  PosixAcl() = default;
  // The three entries that say what the mode's permission bits say.
  static PosixAcl fromMode(mode_t mode);

  // Adds or replaces the entry with the same tag (and id, for named entries).
  void set(uint16_t tag, uint16_t perm, uint32_t id = 0);
  void erase(uint16_t tag, uint32_t id = 0);
  std::optional<uint16_t> perm(uint16_t tag, uint32_t id = 0) const;
  const std::vector<Entry>& entries() const { return entries_; }
  bool empty() const { return entries_.empty(); }

  // Named user or group entries present.
  bool hasNamedEntries() const;
  // Only the owner, owning group and other entries: the mode says it all.
  bool isMinimal() const;
  // Sets the mask to the union of the named and owning-group entries, or drops it when there
  // are no named entries. Where that union is empty the mask is read: the kernel would ignore
  // an ACL whose mask is empty, and every entry it limits grants nothing either way.
  void recomputeMask();

  // The owner, owning-group and other bits as 0777 bits, the owning group's from its own
  // entry (not the mask).
  mode_t modeBits() const;
  // The permission bits the kernel shows in st_mode: the mask in place of the group bits
  // where there is one.
  mode_t statModeBits() const;

  // The kernel's check (posix_acl_permission): owner, named user, then the owning group and
  // named groups (any matching entry holding every wanted bit), then others; named and group
  // entries limited by the mask. Where the mode's group bits (the mask, if any) are all clear
  // the kernel does not consult the ACL: the owning group's members get nothing, others and
  // named users and groups the other bits. `uid` empty for a group asked about on its own.
  bool permits(std::optional<uint32_t> uid, const std::vector<uint32_t>& gids, uint32_t owner,
               uint32_t owningGroup, uint16_t want) const;

  bool operator==(const PosixAcl&) const = default;

 private:
  std::vector<Entry> entries_;
};

}  // namespace qx::xacl
