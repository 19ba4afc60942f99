#pragma once

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "model/QXAclPermission.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/TreeNode.h"
#include "platform/foundation/Url.h"
#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/xacl.h"

namespace qxacltest {

// The users and groups of tests/acl/nss.
inline constexpr uid_t kOwner = 2101;    // owns the items under test
inline constexpr uid_t kMember = 2102;   // supplementary member of qxteam
inline constexpr uid_t kPrimary = 2103;  // primary group qxteam, not listed in it
inline constexpr uid_t kOther = 2104;    // in none of the items' groups
inline constexpr uid_t kBlocked = 2105;  // member of qxteam and qxdenied
inline constexpr uid_t kUnknown = 2999;  // no passwd entry
inline constexpr gid_t kOwnerGroup = 3101;
inline constexpr gid_t kOtherGroup = 3104;
inline constexpr gid_t kTeam = 3110;
inline constexpr gid_t kDenied = 3111;

using UuidBytes = std::array<unsigned char, 16>;

inline UuidBytes userUuid(uid_t uid) {
  UuidBytes u{};
  qx::IdentityUuid::forUser(uid, u.data());
  return u;
}

inline UuidBytes groupUuid(gid_t gid) {
  UuidBytes u{};
  qx::IdentityUuid::forGroup(gid, u.data());
  return u;
}

inline qx::UuidPtr uuidObject(const UuidBytes& bytes) {
  return qx::Uuid::withBytes(bytes.data());
}

// A fresh folder that everybody may search, removed with its contents at the end.
class TempTree {
 public:
  TempTree() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qx-acl-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) root_ = pattern;
    chmod(root_.c_str(), 0755);
  }
  ~TempTree() {
    std::error_code ignored;
    if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }
  std::string path(const std::string& name) const { return root_ + "/" + name; }

  std::string file(const std::string& name, mode_t mode = 0644, uid_t uid = kOwner,
                   gid_t gid = kTeam) const {
    std::string p = path(name);
    int fd = open(p.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    if (fd >= 0) close(fd);
    own(p, mode, uid, gid);
    return p;
  }
  std::string folder(const std::string& name, mode_t mode = 0755, uid_t uid = kOwner,
                     gid_t gid = kTeam) const {
    std::string p = path(name);
    mkdir(p.c_str(), 0700);
    own(p, mode, uid, gid);
    return p;
  }
  std::string link(const std::string& name, const std::string& target, uid_t uid = kOwner,
                   gid_t gid = kTeam) const {
    std::string p = path(name);
    if (symlink(target.c_str(), p.c_str()) == 0) lchown(p.c_str(), uid, gid);
    return p;
  }

 private:
  // Failures show up in the tests' own checks of what they listed.
  static void own(const std::string& p, mode_t mode, uid_t uid, gid_t gid) {
    if (lchown(p.c_str(), uid, gid) == 0) chmod(p.c_str(), mode);
  }
  std::string root_;
};

inline qx::UrlPtr urlOf(const std::string& path) {
  return qx::Url::fileURLWithPath(path);
}

// One entry to store in an item's extended ACL.
struct Ace {
  UuidBytes who;
  int tag;  // ACL_EXTENDED_ALLOW or ACL_EXTENDED_DENY
  uint32_t perms;
  uint32_t flags = 0;
};

// Stores `entries` as the item's ACL through the extended ACL interface.
inline bool setAcl(const std::string& path, const std::vector<Ace>& entries) {
  using namespace qx::xacl;
  AclHandle acl(acl_init(static_cast<int>(entries.size())));
  if (!acl) return false;
  for (const Ace& ace : entries) {
    acl_t raw = acl.get();
    acl_entry_t entry = nullptr;
    acl_permset_t permset = nullptr;
    acl_flagset_t flagset = nullptr;
    if (acl_create_entry(&raw, &entry) != 0 || acl_set_tag_type(entry, ace.tag) != 0 ||
        acl_set_qualifier(entry, ace.who.data()) != 0 || acl_get_permset(entry, &permset) != 0 ||
        acl_get_flagset_np(entry, &flagset) != 0) {
      return false;
    }
    if (ace.perms != 0 && acl_add_perm(permset, ace.perms) != 0) return false;
    if (ace.flags != 0 && acl_add_flag_np(flagset, ace.flags) != 0) return false;
  }
  return acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, acl.get()) == 0;
}

// The stored form of an ACL without entries (magic, count 0, flags 0).
inline bool setEmptyStoredAcl(const std::string& path) {
  const unsigned char bytes[12] = {0x01, 0x2c, 0xc1, 0x6d, 0, 0, 0, 0, 0, 0, 0, 0};
  return lsetxattr(path.c_str(), qx::xacl::kAclAttributeName, bytes, sizeof bytes, 0) == 0;
}

inline bool setDamagedAcl(const std::string& path) {
  const char junk[] = "not an access control list";
  return lsetxattr(path.c_str(), qx::xacl::kAclAttributeName, junk, sizeof junk, 0) == 0;
}

// ---- Reading permission trees ----

inline QXAclPermissionPtr recordOf(const qx::ObjectPtr& node) {
  auto tree = qx::cast<qx::TreeNode>(node);
  return tree ? tree->representedObjectAs<QXAclPermission>() : nullptr;
}

inline std::string nameOf(const qx::ObjectPtr& node) {
  auto record = recordOf(node);
  return record && record->name() ? record->name()->str() : "<nil>";
}

struct Leaf {
  std::string name;
  int64_t value;
  int64_t state;
  bool operator==(const Leaf&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Leaf& leaf) {
  return out << "(" << leaf.name << ", 0x" << std::hex << leaf.value << std::dec << ", "
             << leaf.state << ")";
}

inline std::vector<Leaf> childrenOf(const qx::ObjectPtr& node) {
  std::vector<Leaf> leaves;
  auto tree = qx::cast<qx::TreeNode>(node);
  if (!tree) return leaves;
  for (const auto& child : tree->childNodes()) {
    auto record = recordOf(child);
    leaves.push_back({nameOf(child), record ? static_cast<uint32_t>(record->permission()) : -1,
                      record ? record->state() : -99});
  }
  return leaves;
}

// Leaf name -> state over every group of a tree.
inline std::map<std::string, int64_t> leafStates(const qx::ArrayPtr& groups) {
  std::map<std::string, int64_t> states;
  for (const auto& group : *groups) {
    for (const Leaf& leaf : childrenOf(group)) states[leaf.name] = leaf.state;
  }
  return states;
}

// ---- Running code as someone else ----

// Runs `body` in a forked child, as `uid`/`gid` without supplementary groups
// when `uid` is not 0, and answers what the body answered. A child that does
// not finish within `seconds` is killed and reported.
inline std::string inChild(const std::function<std::string()>& body, uid_t uid = 0, gid_t gid = 0,
                           unsigned seconds = 20) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  pid_t pid = fork();
  if (pid < 0) return "fork failed";
  if (pid == 0) {
    close(fds[0]);
    alarm(seconds);
    std::string answer = "could not drop privileges";
    if (uid == 0 || (setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0)) {
      answer = body();
    }
    for (size_t done = 0; done < answer.size();) {
      ssize_t n = write(fds[1], answer.data() + done, answer.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  std::string answer;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) answer.append(buffer, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status)) {
    return WTERMSIG(status) == SIGALRM ? "child timed out" : "child died";
  }
  return answer;
}

}  // namespace qxacltest
