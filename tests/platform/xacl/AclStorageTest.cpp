// ACLs kept in the item's attribute: layout, round trips, errors, damage and special files.
// What is read back is compared in the text form, whose own names are pinned in AclEntriesTest.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "XaclTestSupport.h"
#include "platform/xacl/Acl.h"
#include "platform/xacl/AclText.h"
#include "platform/xacl/ItemAcl.h"
#include "tests/support/AclFixtures.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempTree.h"

namespace qx::xacl {
namespace {

using namespace test;

const std::string kMemberText = qx::test::userUuidText(qx::test::kMember);
const std::string kTeamText = qx::test::groupUuidText(qx::test::kTeam);
const char* const kMember = kMemberText.c_str();
const char* const kTeam = kTeamText.c_str();

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

class AclStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree_.file("file", "x");
    tree_.folder("folder");
  }

  qx::test::TempTree tree_{"qx-xacl"};
  std::string file_ = tree_.path("file");
  std::string folder_ = tree_.path("folder");
  AclHandle one_ = buildAcl({{ACL_EXTENDED_ALLOW, kMember, ACL_READ_DATA}});
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
  AclHandle noTag = buildAcl({{ACL_UNDEFINED_TAG, kMember}});
  AclHandle noQualifier = buildAcl({{ACL_EXTENDED_ALLOW, nullptr}});
  EXPECT_EQ(setError(file_, noTag.get()), EINVAL);
  EXPECT_FALSE(hasAclAttribute(file_));
  ASSERT_EQ(setError(file_, one_.get()), 0);
  std::vector<uint8_t> before = readRaw(file_);
  EXPECT_EQ(setError(file_, noQualifier.get()), EINVAL);
  EXPECT_EQ(readRaw(file_), before);
}

