// ACLs kept in the item's attribute: layout, round trips, errors, damage and special files.
// What is read back is compared in the text form, whose own names are pinned in AclTextTest.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "XaclTestSupport.h"
#include "platform/xacl/AclText.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempTree.h"

namespace qx::xacl {
namespace {

using test::buildAcl;
using test::EntryFields;
using test::errnoOf;
using test::rawAcl;
using test::RawEntry;
using test::readRaw;
using test::uuidOf;
using test::writeRaw;

constexpr const char* kAlice = "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1";
constexpr const char* kStaff = "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000BC2";

// acl_get_link_np's errno, or 0 when it returned an ACL.
int getError(const std::string& path) {
  errno = 0;
  AclHandle acl(acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED));
  return acl ? 0 : errno;
}

int setError(const std::string& path, acl_t acl) {
  errno = 0;
  return acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, acl) == 0 ? 0 : errno;
}

// The stored ACL as text, read through acl_get_link_np; "" when it cannot be read.
std::string stored(const std::string& path) {
  AclHandle acl(acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED));
  return acl ? AclText::format(acl.get()).value_or("not an ACL") : "";
}

bool hasAttribute(const std::string& path) {
  return lgetxattr(path.c_str(), kAclAttributeName, nullptr, 0) >= 0;
}

class AclStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree_.file("file", "x");
    tree_.folder("folder");
  }

  qx::test::TempTree tree_{"qx-xacl"};
  std::string file_ = tree_.path("file");
  std::string folder_ = tree_.path("folder");
  AclHandle one_ = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA}});
  AclHandle empty_{acl_init(0)};
};

TEST_F(AclStorageTest, NoAclMissingItemsAndBadArguments) {
  EXPECT_EQ(getError(file_), ENOENT);
  EXPECT_EQ(getError(folder_), ENOENT);
  EXPECT_EQ(AclText::forPath(folder_.c_str()), "") << "no ACL reads as no text";
  EXPECT_EQ(getError(tree_.path("missing")), ENOENT);
  EXPECT_EQ(errnoOf([&] { return !AclText::forPath(tree_.path("missing").c_str()); }), ENOENT);
  EXPECT_EQ(getError(file_ + "/below"), ENOTDIR);
  EXPECT_EQ(setError(tree_.path("missing"), one_.get()), ENOENT);
  EXPECT_EQ(setError(file_ + "/below", one_.get()), ENOTDIR);
  EXPECT_EQ(errnoOf([&] { return !acl_get_link_np(file_.c_str(), 0x101); }), EINVAL);
  EXPECT_EQ(errnoOf([] { return !acl_get_link_np(nullptr, ACL_TYPE_EXTENDED); }), EINVAL);
  EXPECT_EQ(errnoOf([&] { return acl_set_link_np(file_.c_str(), 0, one_.get()) == -1; }), EINVAL);
  EXPECT_EQ(setError(file_, nullptr), EINVAL);
  // Entries without a tag or a qualifier are not written, and the old ACL stays.
  AclHandle noTag = buildAcl({{ACL_UNDEFINED_TAG, kAlice}});
  AclHandle noQualifier = buildAcl({{ACL_EXTENDED_ALLOW, nullptr}});
  EXPECT_EQ(setError(file_, noTag.get()), EINVAL);
  EXPECT_FALSE(hasAttribute(file_));
  ASSERT_EQ(setError(file_, one_.get()), 0);
  std::vector<uint8_t> before = readRaw(file_);
  EXPECT_EQ(setError(file_, noQualifier.get()), EINVAL);
  EXPECT_EQ(readRaw(file_), before);
}

