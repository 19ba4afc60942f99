#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "platform/foundation/Foundation.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/xacl.h"
#include "tests/support/TempTree.h"

namespace qxacltest {

using namespace qx::xacl;

// The users and groups of tests/acl/nss.
inline constexpr uid_t kOwner = 2101;    // owns the items under test
inline constexpr uid_t kMember = 2102;   // supplementary member of qxteam
inline constexpr uid_t kPrimary = 2103;  // primary group qxteam, not listed in it
inline constexpr uid_t kOther = 2104;    // in none of the items' groups
inline constexpr uid_t kUnknown = 2999;  // no passwd entry
inline constexpr gid_t kOwnerGroup = 3101;
inline constexpr gid_t kMemberGroup = 3102;
inline constexpr gid_t kOtherGroup = 3104;
inline constexpr gid_t kTeam = 3110;
inline constexpr gid_t kDenied = 3111;

qx::UuidPtr userUuid(uid_t uid);
qx::UuidPtr groupUuid(gid_t gid);

// A temporary folder everybody may search, whose items get their owners
// (root only; failures show in the tests' own checks).
class AclTree : public qx::test::TempTree {
 public:
  AclTree() : TempTree("qx-acl") {}
  std::string ownedFile(const std::string& name, mode_t mode = 0644, uid_t uid = kOwner,
                        gid_t gid = kTeam) const;
  std::string ownedFolder(const std::string& name, mode_t mode = 0755, uid_t uid = kOwner,
                          gid_t gid = kTeam) const;
};

// One entry of an extended ACL in the platform's terms.
struct Ace {
  int32_t tag;  // ACL_EXTENDED_ALLOW or ACL_EXTENDED_DENY
  qx::UuidPtr who;
  uint32_t perms;
  uint32_t flags = 0;  // inheritance flags and ACL_ENTRY_INHERITED
};
inline Ace allow(qx::UuidPtr who, uint32_t perms, uint32_t flags = 0) {
  return {ACL_EXTENDED_ALLOW, std::move(who), perms, flags};
}
inline Ace deny(qx::UuidPtr who, uint32_t perms, uint32_t flags = 0) {
  return {ACL_EXTENDED_DENY, std::move(who), perms, flags};
}

// The ACL of `entries`, built through the extended ACL interface.
AclHandle aclOf(const std::vector<Ace>& entries);
// ACLs are compared in the interface's text form, one entry a line.
std::string aclText(const std::vector<Ace>& entries);
std::string aclText(acl_t acl);
// Stores `entries` as the item's ACL through the extended ACL interface.
bool setAcl(const std::string& path, const std::vector<Ace>& entries);
// The item's stored ACL as text; "no ACL" when it has none.
std::string storedAcl(const std::string& path);
bool hasAclAttribute(const std::string& path);
bool setDamagedAcl(const std::string& path);

// ---- Permission trees as the entry listing builds them ----

QXAclPermissionPtr recordOf(const qx::ObjectPtr& node);
std::string nameOf(const qx::ObjectPtr& node);

struct Leaf {
  std::string name;
  int64_t value;
  int64_t state;
};
std::vector<Leaf> childrenOf(const qx::ObjectPtr& node);
// Leaf name -> state over every group of a tree.
std::map<std::string, int64_t> leafStates(const qx::ArrayPtr& groups);

QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state);
// The record of `ace` as a listing of a folder (with "Applies to") or a file shows it.
QXAclEntryPtr aclEntry(const Ace& ace, bool folder);
// The owner, group and everyone pseudo-entries for `mode`.
std::vector<qx::ObjectPtr> pseudoEntries(mode_t mode, uid_t owner, gid_t group,
                                         bool folder = false);
// "ACL", the entries, "POSIX", the pseudo-entries: the shape of a listing.
qx::ArrayPtr listing(const std::vector<qx::ObjectPtr>& aclEntries,
                     const std::vector<qx::ObjectPtr>& pseudo);

// A node and its children as text: "Name:0xPERMISSION=STATE, Child:0x..=.., ...".
std::string nodeText(const qx::ObjectPtr& node);
// A listing as text, markers and records alike, every node with its name,
// permission and state, so that a difference shows where it is.
std::string listingText(const qx::ArrayPtr& entries);

// ---- Errors and other users ----

// Checks an error: the POSIX domain, `code`, the description and, when given,
// the recovery suggestion.
void expectError(const qx::ErrorPtr& error, int64_t code, const std::string& description,
                 const std::optional<std::string>& suggestion = std::nullopt);
// "ok", or the error's code, description and recovery suggestion, one a line:
// what a child process reports about an operation.
std::string outcome(bool result, const qx::ErrorPtr& error);

inline struct stat lstatOf(const std::string& path) {
  struct stat st {};
  lstat(path.c_str(), &st);
  return st;
}
inline qx::UrlPtr urlOf(const std::string& path) {
  return qx::Url::fileURLWithPath(path);
}

}  // namespace qxacltest