TEST_F(AclStorageTest, AclsRoundTripInTheStoredLayoutUpTo128Entries) {
  // The entries of attributes/stored-layout.attr, written through the interface, give its bytes.
  const qx::test::AttributeFile layout = qx::test::attributeFile("stored-layout.attr");
  AclHandle acl = buildAcl({
      {ACL_EXTENDED_ALLOW, kMember, ACL_READ_DATA | ACL_READ_SECURITY, ACL_ENTRY_FILE_INHERIT},
      {ACL_EXTENDED_DENY, kTeam, ACL_CHANGE_OWNER, ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT},
      {ACL_EXTENDED_ALLOW, kTeam, ACL_PERM_MASK,
       ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
  });
  ASSERT_EQ(setError(file_, acl.get()), 0);
  ASSERT_EQ(setError(folder_, acl.get()), 0);
  EXPECT_EQ(storedAcl(file_), layout.expected);
  EXPECT_EQ(storedAcl(folder_), layout.expected);
  EXPECT_EQ(AclText::forPath(folder_.c_str())->substr(0, 39),
            "allow user:qxmember list_directory,read")
      << "a folder's ACL read by path names folder rights";
  EXPECT_EQ(readRaw(file_), layout.bytes);
  // Written by hand, read through the interface: over a POSIX ACL that already enforces it
  // (a folder-inheritance flag means nothing to a file's POSIX ACL).
  AclHandle denyTeam = buildAcl({{ACL_EXTENDED_DENY, kTeam, ACL_PERM_MASK, 0}});
  ASSERT_EQ(setError(file_, denyTeam.get()), 0);
  const qx::test::AttributeFile denied = qx::test::attributeFile("team-denied-all.attr");
  ASSERT_TRUE(writeRaw(file_, denied.bytes));
  EXPECT_EQ(storedAcl(file_), denied.expected);
  ASSERT_TRUE(writeRaw(file_, qx::test::attributeFile("no-entries.attr").bytes));
  // A stored ACL without entries is an empty ACL; writing one removes the attribute.
  EXPECT_EQ(getError(file_), 0);
  ASSERT_EQ(setError(file_, empty_.get()), 0);
  EXPECT_FALSE(hasAclAttribute(file_));
  EXPECT_EQ(getError(file_), ENOENT);
  EXPECT_EQ(setError(file_, empty_.get()), 0) << "nothing to remove is success";

  // A full ACL is stored whole and read back full. Its entries name 16 users: an ext4 item
  // keeps all its attributes in one 4 KiB block, which 128 named POSIX entries beside the
  // stored ACL would overflow.
  std::vector<std::string> names;
  std::vector<EntryFields> full;
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i) names.push_back(qx::test::userUuidText(1000 + i % 16));
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i)
    full.push_back({i % 2 ? ACL_EXTENDED_DENY : ACL_EXTENDED_ALLOW, names[i].c_str(),
                    acl_perm_t{2} << (i % 13), i % 3 ? ACL_ENTRY_FILE_INHERIT : 0u});
  AclHandle fullAcl = buildAcl(full);
  ASSERT_EQ(setError(folder_, fullAcl.get()), 0);
  EXPECT_EQ(readRaw(folder_).size(), 12u + 24u * ACL_MAX_ENTRIES);
  AclHandle back(acl_get_link_np(folder_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(back);
  EXPECT_EQ(AclText::format(back.get()), AclText::format(fullAcl.get()));
}

// Each file of attributes/ as a plain file's attribute: the stored entries it reads as (not
// in force, as no POSIX ACL enforces them), or EINVAL where it is damaged, never an empty ACL.
TEST_F(AclStorageTest, AttributeFilesReadAsTheirExpectedEntriesOrAsDamaged) {
  int files = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(QX_SOURCE_DIR "/tests/platform/xacl/attributes")) {
    const std::string name = entry.path().filename();
    const qx::test::AttributeFile attribute = qx::test::attributeFile(name);
    tree_.file(name);
    const std::string path = tree_.path(name);
    ASSERT_TRUE(writeRaw(path, attribute.bytes)) << name << ": " << strerror(errno);
    AclState state;
    errno = 0;
    AclHandle shown(acl_get_link_state_np(path.c_str(), &state));
    std::string outcome = errno == EINVAL ? "EINVAL\n" : "";
    if (errno != EINVAL) {
      AclHandle acl(acl_init(0));
      acl.get()->assign(state.stored);
      outcome = AclText::format(acl.get()).value_or("not an ACL");
      // Only an ACL without entries is in force without a POSIX ACL.
      EXPECT_EQ(static_cast<bool>(shown), state.stored.empty()) << name;
      EXPECT_EQ(state.storedNotInForce, !state.stored.empty()) << name;
    }
    EXPECT_EQ(outcome, attribute.expected) << name;
    ++files;
  }
  EXPECT_GE(files, 20);
  ASSERT_TRUE(writeRaw(file_, qx::test::attributeFile("bad-magic.attr").bytes));
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
  EXPECT_TRUE(hasAclAttribute(file_)) << "the link's target keeps its ACL";
}

// Reading behind an unsearchable folder is refused as a listing shows (tests/acl);
// writing needs write access to the item.
TEST_F(AclStorageTest, WritingNeedsWriteAccess) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to an unprivileged user";
  constexpr uid_t kUid = qx::test::kOther;
  constexpr gid_t kGid = qx::test::kOtherGroup;
  auto setAsAlice = [&] {
    return qx::test::ChildProcess::runAs(
        kUid, kGid, [&] { return std::to_string(setError(file_, one_.get())); });
  };
  EXPECT_EQ(setAsAlice(), std::to_string(EACCES));
  EXPECT_FALSE(hasAclAttribute(file_));
  ASSERT_EQ(chown(file_.c_str(), kUid, kGid), 0);
  EXPECT_EQ(setAsAlice(), "0");
  EXPECT_TRUE(hasAclAttribute(file_));
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
            storedAcl(path) != AclText::format(written.get()).value_or("")) {
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
