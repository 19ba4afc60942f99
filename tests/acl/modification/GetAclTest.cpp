#include <gtest/gtest.h>

#include <cerrno>

#include "ModificationTestSupport.h"
#include "acl/QXAclWriter.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclTesting.h"

namespace qxtest {
namespace {

using namespace qx::xacl;

constexpr const char* kPath = "/some/folder";

// Builds an ACL from `entries`, expecting success, and reads it back.
std::vector<AclFields> build(const std::vector<qx::ObjectPtr>& entries) {
  acl_t acl = nullptr;
  qx::ErrorPtr error = qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 99);
  EXPECT_TRUE(QXAclWriter::getAcl(&acl, qx::Array::make(entries), kPath, &error));
  EXPECT_EQ(error, nullptr) << "a success clears the error out-parameter";
  AclHandle owner(acl);
  return acl ? fieldsOf(acl) : std::vector<AclFields>{};
}

// Builds an ACL from `entries`, expecting a failure, and answers the step
// error.
qx::ErrorPtr buildFails(const std::vector<qx::ObjectPtr>& entries) {
  const size_t live = qx::xacl::testing::LiveAcls();
  acl_t acl = reinterpret_cast<acl_t>(0x1);
  qx::ErrorPtr error;
  EXPECT_FALSE(QXAclWriter::getAcl(&acl, qx::Array::make(entries), kPath, &error));
  EXPECT_EQ(acl, reinterpret_cast<acl_t>(0x1)) << "the ACL out-parameter stays untouched";
  EXPECT_EQ(qx::xacl::testing::LiveAcls(), live) << "the partly built ACL is released";
  return error;
}

void expectStepError(const qx::ErrorPtr& error, int64_t code, const char* format) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), qx::kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), code);
  EXPECT_EQ(error->localizedDescription(), stepText(format, kPath));
  auto url = qx::cast<qx::Url>(error->userInfo()->objectForKey(qx::kURLErrorKey));
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->path(), kPath);
}

const qx::UuidPtr kAliceUuid = userUuid(kAlice);
const qx::UuidPtr kStaffUuid = groupUuid(kStaff);

