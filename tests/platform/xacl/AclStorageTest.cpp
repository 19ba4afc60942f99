#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>

#include "XaclTestSupport.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {
namespace {

using test::rawAcl;
using test::RawEntry;
using test::readRaw;
using test::textOf;
using test::uuidOf;
using test::writeRaw;

constexpr const char* kAlice = "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1";
constexpr const char* kStaff = "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000BC2";

struct EntryFields {
  acl_tag_t tag;
  const char* qualifier;
  acl_perm_t perms;
  acl_flag_t flags;
};

AclHandle buildAcl(const std::vector<EntryFields>& entryList) {
  AclHandle acl(acl_init(static_cast<int>(entryList.size())));
  acl_t raw = acl.get();
  for (const EntryFields& fields : entryList) {
    acl_entry_t entry = nullptr;
    acl_permset_t permset = nullptr;
    acl_flagset_t flagset = nullptr;
    EXPECT_EQ(acl_create_entry(&raw, &entry), 0);
    EXPECT_EQ(acl_set_tag_type(entry, fields.tag), 0);
    EXPECT_EQ(acl_set_qualifier(entry, uuidOf(fields.qualifier).data()), 0);
    EXPECT_EQ(acl_get_permset(entry, &permset), 0);
    if (fields.perms != 0) {
      EXPECT_EQ(acl_add_perm(permset, fields.perms), 0);
    }
    EXPECT_EQ(acl_get_flagset_np(entry, &flagset), 0);
    if (fields.flags != 0) {
      EXPECT_EQ(acl_add_flag_np(flagset, fields.flags), 0);
    }
  }
  return acl;
}

// Reads an ACL back through the interface, as the service's readers walk it.
std::vector<EntryFields> readBack(acl_t acl, std::vector<std::string>& qualifiers) {
  std::vector<EntryFields> entryList;
  acl_entry_t entry = nullptr;
  for (int id = ACL_FIRST_ENTRY; acl_get_entry(acl, id, &entry) == 0; id = ACL_NEXT_ENTRY) {
    EntryFields fields{};
    acl_permset_t permset = nullptr;
    acl_flagset_t flagset = nullptr;
    EXPECT_EQ(acl_get_tag_type(entry, &fields.tag), 0);
    QualifierHandle qualifier(acl_get_qualifier(entry));
    EXPECT_TRUE(qualifier);
    qualifiers.push_back(textOf(qualifier.get()));
    EXPECT_EQ(acl_get_permset(entry, &permset), 0);
    EXPECT_EQ(acl_get_flagset_np(entry, &flagset), 0);
    for (acl_perm_t bit = 2; bit <= ACL_CHANGE_OWNER; bit <<= 1) {
      if (acl_get_perm_np(permset, bit) == 1) fields.perms |= bit;
    }
    for (acl_flag_t bit = ACL_ENTRY_INHERITED; bit <= ACL_ENTRY_ONLY_INHERIT; bit <<= 1) {
      if (acl_get_flag_np(flagset, bit) == 1) fields.flags |= bit;
    }
    entryList.push_back(fields);
  }
  EXPECT_EQ(errno, EINVAL) << "the walk ends with EINVAL";
  return entryList;
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

void touch(const std::string& path) {
  std::ofstream(path) << "x";
}

class AclStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    file_ = dir_ / "file";
    folder_ = dir_ / "folder";
    touch(file_);
    ASSERT_EQ(mkdir(folder_.c_str(), 0755), 0);
  }

  test::TempDir dir_;
  std::string file_;
  std::string folder_;
};

TEST_F(AclStorageTest, ItemWithoutAclHasNone) {
  EXPECT_EQ(getError(file_), ENOENT);
  EXPECT_EQ(getError(folder_), ENOENT);
}

