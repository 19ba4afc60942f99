#pragma once

#include <grp.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/String.h"
#include "platform/foundation/Url.h"
#include "platform/foundation/Uuid.h"
#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/xacl.h"

namespace qxtest {

// Users and groups of this folder's nss files.
inline constexpr uid_t kAlice = 2001;
inline constexpr uid_t kBob = 2002;
inline constexpr gid_t kAliceGroup = 3001;
inline constexpr gid_t kBobGroup = 3002;
inline constexpr gid_t kStaff = 3010;

inline constexpr const char* kSaveTitle = "Error saving file Acces Control List entries";
inline constexpr const char* kPropagateTitle =
    "Error propagating file Access Control List, POSIX permissions, owner and "
    "group";

// A fresh folder under the system's temporary folder, removed with its contents
// at the end (made searchable again first, so that tests may lock parts of it).
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qx-aclmod-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    if (path_.empty()) return;
    std::error_code ignored;
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
      if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
        chmod(it->path().c_str(), 0700);
      }
    }
    chmod(path_.c_str(), 0700);
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline bool makeFile(const std::string& path, mode_t mode = 0644) {
  FILE* file = fopen(path.c_str(), "w");
  if (file == nullptr) return false;
  fclose(file);
  return chmod(path.c_str(), mode) == 0;
}

inline bool makeFolder(const std::string& path, mode_t mode = 0755) {
  return mkdir(path.c_str(), 0700) == 0 && chmod(path.c_str(), mode) == 0;
}

inline struct stat lstatOf(const std::string& path) {
  struct stat st {};
  lstat(path.c_str(), &st);
  return st;
}

inline mode_t modeOf(const std::string& path) {
  return lstatOf(path).st_mode & 07777;
}

inline qx::UrlPtr urlOf(const std::string& path) {
  return qx::Url::fileURLWithPath(path);
}

inline qx::UuidPtr userUuid(uid_t uid) {
  uint8_t bytes[16];
  qx::IdentityUuid::forUser(uid, bytes);
  return qx::Uuid::withBytes(bytes);
}

inline qx::UuidPtr groupUuid(gid_t gid) {
  uint8_t bytes[16];
  qx::IdentityUuid::forGroup(gid, bytes);
  return qx::Uuid::withBytes(bytes);
}

// ---- Entry records, built from the tables as the entry listing shows them
// ----

inline QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, permission, state));
}

inline QXAclPermissionPtr recordOf(const qx::ObjectPtr& object) {
  auto treeNode = qx::cast<qx::TreeNode>(object);
  return treeNode ? treeNode->representedObjectAs<QXAclPermission>() : nullptr;
}

// What one ACL entry holds, in the platform's terms.
struct AclFields {
  int32_t tag;
  qx::UuidPtr uuid;
  uint32_t perms;
  uint32_t flags;  // inheritance flags and ACL_ENTRY_INHERITED

  bool operator==(const AclFields& other) const {
    return tag == other.tag && qx::isEqual(uuid, other.uuid) && perms == other.perms &&
           flags == other.flags;
  }
};

