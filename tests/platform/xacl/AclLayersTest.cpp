// Both layers of an item through the kernel: what a write leaves for getfacl, and what a read
// shows after changes made beside qxfile. Users and groups from this folder's nss files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/Acl.h"
#include "platform/xacl/AclCodec.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/ItemAcl.h"
#include "platform/xacl/xacl.h"
#include "tests/support/TempTree.h"

namespace qx::xacl {
namespace {

constexpr uid_t kAlice = 2001, kBob = 2002;
constexpr gid_t kStaff = 3010;

AclUuid user(uid_t uid) {
  AclUuid u;
  IdentityUuid::forUser(uid, u.data());
  return u;
}
AclUuid group(gid_t gid) {
  AclUuid u;
  IdentityUuid::forGroup(gid, u.data());
  return u;
}

// Runs a command and gives its output; "failed" when it does not succeed.
std::string run(const std::string& command) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return "failed";
  std::string out;
  char buffer[256];
  while (fgets(buffer, sizeof buffer, pipe)) out += buffer;
  return pclose(pipe) == 0 ? out : "failed: " + out;
}

std::string getfacl(const std::string& path) {
  return run("getfacl -cnEp '" + path + "'");
}

int write(const std::string& path, const ExtendedEntries& entries) {
  AclHandle acl(acl_init(0));
  acl.get()->assign(entries);
  return acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, acl.get()) == 0 ? 0 : errno;
}

AclState stateOf(const std::string& path) {
  AclState state;
  AclHandle acl(acl_get_link_state_np(path.c_str(), &state));
  return state;
}

class AclLayers : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to own items as the test users";
    if (run("getfacl --version").rfind("failed", 0) == 0) GTEST_SKIP() << "needs getfacl";
  }
  std::string item(const std::string& name, mode_t mode, bool folder = false) {
    const std::string path = tree_.path(name);
    if (folder) {
      tree_.folder(name);
    } else {
      tree_.file(name);
    }
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  test::TempTree tree_{"qx-layers"};
};

TEST_F(AclLayers, WritesLeaveTheKernelTheEnforcingAclAndReadBackStored) {
  struct Row {
    const char* name;
    bool folder;
    mode_t mode;
    ExtendedEntries entries;
    std::string getfacl;
  };
  const uint32_t rw = ACL_READ_DATA | ACL_WRITE_DATA | ACL_APPEND_DATA;
  const uint32_t inherit = ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT;
  const Row rows[] = {
      {"user",
       false,
       0640,
       {{ACL_EXTENDED_ALLOW, user(kAlice), rw, 0}},
       "user::rw-\nuser:2001:rw-\ngroup::r--\nmask::rw-\nother::---\n\n"},
      {"staff denied, bob allowed",
       false,
       0664,
       {{ACL_EXTENDED_DENY, group(kStaff), ACL_WRITE_DATA, 0},
        {ACL_EXTENDED_ALLOW, user(kBob), ACL_WRITE_DATA | ACL_APPEND_DATA, 0}},
       // bob is in staff: the deny comes first; staff's own entry loses w.
       "user::rw-\nuser:2002:r--\ngroup::rw-\ngroup:3010:r--\nmask::rw-\nother::r--\n\n"},
      {"folder",
       true,
       0750,
       {{ACL_EXTENDED_ALLOW, user(kAlice), ACL_LIST_DIRECTORY | ACL_SEARCH, inherit}},
       "user::rwx\nuser:2001:r-x\ngroup::r-x\nmask::r-x\nother::---\ndefault:user::rwx\n"
       "default:user:2001:r-x\ndefault:group::r-x\ndefault:mask::r-x\ndefault:other::---\n\n"},
  };
  for (const Row& row : rows) {
    const std::string path = item(row.name, row.mode, row.folder);
    ASSERT_EQ(write(path, row.entries), 0) << row.name;
    EXPECT_EQ(getfacl(path), row.getfacl) << row.name;
    AclState state = stateOf(path);
    EXPECT_EQ(state.source, AclSource::Stored) << row.name;
    EXPECT_EQ(state.entries, row.entries) << row.name;
    EXPECT_EQ(state.item.mode, row.mode) << row.name << ": the mode stays";
    ASSERT_EQ(write(path, {}), 0);
    EXPECT_EQ(stateOf(path).source, AclSource::None) << row.name << ": emptied";
    EXPECT_EQ(lgetxattr(path.c_str(), ItemAcl::kPosixAccess, nullptr, 0), -1);
    EXPECT_EQ(lgetxattr(path.c_str(), kAclAttributeName, nullptr, 0), -1);
  }
}