TEST_F(AclStorageTest, MissingItemAndBadArguments) {
  EXPECT_EQ(getError(dir_ / "missing"), ENOENT);
  EXPECT_EQ(getError(file_ + "/below"), ENOTDIR);
  AclHandle acl = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA, 0}});
  EXPECT_EQ(setError(dir_ / "missing", acl.get()), ENOENT);
  EXPECT_EQ(setError(file_ + "/below", acl.get()), ENOTDIR);

  errno = 0;
  EXPECT_EQ(acl_get_link_np(file_.c_str(), 0x101), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(acl_get_link_np(nullptr, ACL_TYPE_EXTENDED), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(acl_set_link_np(file_.c_str(), 0, acl.get()), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(setError(file_, nullptr), EINVAL);
  EXPECT_FALSE(hasAttribute(file_));
}

TEST_F(AclStorageTest, WrittenAclReadsBackEntryForEntry) {
  std::vector<EntryFields> written = {
      {ACL_EXTENDED_DENY, kStaff, ACL_WRITE_DATA | ACL_DELETE, ACL_ENTRY_INHERITED},
      {ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA | ACL_EXECUTE | ACL_CHANGE_OWNER, 0},
      {ACL_EXTENDED_ALLOW, kStaff, ACL_LIST_DIRECTORY,
       ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT |
           ACL_ENTRY_ONLY_INHERIT},
  };
  AclHandle acl = buildAcl(written);
  for (const std::string& path : {file_, folder_}) {
    ASSERT_EQ(setError(path, acl.get()), 0) << path;
    AclHandle back(acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED));
    ASSERT_TRUE(back) << path;
    std::vector<std::string> qualifiers;
    std::vector<EntryFields> read = readBack(back.get(), qualifiers);
    ASSERT_EQ(read.size(), written.size());
    for (size_t i = 0; i < read.size(); ++i) {
      EXPECT_EQ(read[i].tag, written[i].tag) << i;
      EXPECT_EQ(qualifiers[i], written[i].qualifier) << i;
      EXPECT_EQ(read[i].perms, written[i].perms) << i;
      EXPECT_EQ(read[i].flags, written[i].flags) << i;
    }
  }
}

TEST_F(AclStorageTest, StoredBytesFollowTheLayout) {
  AclHandle acl = buildAcl({
      {ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA | ACL_READ_SECURITY, ACL_ENTRY_FILE_INHERIT},
      {ACL_EXTENDED_DENY, kStaff, ACL_CHANGE_OWNER, ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT},
  });
  ASSERT_EQ(setError(file_, acl.get()), 0);
  std::vector<uint8_t> expected = rawAcl({
      {uuidOf(kAlice), 0x21, 0x802},
      {uuidOf(kStaff), 0x112, 0x2000},
  });
  EXPECT_EQ(readRaw(file_), expected);
  EXPECT_EQ(expected.size(), 12u + 2 * 24u);
}

TEST_F(AclStorageTest, RawAttributeWrittenByHandIsRead) {
  ASSERT_TRUE(writeRaw(file_, rawAcl({{uuidOf(kStaff), 0x42, 0x3ffe}})));
  AclHandle acl(acl_get_link_np(file_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(acl);
  std::vector<std::string> qualifiers;
  std::vector<EntryFields> read = readBack(acl.get(), qualifiers);
  ASSERT_EQ(read.size(), 1u);
  EXPECT_EQ(read[0].tag, ACL_EXTENDED_DENY);
  EXPECT_EQ(read[0].flags, ACL_ENTRY_DIRECTORY_INHERIT);
  EXPECT_EQ(read[0].perms, ACL_PERM_MASK);
  EXPECT_EQ(qualifiers[0], kStaff);
}

TEST_F(AclStorageTest, StoredAclWithoutEntriesIsAnEmptyAcl) {
  ASSERT_TRUE(writeRaw(file_, rawAcl({})));
  AclHandle acl(acl_get_link_np(file_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(acl);
  acl_entry_t entry = nullptr;
  errno = 0;
  EXPECT_EQ(acl_get_entry(acl.get(), ACL_FIRST_ENTRY, &entry), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(AclStorageTest, WritingAnEmptyAclRemovesTheAttribute) {
  AclHandle full = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA, 0}});
  AclHandle empty(acl_init(0));
  ASSERT_EQ(setError(folder_, full.get()), 0);
  ASSERT_TRUE(hasAttribute(folder_));
  ASSERT_EQ(setError(folder_, empty.get()), 0);
  EXPECT_FALSE(hasAttribute(folder_));
  EXPECT_EQ(getError(folder_), ENOENT);
  EXPECT_EQ(setError(folder_, empty.get()), 0) << "nothing to remove is success";
}

TEST_F(AclStorageTest, IncompleteEntriesAreNotWritten) {
  AclHandle old = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA, 0}});
  ASSERT_EQ(setError(file_, old.get()), 0);
  std::vector<uint8_t> before = readRaw(file_);

  AclHandle noTag(acl_init(1));
  acl_t raw = noTag.get();
  acl_entry_t entry = nullptr;
  ASSERT_EQ(acl_create_entry(&raw, &entry), 0);
  ASSERT_EQ(acl_set_qualifier(entry, uuidOf(kAlice).data()), 0);
  EXPECT_EQ(setError(file_, noTag.get()), EINVAL);

  AclHandle noQualifier(acl_init(1));
  raw = noQualifier.get();
  ASSERT_EQ(acl_create_entry(&raw, &entry), 0);
  ASSERT_EQ(acl_set_tag_type(entry, ACL_EXTENDED_ALLOW), 0);
  EXPECT_EQ(setError(file_, noQualifier.get()), EINVAL);

  EXPECT_EQ(readRaw(file_), before);
}

TEST_F(AclStorageTest, FullAclOf128EntriesRoundTrips) {
  std::vector<EntryFields> entryList;
  std::vector<std::string> names;
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i) {
    char text[37];
    snprintf(text, sizeof text, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA%08X", 1000 + i);
    names.push_back(text);
  }
  for (int i = 0; i < ACL_MAX_ENTRIES; ++i) {
    entryList.push_back({i % 2 ? ACL_EXTENDED_DENY : ACL_EXTENDED_ALLOW, names[i].c_str(),
                         acl_perm_t{2} << (i % 13), i % 3 ? ACL_ENTRY_FILE_INHERIT : 0u});
  }
  AclHandle acl = buildAcl(entryList);
  ASSERT_EQ(setError(folder_, acl.get()), 0);
  EXPECT_EQ(readRaw(folder_).size(), 12u + 24u * ACL_MAX_ENTRIES);
  AclHandle back(acl_get_link_np(folder_.c_str(), ACL_TYPE_EXTENDED));
  ASSERT_TRUE(back);
  std::vector<std::string> qualifiers;
  std::vector<EntryFields> read = readBack(back.get(), qualifiers);
  ASSERT_EQ(read.size(), entryList.size());
  EXPECT_EQ(qualifiers.back(), names.back());
  EXPECT_EQ(read[127].perms, entryList[127].perms);
  EXPECT_EQ(read[127].tag, ACL_EXTENDED_DENY);

  // The ACL read back is full as well.
  acl_t raw = back.get();
  acl_entry_t extra = nullptr;
  errno = 0;
  EXPECT_EQ(acl_create_entry(&raw, &extra), -1);
  EXPECT_EQ(errno, ENOMEM);
}

struct Damage {
  const char* what;
  std::vector<uint8_t> bytes;
};

std::vector<Damage> damagedAttributes() {
  const test::Uuid q = uuidOf(kAlice);
  std::vector<Damage> cases = {
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
  };
  std::vector<uint8_t> countTooHigh = rawAcl({{q, 1, 2}});
  countTooHigh[7] = 2;
  cases.push_back({"count above the entries present", countTooHigh});
  std::vector<uint8_t> countTooLow = rawAcl({{q, 1, 2}, {q, 2, 4}});
  countTooLow[7] = 1;
  cases.push_back({"count below the entries present", countTooLow});
  std::vector<uint8_t> trailing = rawAcl({{q, 1, 2}});
  trailing.push_back(0);
  cases.push_back({"trailing byte", trailing});
  std::vector<uint8_t> truncated = rawAcl({{q, 1, 2}});
  truncated.pop_back();
  cases.push_back({"truncated entry", truncated});
  std::vector<RawEntry> many(ACL_MAX_ENTRIES + 1, RawEntry{q, 1, 2});
  cases.push_back({"129 entries", rawAcl(many)});
  std::vector<uint8_t> hugeCount = rawAcl({});
  hugeCount[4] = 0xff;
  cases.push_back({"count 0xff000000", hugeCount});
  return cases;
}

TEST_F(AclStorageTest, DamagedAttributesAreErrorsNeverEmptyAcls) {
  for (const Damage& damage : damagedAttributes()) {
    SCOPED_TRACE(damage.what);
    ASSERT_TRUE(writeRaw(file_, damage.bytes)) << strerror(errno);
    EXPECT_EQ(getError(file_), EINVAL);
  }
}

TEST_F(AclStorageTest, SymbolicLinkHasNoAclOfItsOwn) {
  std::string link = dir_ / "link";
  ASSERT_EQ(symlink(file_.c_str(), link.c_str()), 0);
  AclHandle acl = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA, 0}});
  ASSERT_EQ(setError(file_, acl.get()), 0);

  EXPECT_EQ(getError(link), ENOENT) << "the target's ACL is not the link's";
  EXPECT_EQ(setError(link, acl.get()), ENOTSUP);
  AclHandle empty(acl_init(0));
  EXPECT_EQ(setError(link, empty.get()), 0);
  EXPECT_TRUE(hasAttribute(file_)) << "the target keeps its ACL";

  std::string dangling = dir_ / "dangling";
  ASSERT_EQ(symlink("nowhere", dangling.c_str()), 0);
  EXPECT_EQ(getError(dangling), ENOENT);
  EXPECT_EQ(setError(dangling, empty.get()), 0);
  EXPECT_EQ(setError(dangling, acl.get()), ENOTSUP);
}

