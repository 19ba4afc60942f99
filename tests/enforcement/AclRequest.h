#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "qxfile/Records.h"
#include "tests/support/AclFixtures.h"

// Entry listings as a client writes them, and the rights read back from an effective access answer,
// through the typed client records.
namespace qx::test::acl {

inline constexpr int32_t kAllow = 1;
inline constexpr int32_t kDeny = 2;

// Rights and flags by their numbers in the extended ACL.
inline constexpr uint32_t kReadData = 0x2;     // List Folder Contents
inline constexpr uint32_t kWriteData = 0x4;    // Create Files
inline constexpr uint32_t kExecute = 0x8;      // Traverse Folder
inline constexpr uint32_t kAppendData = 0x20;  // Create Folder
inline constexpr uint32_t kDeleteChild = 0x40;
inline constexpr uint32_t kAllRights = 0x3ffe;
inline constexpr uint32_t kInherited = 0x10;
inline constexpr uint32_t kFileInherit = 0x20;
inline constexpr uint32_t kDirectoryInherit = 0x40;
inline constexpr uint32_t kLimitInherit = 0x80;
inline constexpr uint32_t kOnlyInherit = 0x100;
inline constexpr uint32_t kInheritance =
    kFileInherit | kDirectoryInherit | kLimitInherit | kOnlyInherit;

inline qxfile::Identity identityOf(const qx::UuidPtr& who) {
  const std::string text = who->UUIDString();
  const auto id = static_cast<uint32_t>(std::stoul(text.substr(28), nullptr, 16));
  return text.rfind(userUuidText(0).substr(0, 28), 0) == 0 ? qxfile::Identity::user(id)
                                                           : qxfile::Identity::group(id);
}

// The listing that gives an item `entries`, `owner`, `group` and `mode`.
inline qxfile::AclListing listing(const std::vector<Ace>& entries, bool folder, mode_t mode,
                                  uid_t owner, gid_t group) {
  qxfile::AclListing listing;
  listing.folder = folder;
  for (const Ace& ace : entries) {
    listing.acl.push_back({identityOf(ace.who), ace.tag == kDeny, (ace.flags & kInherited) != 0,
                           ace.rights, folder ? ace.flags & kInheritance : 0});
  }
  listing.owner = {qxfile::Identity::user(owner), static_cast<unsigned>(mode >> 6) & 7};
  listing.group = {qxfile::Identity::group(group), static_cast<unsigned>(mode >> 3) & 7};
  listing.everyone = {qxfile::Identity{qxfile::Identity::Kind::Everyone, 0, "", ""},
                      static_cast<unsigned>(mode) & 7};
  return listing;
}

// The rights an effective access answer grants.
inline uint32_t grantedRights(const qxfile::EffectiveAccess& access) {
  uint32_t rights = 0;
  for (const auto& group : access.groups) {
    for (const auto& right : group.rights) {
      if (right.granted) rights |= right.right;
    }
  }
  return rights;
}

// An entry as text: tag, qualifier, rights, inheritance flags and the inherited mark.
inline std::string aceText(bool deny, const std::string& who, uint32_t rights, uint32_t flags,
                           bool inherited) {
  char text[128];
  std::snprintf(text, sizeof text, "%s %s rights 0x%x flags 0x%x%s\n", deny ? "deny" : "allow",
                who.c_str(), rights, flags, inherited ? " inherited" : "");
  return text;
}

// The entries of a listing as text, one a line.
inline std::string aclPartText(const qxfile::AclListing& listing) {
  std::string text;
  for (const qxfile::AclEntry& entry : listing.acl) {
    text +=
        aceText(entry.deny, entry.identity.uuid, entry.rights, entry.inheritance, entry.inherited);
  }
  return text;
}

// `entries` as aclPartText shows them once written to a file or a folder: a file has neither Delete
// Child nor inheritance flags.
inline std::string aclPartText(const std::vector<Ace>& entries, bool folder) {
  std::string text;
  for (const Ace& ace : entries) {
    text += aceText(ace.tag == kDeny, ace.who->UUIDString(),
                    ace.rights & (folder ? kAllRights : kAllRights & ~kDeleteChild),
                    folder ? ace.flags & kInheritance : 0, (ace.flags & kInherited) != 0);
  }
  return text;
}

}  // namespace qx::test::acl
