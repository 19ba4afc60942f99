// ACLs kept in the item's attribute: layout, round trips, errors, damage and special files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "XaclTestSupport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempTree.h"

namespace qx::xacl {
namespace {

using test::buildAcl;
using test::EntryFields;
using test::rawAcl;
using test::RawEntry;
using test::readRaw;
using test::uuidOf;
using test::writeRaw;

constexpr const char* kAlice = "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1";
constexpr const char* kStaff = "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000BC2";

// What the interface reads back, entry by entry, with the qualifiers as text.
struct ReadEntry {
  acl_tag_t tag;
  std::string qualifier;
  acl_perm_t perms;
  acl_flag_t flags;
  bool operator==(const ReadEntry&) const = default;
};

std::vector<ReadEntry> readBack(acl_t acl) {
  std::vector<ReadEntry> entries;
  acl_entry_t entry = nullptr;
  for (int id = ACL_FIRST_ENTRY; acl_get_entry(acl, id, &entry) == 0; id = ACL_NEXT_ENTRY) {
    ReadEntry read{};
    acl_permset_t permset = nullptr;
    acl_flagset_t flagset = nullptr;
    EXPECT_EQ(acl_get_tag_type(entry, &read.tag), 0);
    QualifierHandle qualifier(acl_get_qualifier(entry));
    read.qualifier = qualifier ? test::textOf(qualifier.get()) : "none";
    EXPECT_EQ(acl_get_permset(entry, &permset), 0);
    EXPECT_EQ(acl_get_flagset_np(entry, &flagset), 0);
    for (acl_perm_t bit = 2; bit <= ACL_CHANGE_OWNER; bit <<= 1)
      if (acl_get_perm_np(permset, bit) == 1) read.perms |= bit;
    for (acl_flag_t bit = ACL_ENTRY_INHERITED; bit <= ACL_ENTRY_ONLY_INHERIT; bit <<= 1)
      if (acl_get_flag_np(flagset, bit) == 1) read.flags |= bit;
    entries.push_back(read);
  }
  EXPECT_EQ(errno, EINVAL) << "the walk ends with EINVAL";
  return entries;
}

std::vector<ReadEntry> expected(const std::vector<EntryFields>& written) {
  std::vector<ReadEntry> entries;
  for (const EntryFields& e : written) entries.push_back({e.tag, e.qualifier, e.perms, e.flags});
  return entries;
}

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
  EXPECT_EQ(getError(tree_.path("missing")), ENOENT);
  EXPECT_EQ(getError(file_ + "/below"), ENOTDIR);
  EXPECT_EQ(setError(tree_.path("missing"), one_.get()), ENOENT);
  EXPECT_EQ(setError(file_ + "/below", one_.get()), ENOTDIR);
  errno = 0;
  EXPECT_EQ(acl_get_link_np(file_.c_str(), 0x101), nullptr);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(acl_get_link_np(nullptr, ACL_TYPE_EXTENDED), nullptr);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(acl_set_link_np(file_.c_str(), 0, one_.get()), -1);
  EXPECT_EQ(errno, EINVAL);
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

TEST_F(AclStorageTest, AclsRoundTripInTheStoredLayout) {
  std::vector<EntryFields> written = {
      {ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA | ACL_READ_SECURITY, ACL_ENTRY_FILE_INHERIT},
      {ACL_EXTENDED_DENY, kStaff, ACL_CHANGE_OWNER, ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT},
      {ACL_EXTENDED_ALLOW, kStaff, ACL_PERM_MASK,
       ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
  };
  AclHandle acl = buildAcl(written);
  for (const std::string& path : {file_, folder_}) {
    ASSERT_EQ(setError(path, acl.get()), 0) << path;
    AclHandle back(acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED));
    ASSERT_TRUE(back) << path;
    EXPECT_EQ(readBack(back.get()), expected(written)) << path;
  }
  EXPECT_EQ(readRaw(file_), rawAcl({{uuidOf(kAlice), 0x21, 0x802},
                                    {uuidOf(kStaff), 0x112, 0x2000},
                                    {uuidOf(kStaff), 0xc1, 0x3ffe}}));
  // Written by hand, read through the interface.
  ASSERT_TRUE(writeRaw(file_, rawAcl({{uuidOf(kStaff), 0x42, 0x3ffe}})));
  AclHandle handWritten(acl_get_link_np(file_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(handWritten);
  EXPECT_EQ(readBack(handWritten.get()),
            expected({{ACL_EXTENDED_DENY, kStaff, ACL_PERM_MASK, ACL_ENTRY_DIRECTORY_INHERIT}}));
  // A stored ACL without entries is an empty ACL; writing one removes the attribute.
  ASSERT_TRUE(writeRaw(file_, rawAcl({})));
  AclHandle none(acl_get_link_np(file_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(none);
  EXPECT_TRUE(readBack(none.get()).empty());
  ASSERT_EQ(setError(file_, empty_.get()), 0);
  EXPECT_FALSE(hasAttribute(file_));
  EXPECT_EQ(getError(file_), ENOENT);
  EXPECT_EQ(setError(file_, empty_.get()), 0) << "nothing to remove is success";
}

TEST_F(AclStorageTest, AFullAclOf128EntriesRoundTripsAndStaysFull) {
  std::vector<std::string> names;
  std::vector<EntryFields> written;
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i) {
    char text[37];
    snprintf(text, sizeof text, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA%08X", 1000 + i);
    names.push_back(text);
  }
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i)
    written.push_back({i % 2 ? ACL_EXTENDED_DENY : ACL_EXTENDED_ALLOW, names[i].c_str(),
                       acl_perm_t{2} << (i % 13), i % 3 ? ACL_ENTRY_FILE_INHERIT : 0u});
  ASSERT_EQ(setError(folder_, buildAcl(written).get()), 0);
  EXPECT_EQ(readRaw(folder_).size(), 12u + 24u * ACL_MAX_ENTRIES);
  AclHandle back(acl_get_link_np(folder_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(back);
  EXPECT_EQ(readBack(back.get()), expected(written));
  acl_t raw = back.get();
  acl_entry_t extra = nullptr;
  errno = 0;
  EXPECT_EQ(acl_create_entry(&raw, &extra), -1);
  EXPECT_EQ(errno, ENOMEM);
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

TEST_F(AclStorageTest, ReadingNeedsSearchAndWritingNeedsWriteAccess) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to an unprivileged user";
  constexpr uid_t kUid = 2001;
  constexpr gid_t kGid = 3001;
  auto asAlice = [&](auto call) {
    return qx::test::ChildProcess::runAs(kUid, kGid, [&] { return std::to_string(call()); });
  };
  std::string inner = folder_ + "/inner";
  tree_.file("folder/inner");
  ASSERT_EQ(setError(inner, one_.get()), 0);
  ASSERT_EQ(chmod(folder_.c_str(), 0700), 0);
  EXPECT_EQ(asAlice([&] { return getError(inner); }), std::to_string(EACCES));
  ASSERT_EQ(chmod(folder_.c_str(), 0755), 0);
  EXPECT_EQ(asAlice([&] { return getError(inner); }), "0");

  EXPECT_EQ(asAlice([&] { return setError(file_, one_.get()); }), std::to_string(EACCES));
  EXPECT_FALSE(hasAttribute(file_));
  ASSERT_EQ(chown(file_.c_str(), kUid, kGid), 0);
  EXPECT_EQ(asAlice([&] { return setError(file_, one_.get()); }), "0");
  EXPECT_TRUE(hasAttribute(file_));
}

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
        std::vector<EntryFields> written = {{ACL_EXTENDED_ALLOW, kAlice, perm},
                                            {ACL_EXTENDED_DENY, kStaff, perm, ACL_ENTRY_INHERITED}};
        AclHandle back;
        if (setError(path, buildAcl(written).get()) == 0)
          back.reset(acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED));
        if (!back || readBack(back.get()) != expected(written)) ++mismatches[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(kThreads, 0));
}

}  // namespace
}  // namespace qx::xacl