TEST_F(AclStorageTest, OtherSpecialFilesAcceptOnlyAnEmptyAcl) {
  std::string fifo = dir_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  AclHandle acl = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA, 0}});
  AclHandle empty(acl_init(0));
  EXPECT_EQ(getError(fifo), ENOENT);
  EXPECT_EQ(setError(fifo, acl.get()), ENOTSUP);
  EXPECT_EQ(setError(fifo, empty.get()), 0);
}

TEST_F(AclStorageTest, AttributeTooLargeForAnyAclIsDamage) {
  std::vector<uint8_t> big = rawAcl(std::vector<RawEntry>(ACL_MAX_ENTRIES, {uuidOf(kAlice), 1, 2}));
  big.resize(big.size() + 500, 0);
  ASSERT_TRUE(writeRaw(file_, big)) << strerror(errno);
  EXPECT_EQ(getError(file_), EINVAL);
}

class AclPermissionTest : public AclStorageTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to an unprivileged user";
    AclStorageTest::SetUp();
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  }
  static constexpr uid_t kUid = 2001;
  static constexpr gid_t kGid = 3001;
};

TEST_F(AclPermissionTest, ReadingNeedsSearchAccessToTheFolder) {
  std::string inner = folder_ + "/inner";
  touch(inner);
  AclHandle acl = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA, 0}});
  ASSERT_EQ(setError(inner, acl.get()), 0);
  ASSERT_EQ(chmod(folder_.c_str(), 0700), 0);
  EXPECT_EQ(test::runAs(kUid, kGid, [&] { return getError(inner); }), EACCES);
  ASSERT_EQ(chmod(folder_.c_str(), 0755), 0);
  EXPECT_EQ(test::runAs(kUid, kGid, [&] { return getError(inner); }), 0);
}