// A record of tree shape 2 (folder, with its "Applies to" node) or 1 (file).
inline QXAclEntryPtr aclEntry(const AclFields& fields, bool folder) {
  using namespace qx::xacl;
  auto permissions = qx::MutableArray::make(4);
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = node(group->name, kQXGroupNodePermission, 0);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, folder)) continue;
      groupNode->mutableChildNodes().addObject(
          node(row->name, row->value, (fields.perms & row->value) ? 1 : 0));
    }
    QXAclEntry::resolveStateForPermissionNode(groupNode);
    permissions->addObject(groupNode);
  }
  if (folder) {
    const bool childFolders = (fields.flags & ACL_ENTRY_DIRECTORY_INHERIT) != 0;
    auto appliesTo = node("Applies to", kQXAppliesToPermission, 0);
    auto add = [&](const char* name, uint32_t flag, bool on) {
      appliesTo->mutableChildNodes().addObject(node(name, flag, on ? 1 : 0));
    };
    add("This item", ACL_ENTRY_ONLY_INHERIT, (fields.flags & ACL_ENTRY_ONLY_INHERIT) == 0);
    add("Child files", ACL_ENTRY_FILE_INHERIT, (fields.flags & ACL_ENTRY_FILE_INHERIT) != 0);
    add("Child folders", ACL_ENTRY_DIRECTORY_INHERIT, childFolders);
    add("All descendants", ACL_ENTRY_LIMIT_INHERIT,
        childFolders && (fields.flags & ACL_ENTRY_LIMIT_INHERIT) == 0);
    QXAclEntry::resolveStateForPermissionNode(appliesTo);
    permissions->addObject(appliesTo);
  }
  return QXAclEntry::make(fields.uuid, fields.tag, permissions->copy(),
                          (fields.flags & ACL_ENTRY_INHERITED) != 0);
}

// The owner, group and everyone pseudo-entries for `mode`, naming `owner` and
// `group`.
inline std::vector<qx::ObjectPtr> pseudoEntries(mode_t mode, uid_t owner, gid_t group,
                                                bool folder = false) {
  std::vector<qx::ObjectPtr> entries;
  const qx::UuidPtr identities[3] = {userUuid(owner), groupUuid(group), nullptr};
  for (int who = 0; who < 3; ++who) {
    const int shift = 6 - 3 * who;
    auto bit = [&](int value) -> int64_t { return (mode >> shift) & value ? 1 : 0; };
    auto permissions = qx::Array::make(
        {node("Read", folder ? 0x80 : 2, bit(4)), node("Write", folder ? 0x100 : 4, bit(2)),
         node(folder ? "Traverse Folder" : "Execute File", folder ? 0x1000 : 8, bit(1))});
    entries.push_back(QXAclEntry::make(identities[who], 1, permissions, false));
  }
  return entries;
}

// "ACL", the ACL entries, "POSIX", then the pseudo-entries: the shape of a
// listing.
inline qx::ArrayPtr listing(const std::vector<qx::ObjectPtr>& aclEntries,
                            const std::vector<qx::ObjectPtr>& pseudo) {
  auto array = qx::MutableArray::make();
  array->addObject(qx::str("ACL"));
  for (const auto& entry : aclEntries) array->addObject(entry);
  array->addObject(qx::str("POSIX"));
  for (const auto& entry : pseudo) array->addObject(entry);
  return array;
}

// ---- Reading ACLs back through the platform interface ----

// Every entry of `acl` in order.
std::vector<AclFields> fieldsOf(qx::xacl::acl_t acl);
// The stored ACL of the item at `path`; nullopt when it has none.
std::optional<std::vector<AclFields>> storedAcl(const std::string& path);
bool hasAclAttribute(const std::string& path);
std::string describe(const std::vector<AclFields>& entries);

// ---- Errors ----

// The step sentence `format` with the path in place of its "%s".
std::string stepText(const std::string& format, const std::string& path);
// The recovery suggestion an operation error carries for a step: the step's
// sentence and the system's text for the number.
std::string suggestionFor(const std::string& format, const std::string& path, int errnum);
// Checks an operation's error for a failed step: the POSIX domain, `code`,
// the operation's `title` as description and the step's recovery suggestion.
void expectStepError(const qx::ErrorPtr& error, const char* title, int64_t code,
                     const std::string& format, const std::string& path);

// ---- Other users ----

// Runs `body` in a child process as `uid`/`gid` with no supplementary groups
// (when the tests run as root; as they are otherwise) and returns what it
// wrote, or nullopt when the child could not take the ids or died.
std::optional<std::string> runAs(uid_t uid, gid_t gid, const std::function<std::string()>& body);

// "ok", or the error's code, description and recovery suggestion, one a line:
// what a child process reports about an operation.
std::string outcome(bool result, const qx::ErrorPtr& error);

}  // namespace qxtest