TEST_F(AclStorageTest, AclsRoundTripInTheStoredLayoutUpTo128Entries) {
  AclHandle acl = buildAcl({
      {ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA | ACL_READ_SECURITY, ACL_ENTRY_FILE_INHERIT},
      {ACL_EXTENDED_DENY, kStaff, ACL_CHANGE_OWNER, ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT},
      {ACL_EXTENDED_ALLOW, kStaff, ACL_PERM_MASK,
       ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
  });
  const std::string all = AclText::permissions(ACL_PERM_MASK, false);
  const std::string lines =
      "allow user:qxalice read_data,read_security file_inherit\n"
      "deny group:qxstaff change_owner inherited,only_inherit\n"
      "allow group:qxstaff " +
      all + " directory_inherit,limit_inherit\n";
  ASSERT_EQ(setError(file_, acl.get()), 0);
  ASSERT_EQ(setError(folder_, acl.get()), 0);
  EXPECT_EQ(stored(file_), lines);
  EXPECT_EQ(stored(folder_), lines);
  EXPECT_EQ(AclText::forPath(folder_.c_str())->substr(0, 38),
            "allow user:qxalice list_directory,read")
      << "a folder's ACL read by path names folder rights";
  EXPECT_EQ(readRaw(file_), rawAcl({{uuidOf(kAlice), 0x21, 0x802},
                                    {uuidOf(kStaff), 0x112, 0x2000},
                                    {uuidOf(kStaff), 0xc1, 0x3ffe}}));
  // Written by hand, read through the interface: over a POSIX ACL that already enforces it
  // (a folder-inheritance flag means nothing to a file's POSIX ACL).
  AclHandle denyStaff = buildAcl({{ACL_EXTENDED_DENY, kStaff, ACL_PERM_MASK, 0}});
  ASSERT_EQ(setError(file_, denyStaff.get()), 0);
  ASSERT_TRUE(writeRaw(file_, rawAcl({{uuidOf(kStaff), 0x42, 0x3ffe}})));
  EXPECT_EQ(stored(file_), "deny group:qxstaff " + all + " directory_inherit\n");
  // A stored ACL without entries is an empty ACL; writing one removes the attribute.
  ASSERT_TRUE(writeRaw(file_, rawAcl({})));
  EXPECT_EQ(getError(file_), 0);
  ASSERT_EQ(setError(file_, empty_.get()), 0);
  EXPECT_FALSE(hasAttribute(file_));
  EXPECT_EQ(getError(file_), ENOENT);
  EXPECT_EQ(setError(file_, empty_.get()), 0) << "nothing to remove is success";

  // A full ACL is stored whole and read back full. Its entries name 16 users: an ext4 item
  // keeps all its attributes in one 4 KiB block, which 128 named POSIX entries beside the
  // stored ACL would overflow.
  std::vector<std::string> names;
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i) {
    char text[37];
    snprintf(text, sizeof text, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA%08X", 1000 + i % 16);
    names.push_back(text);
  }
  std::vector<EntryFields> full;
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i)
    full.push_back({i % 2 ? ACL_EXTENDED_DENY : ACL_EXTENDED_ALLOW, names[i].c_str(),
                    acl_perm_t{2} << (i % 13), i % 3 ? ACL_ENTRY_FILE_INHERIT : 0u});
  AclHandle fullAcl = buildAcl(full);
  ASSERT_EQ(setError(folder_, fullAcl.get()), 0);
  EXPECT_EQ(readRaw(folder_).size(), 12u + 24u * ACL_MAX_ENTRIES);
  AclHandle back(acl_get_link_np(folder_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(back);
  EXPECT_EQ(AclText::format(back.get()), AclText::format(fullAcl.get()));
  acl_t raw = back.get();
  acl_entry_t extra = nullptr;
  EXPECT_EQ(errnoOf([&] { return acl_create_entry(&raw, &extra) == -1; }), ENOMEM);
}

TEST_F(AclStorageTest, DamagedAttributesAreErrorsNeverEmptyAcls) {
  const test::Uuid q = uuidOf(kAlice);
  auto edited = [](std::vector<uint8_t> bytes, size_t at, int value) {
    if (value < 0) {
      bytes.pop_back();
    } else if (at >= bytes.size()) {
      bytes.push_back(static_cast<uint8_t>(value));
    } else {
      bytes[at] = static_cast<uint8_t>(value);
    }
    return bytes;
  };
  std::vector<uint8_t> oversized = rawAcl(std::vector<RawEntry>(ACL_MAX_ENTRIES, {q, 1, 2}));
  oversized.resize(oversized.size() + 500, 0);
  const std::vector<std::pair<const char*, std::vector<uint8_t>>> damage = {
      {"empty", {}},
      {"short header", {0x01, 0x2c, 0xc1, 0x6d, 0, 0, 0}},
      {"bad magic", rawAcl({{q, 1, 2}}, 0x012cc16e)},
      {"ACL flags", rawAcl({{q, 1, 2}}, 0x012cc16d, 1)},
      {"undefined tag", rawAcl({{q, 0, 2}})},
      {"tag 3", rawAcl({{q, 3, 2}})},
      {"tag 15", rawAcl({{q, 0xf, 2}})},
      {"unknown entry flag 0x200", rawAcl({{q, 0x201, 2}})},
      {"unknown entry flag in the top bit", rawAcl({{q, 0x80000001, 2}})},
      {"unknown permission 0x1", rawAcl({{q, 1, 0x3}})},
      {"unknown permission 0x4000", rawAcl({{q, 1, 0x4002}})},
      {"count above the entries present", edited(rawAcl({{q, 1, 2}}), 7, 2)},
      {"count below the entries present", edited(rawAcl({{q, 1, 2}, {q, 2, 4}}), 7, 1)},
      {"count 0xff000000", edited(rawAcl({}), 4, 0xff)},
      {"trailing byte", edited(rawAcl({{q, 1, 2}}), SIZE_MAX, 0)},
      {"truncated entry", edited(rawAcl({{q, 1, 2}}), 0, -1)},
      {"129 entries", rawAcl(std::vector<RawEntry>(ACL_MAX_ENTRIES + 1, {q, 1, 2}))},
      {"longer than any ACL", oversized},
  };
  for (const auto& [what, bytes] : damage) {
    ASSERT_TRUE(writeRaw(file_, bytes)) << what << ": " << strerror(errno);
    EXPECT_EQ(getError(file_), EINVAL) << what;
  }
  EXPECT_EQ(errnoOf([&] { return !AclText::forPath(file_.c_str()); }), EINVAL) << "no text";
}

TEST_F(AclStorageTest, LinksAndOtherSpecialFilesTakeOnlyAnEmptyAcl) {
  tree_.link("link", file_);
  tree_.link("dangling", "nowhere");
  tree_.fifo("fifo");
  ASSERT_EQ(setError(file_, one_.get()), 0);
  for (const char* name : {"link", "dangling", "fifo"}) {
    std::string path = tree_.path(name);
    EXPECT_EQ(getError(path), ENOENT) << name << ": never the target's ACL";
    EXPECT_EQ(setError(path, one_.get()), ENOTSUP) << name;
    EXPECT_EQ(setError(path, empty_.get()), 0) << name;
  }
  EXPECT_TRUE(hasAttribute(file_)) << "the link's target keeps its ACL";
}

// Reading behind an unsearchable folder is refused as a listing shows (tests/acl);
// writing needs write access to the item.
TEST_F(AclStorageTest, WritingNeedsWriteAccess) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to an unprivileged user";
  constexpr uid_t kUid = 2001;
  constexpr gid_t kGid = 3001;
  auto setAsAlice = [&] {
    return qx::test::ChildProcess::runAs(
        kUid, kGid, [&] { return std::to_string(setError(file_, one_.get())); });
  };
  EXPECT_EQ(setAsAlice(), std::to_string(EACCES));
  EXPECT_FALSE(hasAttribute(file_));
  ASSERT_EQ(chown(file_.c_str(), kUid, kGid), 0);
  EXPECT_EQ(setAsAlice(), "0");
  EXPECT_TRUE(hasAttribute(file_));
}

// Bare UUIDs, so that formatting looks no names up.
TEST_F(AclStorageTest, ThreadsWorkOnTheirOwnAclsAtOnce) {
  constexpr int kThreads = 4;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    std::string path = tree_.path("t" + std::to_string(t));
    tree_.file("t" + std::to_string(t));
    threads.emplace_back([&, t, path] {
      for (int round = 0; round < 200; ++round) {
        acl_perm_t perm = acl_perm_t{2} << ((t + round) % 13);
        AclHandle written =
            buildAcl({{ACL_EXTENDED_ALLOW, "12345678-9ABC-DEF0-1234-56789ABCDEF0", perm},
                      {ACL_EXTENDED_DENY, "12345678-9ABC-DEF0-1234-56789ABCDEF1", perm,
                       ACL_ENTRY_INHERITED}});
        if (setError(path, written.get()) != 0 ||
            stored(path) != AclText::format(written.get()).value_or("")) {
          ++mismatches[t];
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(kThreads, 0));
}

}  // namespace
}  // namespace qx::xacl