// Flags as a listing shows them: "All descendants" is off, and so limits
// inheritance, whenever "Child folders" is off.
TEST(GetAcl, KeepsEveryEntryInArrayOrderWithTagsPermissionsAndFlags) {
  const std::vector<AclFields> wanted = {
      {ACL_EXTENDED_ALLOW, kAliceUuid, ACL_READ_DATA | ACL_EXECUTE | ACL_READ_SECURITY,
       ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT},
      {ACL_EXTENDED_DENY, kStaffUuid, ACL_DELETE | ACL_DELETE_CHILD | ACL_CHANGE_OWNER,
       ACL_ENTRY_INHERITED | ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
      {ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_PERM_MASK,
       ACL_ENTRY_ONLY_INHERIT | ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
      {ACL_EXTENDED_DENY, kAliceUuid, 0,
       ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
  };
  std::vector<qx::ObjectPtr> records;
  for (const AclFields& fields : wanted) records.push_back(aclEntry(fields, true));
  EXPECT_EQ(describe(build(records)), describe(wanted));
}

TEST(GetAcl, FileEntriesGetNoInheritanceFlags) {
  const AclFields wanted{ACL_EXTENDED_ALLOW, kAliceUuid, ACL_READ_DATA | ACL_WRITE_DATA,
                         ACL_ENTRY_INHERITED};
  EXPECT_EQ(describe(build({aclEntry(wanted, false)})), describe({wanted}));
}

TEST(GetAcl, EmptyArrayGivesEmptyAcl) {
  EXPECT_TRUE(build({}).empty());
}

// The "Applies to" children one by one: "This item" and "All descendants" set
// their flags when off, the others when on; a mixed child sets nothing.
TEST(GetAcl, AppliesToChildrenSetFlagsBySense) {
  struct Case {
    uint32_t flag;
    int64_t state;
    uint32_t expected;
  };
  const Case cases[] = {
      {ACL_ENTRY_ONLY_INHERIT, 0, ACL_ENTRY_ONLY_INHERIT},
      {ACL_ENTRY_ONLY_INHERIT, 1, 0},
      {ACL_ENTRY_ONLY_INHERIT, -1, 0},
      {ACL_ENTRY_FILE_INHERIT, 1, ACL_ENTRY_FILE_INHERIT},
      {ACL_ENTRY_FILE_INHERIT, 0, 0},
      {ACL_ENTRY_FILE_INHERIT, -1, 0},
      {ACL_ENTRY_DIRECTORY_INHERIT, 1, ACL_ENTRY_DIRECTORY_INHERIT},
      {ACL_ENTRY_DIRECTORY_INHERIT, -1, 0},
      {ACL_ENTRY_LIMIT_INHERIT, 0, ACL_ENTRY_LIMIT_INHERIT},
      {ACL_ENTRY_LIMIT_INHERIT, 1, 0},
      {ACL_ENTRY_LIMIT_INHERIT, -1, 0},
  };
  for (const Case& c : cases) {
    auto appliesTo = node("Applies to", kQXAppliesToPermission, 1);
    appliesTo->mutableChildNodes().addObject(node("child", c.flag, c.state));
    auto record = QXAclEntry::make(kAliceUuid, ACL_EXTENDED_ALLOW,
                                   qx::Array::make({node("Read", 2, 0), appliesTo}), false);
    auto fields = build({record});
    ASSERT_EQ(fields.size(), 1u);
    EXPECT_EQ(fields[0].flags, c.expected)
        << "flag 0x" << std::hex << c.flag << " state " << std::dec << c.state;
  }
}

// Leaves that are not off add their bit, mixed ones too; group nodes' own
// states never count.
TEST(GetAcl, MixedLeavesAddTheirBitAndGroupStatesAreIgnored) {
  auto read = node("Read", 2, 0);
  read->mutableChildNodes().addObject(node("Read Data", ACL_READ_DATA, -1));
  read->mutableChildNodes().addObject(node("Execute File", ACL_EXECUTE, 0));
  auto write = node("Write", 2, 1);
  write->mutableChildNodes().addObject(node("Write Data", ACL_WRITE_DATA, 0));
  write->mutableChildNodes().addObject(node("Delete", ACL_DELETE, 1));
  auto record =
      QXAclEntry::make(kAliceUuid, ACL_EXTENDED_ALLOW, qx::Array::make({read, write}), false);
  auto fields = build({record});
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields[0].perms, ACL_READ_DATA | ACL_DELETE);
}

// The "Applies to" node is remembered for the whole call: entries without one
// take the flags of the last one seen, and a later node in the same entry
// replaces an earlier one.
TEST(GetAcl, AppliesToNodeCarriesOverToLaterEntries) {
  auto folder =
      aclEntry({ACL_EXTENDED_ALLOW, kAliceUuid, ACL_LIST_DIRECTORY,
                ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_LIMIT_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT},
               true);
  auto file = aclEntry({ACL_EXTENDED_DENY, kStaffUuid, ACL_WRITE_DATA, ACL_ENTRY_INHERITED}, false);
  auto fields = build({file, folder, file});
  ASSERT_EQ(fields.size(), 3u);
  EXPECT_EQ(fields[0].flags, ACL_ENTRY_INHERITED);
  EXPECT_EQ(fields[2].flags, ACL_ENTRY_INHERITED | ACL_ENTRY_FILE_INHERIT |
                                 ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT);

  auto first = node("Applies to", kQXAppliesToPermission, 1);
  first->mutableChildNodes().addObject(node("Child files", ACL_ENTRY_FILE_INHERIT, 1));
  auto second = node("Applies to", kQXAppliesToPermission, 1);
  second->mutableChildNodes().addObject(node("Child folders", ACL_ENTRY_DIRECTORY_INHERIT, 1));
  auto twice = QXAclEntry::make(kAliceUuid, ACL_EXTENDED_ALLOW,
                                qx::Array::make({first, node("Read", 2, 0), second}), false);
  fields = build({twice});
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields[0].flags, ACL_ENTRY_DIRECTORY_INHERIT);
}

TEST(GetAcl, WithoutAclOutParameterStillSucceedsAndLeaksNothing) {
  const size_t live = qx::xacl::testing::LiveAcls();
  qx::ErrorPtr error = qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 5);
  auto entries =
      qx::Array::make({aclEntry({ACL_EXTENDED_ALLOW, kAliceUuid, ACL_READ_DATA, 0}, false)});
  EXPECT_TRUE(QXAclWriter::getAcl(nullptr, entries, kPath, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(qx::xacl::testing::LiveAcls(), live);
  EXPECT_TRUE(QXAclWriter::getAcl(nullptr, entries, kPath, nullptr));
}

TEST(GetAcl, EntryCountBeyondTheLimitFailsToInitialize) {
  std::vector<qx::ObjectPtr> entries(ACL_MAX_ENTRIES - 1,
                                     aclEntry({ACL_EXTENDED_ALLOW, kAliceUuid, 0, 0}, false));
  EXPECT_EQ(build(entries).size(), size_t(ACL_MAX_ENTRIES - 1));
  entries.push_back(entries.back());
  expectStepError(buildFails(entries), ENOMEM,
                  "Couldn't initialize file Acces Control List storage for "
                  "file at path \"%s\".");
}

TEST(GetAcl, EachFailingStepNamesItselfAndStopsTheCall) {
  auto good = aclEntry({ACL_EXTENDED_ALLOW, kAliceUuid, ACL_READ_DATA, 0}, false);

  auto badTag = aclEntry({3, kAliceUuid, ACL_READ_DATA, 0}, false);
  expectStepError(buildFails({good, badTag}), EINVAL,
                  "Couldn't set file Acces Control List entry type for file at "
                  "path \"%s\".");

  // Anything that is not an entry record reads as an empty one, whose tag is
  // undefined.
  expectStepError(buildFails({qx::str("ACL")}), EINVAL,
                  "Couldn't set file Acces Control List entry type for file at "
                  "path \"%s\".");

  auto noUuid = aclEntry({ACL_EXTENDED_DENY, nullptr, ACL_READ_DATA, 0}, false);
  expectStepError(buildFails({good, noUuid}), static_cast<int32_t>(0x80000002u),
                  "Couldn't retreive file Acces Control List entry qualifier "
                  "for file at path \"%s\".");

  auto read = node("Read", 2, 1);
  read->mutableChildNodes().addObject(node("Unknown", 0x4000, 1));
  auto badPerm = QXAclEntry::make(kAliceUuid, ACL_EXTENDED_ALLOW, qx::Array::make({read}), false);
  expectStepError(buildFails({badPerm}), EINVAL,
                  "Couldn't set file Acces Control List entry permission for "
                  "file at path \"%s\".");

  auto appliesTo = node("Applies to", kQXAppliesToPermission, 1);
  appliesTo->mutableChildNodes().addObject(node("Unknown", 0x200, 1));
  auto badFlag = QXAclEntry::make(kAliceUuid, ACL_EXTENDED_ALLOW,
                                  qx::Array::make({node("Read", 2, 0), appliesTo}), false);
  expectStepError(buildFails({good, badFlag}), EINVAL,
                  "Couldn't set file Acces Control List entry flag for file at "
                  "path \"%s\".");

  // Nothing after the failing entry is looked at: a bad entry behind it changes
  // nothing.
  expectStepError(buildFails({good, badTag, noUuid}), EINVAL,
                  "Couldn't set file Acces Control List entry type for file at "
                  "path \"%s\".");
}

}  // namespace
}  // namespace qxtest