TEST_F(AclLayers, ChangesBesideQxfileReadAsWhatLinuxEnforces) {
  // setfacl on an item qxfile never wrote: its translation.
  const std::string plain = item("plain", 0640);
  ASSERT_EQ(run("setfacl -m u:2002:rx '" + plain + "'"), "");
  AclState state = stateOf(plain);
  EXPECT_EQ(state.source, AclSource::Translation);
  EXPECT_FALSE(state.storedNotInForce);
  const ExtendedEntries bob = {{ACL_EXTENDED_ALLOW, user(kBob), 0xA8A, 0}};
  EXPECT_EQ(state.entries, bob);

  // chmod changing the mask of an ACL qxfile wrote: no longer in force.
  const std::string written = item("written", 0660);
  const uint32_t rw = ACL_READ_DATA | ACL_WRITE_DATA | ACL_APPEND_DATA;
  ASSERT_EQ(write(written, {{ACL_EXTENDED_ALLOW, user(kAlice), rw, 0}}), 0);
  ASSERT_EQ(chmod(written.c_str(), 0640), 0);  // the mask becomes r--
  state = stateOf(written);
  EXPECT_EQ(state.source, AclSource::Translation);
  EXPECT_TRUE(state.storedNotInForce);
  const ExtendedEntries masked = {{ACL_EXTENDED_ALLOW, user(kAlice), 0xA82, 0}};
  EXPECT_EQ(state.entries, masked);
  EXPECT_EQ(state.item.mode, 0660u) << "the owning group's bits are its entry's, not the mask";

  // An attribute written by an earlier version, with no POSIX ACL: there, not in force;
  // written again through the interface, enforced.
  const std::string old = item("old", 0600);
  auto acl = std::make_unique<Acl>();
  acl->assign({{ACL_EXTENDED_ALLOW, user(kAlice), rw, 0}});
  std::vector<uint8_t> bytes;
  ASSERT_EQ(AclCodec::encode(*acl, bytes), 0);
  ASSERT_EQ(lsetxattr(old.c_str(), kAclAttributeName, bytes.data(), bytes.size(), 0), 0);
  state = stateOf(old);
  EXPECT_EQ(state.source, AclSource::None);
  EXPECT_TRUE(state.storedNotInForce);
  errno = 0;
  EXPECT_EQ(acl_get_link_np(old.c_str(), ACL_TYPE_EXTENDED), nullptr);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(write(old, state.stored), 0);
  EXPECT_EQ(getfacl(old), "user::rw-\nuser:2001:rw-\ngroup::---\nmask::rw-\nother::---\n\n");
  EXPECT_EQ(stateOf(old).source, AclSource::Stored);
}

TEST_F(AclLayers, ModeWritesKeepTheGroupEntryApartFromTheMask) {
  const std::string path = item("f", 0640);
  ASSERT_EQ(write(path, {{ACL_EXTENDED_ALLOW, user(kAlice),
                          ACL_READ_DATA | ACL_WRITE_DATA | ACL_APPEND_DATA | ACL_EXECUTE, 0}}),
            0);
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  mode_t bits = 0;
  ASSERT_EQ(ItemAcl::modeBits(path.c_str(), st, &bits), 0);
  EXPECT_EQ(bits, 0640u);
  EXPECT_EQ(st.st_mode & 0777, 0670u) << "st_mode shows the mask";
  ASSERT_EQ(ItemAcl::setModeBits(path.c_str(), 0750), 0);
  EXPECT_EQ(getfacl(path), "user::rwx\nuser:2001:rwx\ngroup::r-x\nmask::rwx\nother::---\n\n");
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  ASSERT_EQ(ItemAcl::modeBits(path.c_str(), st, &bits), 0);
  EXPECT_EQ(bits, 0750u);
  EXPECT_EQ(stateOf(path).source, AclSource::Stored) << "what the stored ACL maps to with 0750";

  // An ACL that grants nothing through its entries keeps a mask of r--: an empty one would
  // leave alice the other bits. st_mode shows it; the group's bits stay the entry's.
  const std::string closed = item("closed", 0604);
  ASSERT_EQ(write(closed, {{ACL_EXTENDED_DENY, user(kAlice), ACL_READ_DATA, 0}}), 0);
  EXPECT_EQ(getfacl(closed), "user::rw-\nuser:2001:---\ngroup::---\nmask::r--\nother::r--\n\n");
  ASSERT_EQ(lstat(closed.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  ASSERT_EQ(ItemAcl::modeBits(closed.c_str(), st, &bits), 0);
  EXPECT_EQ(bits, 0604u);
  ASSERT_EQ(ItemAcl::setModeBits(closed.c_str(), 0600), 0);
  EXPECT_EQ(getfacl(closed), "user::rw-\nuser:2001:---\ngroup::---\nmask::r--\nother::---\n\n");
  EXPECT_EQ(stateOf(closed).source, AclSource::Stored);
}

}  // namespace
}  // namespace qx::xacl
