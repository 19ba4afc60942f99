#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "model/QXAclEntry.h"
#include "platform/foundation/Foundation.h"
#include "platform/xacl/AclCodec.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclText.h"
#include "platform/xacl/ItemAcl.h"
#include "tests/platform/xacl/XaclTestSupport.h"
#include "tests/support/AclFixtures.h"
#include "tests/support/PermissionTrees.h"
#include "tests/support/TempTree.h"

namespace qxacltest {

using namespace qx::xacl;
using namespace qx::test;

// A temporary folder everybody may search, whose items get their owners (root only; failures show
// in the tests' own checks).
class AclTree : public TempTree {
 public:
  AclTree() : TempTree("qx-acl") {}
  std::string ownedFile(const std::string& name, mode_t mode = 0644, uid_t uid = kOwner,
                        gid_t gid = kTeam) const {
    file(name);
    return owned(name, mode, uid, gid);
  }
  std::string ownedFolder(const std::string& name, mode_t mode = 0755, uid_t uid = kOwner,
                          gid_t gid = kTeam) const {
    folder(name, 0700);
    return owned(name, mode, uid, gid);
  }

 private:
  std::string owned(const std::string& name, mode_t mode, uid_t uid, gid_t gid) const {
    if (lchown(path(name).c_str(), uid, gid) == 0) chmod(path(name).c_str(), mode);
    return path(name);
  }
};

inline Ace allow(qx::UuidPtr who, uint32_t perms, uint32_t flags = 0) {
  return {ACL_EXTENDED_ALLOW, std::move(who), perms, flags};
}
inline Ace deny(qx::UuidPtr who, uint32_t perms, uint32_t flags = 0) {
  return {ACL_EXTENDED_DENY, std::move(who), perms, flags};
}

// The ACL of `entries`, built through the extended ACL interface.
inline AclHandle aclOf(const std::vector<Ace>& entries) {
  AclHandle acl(acl_init(static_cast<int>(entries.size())));
  for (const Ace& ace : entries) {
    qx::xacl::test::addEntry(acl.get(), ace.tag, ace.who ? ace.who->bytes().data() : nullptr,
                             ace.rights, ace.flags);
  }
  return acl;
}

// ACLs are compared in the interface's text form, one entry a line.
inline std::string aclText(acl_t acl) {
  return AclText::format(acl).value_or("not an ACL");
}
inline std::string aclText(const std::vector<Ace>& entries) {
  return aclText(aclOf(entries).get());
}

inline bool setAcl(const std::string& path, const std::vector<Ace>& entries) {
  return acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, aclOf(entries).get()) == 0;
}

using qx::xacl::test::hasAclAttribute;
using qx::xacl::test::storedAcl;

// The stored layer alone: the attribute's entries as text, whatever the item's POSIX ACL says.
inline std::string attributeAcl(const std::string& path) {
  std::vector<uint8_t> bytes(AclCodec::kMaxSize);
  ssize_t length = lgetxattr(path.c_str(), kAclAttributeName, bytes.data(), bytes.size());
  if (length < 0) return "no ACL";
  AclHandle acl(acl_init(0));
  bytes.resize(static_cast<size_t>(length));
  return AclCodec::decode(bytes, *acl.get()) != 0 ? "damaged" : aclText(acl.get());
}

// The owner, owning-group and other bits as the item's POSIX ACL shows them (the owning group's
// from its entry, not the mask), with the set-id and sticky bits.
inline mode_t shownMode(const std::string& path) {
  struct stat st;
  mode_t bits = 0;
  if (lstat(path.c_str(), &st) != 0 || ItemAcl::modeBits(path.c_str(), st, &bits) != 0) return 0;
  return (st.st_mode & 07000) | bits;
}

inline bool setDamagedAcl(const std::string& path) {
  const char junk[] = "not an access control list";
  return lsetxattr(path.c_str(), kAclAttributeName, junk, sizeof junk, 0) == 0;
}

// ---- Permission trees as the entry listing shows them ----

inline QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state,
                          const std::vector<QXTreeNodePtr>& children = {}) {
  return permissionNode(name, permission, state, children);
}

// The record of `ace` as a listing of a folder (with "Applies to") or a file shows it.
inline QXAclEntryPtr aclEntry(const Ace& ace, bool folder) {
  return entryRecord(ace.who, ace.tag, ace.rights, ace.flags, folder);
}

// The owner, group and everyone pseudo-entries for `mode`.
inline std::vector<qx::ObjectPtr> pseudoEntries(mode_t mode, uid_t owner, gid_t group,
                                                bool folder = false) {
  std::vector<qx::ObjectPtr> entries;
  const qx::UuidPtr identities[3] = {userUuid(owner), groupUuid(group), nullptr};
  for (int who = 0; who < 3; ++who) {
    auto bit = [&](int value) -> int64_t { return (mode >> (6 - 3 * who)) & value ? 1 : 0; };
    entries.push_back(posixRecord(identities[who], bit(4), bit(2), bit(1), folder));
  }
  return entries;
}

// "ACL", the entries, "POSIX", the pseudo-entries: the shape of a listing.
inline qx::ArrayPtr listing(const std::vector<qx::ObjectPtr>& aclEntries,
                            const std::vector<qx::ObjectPtr>& pseudo) {
  auto array = qx::MutableArray::make();
  array->addObject(qx::str("ACL"));
  for (const auto& entry : aclEntries) array->addObject(entry);
  array->addObject(qx::str("POSIX"));
  for (const auto& entry : pseudo) array->addObject(entry);
  return array;
}

// A listing as text, markers and records alike, one a line, so that a difference shows where it is.
inline std::string listingText(const qx::ArrayPtr& entries) {
  if (!entries) return "no listing";
  std::string text;
  for (const qx::ObjectPtr& object : *entries) {
    auto entry = qx::cast<QXAclEntry>(object);
    text += (entry ? entryText(entry) : qx::cast<qx::String>(object)->str()) + "\n";
  }
  return text;
}

// ---- Errors and other users ----

// Step messages; "%s" stands for the item's path.
inline const std::string kRetrieveAcl =
    "Couldn't retrieve file Acces Control List for file at path \"%s\".";
inline const std::string kRelease =
    "Couldn't release file Acces Control List storage for file at path \"%s\".";
// A step's message for `path`, followed by strerror(`number`) when one is given.
inline std::string step(const std::string& format, const std::string& path, int number = 0) {
  std::string text = format;
  text.replace(text.find("%s"), 2, path);
  return number ? text + " " + std::strerror(number) : text;
}

// "ok", or the error's code, description and recovery suggestion, one a line.
inline std::string outcome(bool result, const qx::ErrorPtr& error) {
  if (result && !error) return "ok";
  if (!error) return "failed without an error";
  return std::to_string(error->code()) + "\n" + error->localizedDescription() + "\n" +
         error->localizedRecoverySuggestion().value_or("<none>");
}
// The outcome of a failure: `code`, `title` and `step` (with strerror(`code`)) for `path`.
inline std::string failure(int code, const std::string& title, const std::string& format,
                           const std::string& path) {
  return std::to_string(code) + "\n" + title + "\n" + step(format, path, code);
}

inline std::string pathOf(const qx::ErrorPtr& error) {
  auto url = error ? error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey) : nullptr;
  return url ? url->path() : "<none>";
}

inline struct stat lstatOf(const std::string& path) {
  struct stat st {};
  lstat(path.c_str(), &st);
  return st;
}
inline qx::UrlPtr urlOf(const std::string& path) {
  return qx::Url::fileURLWithPath(path);
}

}  // namespace qxacltest