TEST_F(AclPermissionTest, WritingNeedsWriteAccessToTheItem) {
  ASSERT_EQ(chmod(file_.c_str(), 0644), 0);
  AclHandle acl = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, ACL_READ_DATA, 0}});
  EXPECT_EQ(test::runAs(kUid, kGid, [&] { return setError(file_, acl.get()); }), EACCES);
  EXPECT_FALSE(hasAttribute(file_));
  ASSERT_EQ(chown(file_.c_str(), kUid, kGid), 0);
  EXPECT_EQ(test::runAs(kUid, kGid, [&] { return setError(file_, acl.get()); }), 0);
  EXPECT_TRUE(hasAttribute(file_));
}

TEST_F(AclStorageTest, ThreadsWorkOnTheirOwnAclsAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::vector<std::string> paths;
  for (int t = 0; t < kThreads; ++t) {
    paths.push_back(dir_ / ("t" + std::to_string(t)));
    touch(paths.back());
  }
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        acl_perm_t perm = acl_perm_t{2} << ((t + round) % 13);
        AclHandle acl = buildAcl({{ACL_EXTENDED_ALLOW, kAlice, perm, 0},
                                  {ACL_EXTENDED_DENY, kStaff, perm, ACL_ENTRY_INHERITED}});
        if (setError(paths[t], acl.get()) != 0) ++mismatches[t];
        AclHandle back(acl_get_link_np(paths[t].c_str(), ACL_TYPE_EXTENDED));
        acl_entry_t entry = nullptr;
        acl_permset_t permset = nullptr;
        if (!back || acl_get_entry(back.get(), ACL_LAST_ENTRY, &entry) != 0 ||
            acl_get_permset(entry, &permset) != 0 || acl_get_perm_np(permset, perm) != 1) {
          ++mismatches[t];
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << t;
}

}  // namespace
}  // namespace qx::xacl
