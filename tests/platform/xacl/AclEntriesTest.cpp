#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "XaclTestSupport.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {
namespace {

using test::textOf;
using test::uuidOf;

// acl_get_entry's result and errno as one value: 0 on success, else errno.
int getEntry(acl_t acl, int id, acl_entry_t* entry) {
  errno = 0;
  return acl_get_entry(acl, id, entry) == 0 ? 0 : errno;
}

class AclEntriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    acl_ = AclHandle(acl_init(4));
    ASSERT_TRUE(acl_);
  }

  acl_entry_t addEntry(acl_tag_t tag, const char* qualifier) {
    acl_t raw = acl_.get();
    acl_entry_t entry = nullptr;
    EXPECT_EQ(acl_create_entry(&raw, &entry), 0);
    EXPECT_EQ(raw, acl_.get());
    EXPECT_EQ(acl_set_tag_type(entry, tag), 0);
    EXPECT_EQ(acl_set_qualifier(entry, uuidOf(qualifier).data()), 0);
    return entry;
  }

  AclHandle acl_;
};

TEST_F(AclEntriesTest, InitRefusesCountsOutsideTheLimit) {
  errno = 0;
  EXPECT_EQ(acl_init(-1), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(acl_init(ACL_MAX_ENTRIES + 1), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  AclHandle largest(acl_init(ACL_MAX_ENTRIES));
  EXPECT_TRUE(largest);
  AclHandle empty(acl_init(0));
  EXPECT_TRUE(empty);
}

TEST_F(AclEntriesTest, EmptyAclEndsIterationAtOnce) {
  acl_entry_t entry = nullptr;
  EXPECT_EQ(getEntry(acl_.get(), ACL_FIRST_ENTRY, &entry), EINVAL);
  EXPECT_EQ(getEntry(acl_.get(), ACL_NEXT_ENTRY, &entry), EINVAL);
  EXPECT_EQ(getEntry(acl_.get(), ACL_LAST_ENTRY, &entry), EINVAL);
  EXPECT_EQ(entry, nullptr);
}

TEST_F(AclEntriesTest, IteratesInOrderAndFailsPastTheEnd) {
  acl_entry_t a = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_entry_t b = addEntry(ACL_EXTENDED_DENY, "22222222-2222-2222-2222-222222222222");
  acl_entry_t c = addEntry(ACL_EXTENDED_ALLOW, "33333333-3333-3333-3333-333333333333");

  acl_entry_t entry = nullptr;
  ASSERT_EQ(getEntry(acl_.get(), ACL_FIRST_ENTRY, &entry), 0);
  EXPECT_EQ(entry, a);
  ASSERT_EQ(getEntry(acl_.get(), ACL_NEXT_ENTRY, &entry), 0);
  EXPECT_EQ(entry, b);
  ASSERT_EQ(getEntry(acl_.get(), ACL_NEXT_ENTRY, &entry), 0);
  EXPECT_EQ(entry, c);
  EXPECT_EQ(getEntry(acl_.get(), ACL_NEXT_ENTRY, &entry), EINVAL);
  EXPECT_EQ(entry, c) << "a failed call leaves the out-parameter alone";
  EXPECT_EQ(getEntry(acl_.get(), ACL_NEXT_ENTRY, &entry), EINVAL) << "stays past the end";

  // Starting again, by index and from the end.
  ASSERT_EQ(getEntry(acl_.get(), ACL_FIRST_ENTRY, &entry), 0);
  EXPECT_EQ(entry, a);
  ASSERT_EQ(getEntry(acl_.get(), 2, &entry), 0);
  EXPECT_EQ(entry, c);
  ASSERT_EQ(getEntry(acl_.get(), ACL_LAST_ENTRY, &entry), 0);
  EXPECT_EQ(entry, c);
  EXPECT_EQ(getEntry(acl_.get(), 3, &entry), EINVAL);
  EXPECT_EQ(getEntry(acl_.get(), -3, &entry), EINVAL);
}

TEST_F(AclEntriesTest, NextWithoutFirstStartsAtTheBeginning) {
  acl_entry_t a = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_entry_t entry = nullptr;
  ASSERT_EQ(getEntry(acl_.get(), ACL_NEXT_ENTRY, &entry), 0);
  EXPECT_EQ(entry, a);
}

TEST_F(AclEntriesTest, HoldsAtMost128EntriesAndHandlesStayValid) {
  acl_t raw = acl_.get();
  acl_entry_t first = nullptr;
  ASSERT_EQ(acl_create_entry(&raw, &first), 0);
  ASSERT_EQ(acl_set_tag_type(first, ACL_EXTENDED_DENY), 0);
  for (int i = 1; i < ACL_MAX_ENTRIES; ++i) {
    acl_entry_t entry = nullptr;
    ASSERT_EQ(acl_create_entry(&raw, &entry), 0) << i;
  }
  acl_entry_t extra = nullptr;
  errno = 0;
  EXPECT_EQ(acl_create_entry(&raw, &extra), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(extra, nullptr);

  acl_tag_t tag = ACL_UNDEFINED_TAG;
  ASSERT_EQ(acl_get_tag_type(first, &tag), 0);
  EXPECT_EQ(tag, ACL_EXTENDED_DENY) << "the first entry handle survived 127 additions";
  acl_entry_t last = nullptr;
  EXPECT_EQ(getEntry(acl_.get(), ACL_MAX_ENTRIES - 1, &last), 0);
}

TEST_F(AclEntriesTest, TagsAreAllowOrDeny) {
  acl_t raw = acl_.get();
  acl_entry_t entry = nullptr;
  ASSERT_EQ(acl_create_entry(&raw, &entry), 0);
  acl_tag_t tag = -1;
  ASSERT_EQ(acl_get_tag_type(entry, &tag), 0);
  EXPECT_EQ(tag, ACL_UNDEFINED_TAG);
  for (acl_tag_t bad : {ACL_UNDEFINED_TAG, 3, -1, 0x101}) {
    errno = 0;
    EXPECT_EQ(acl_set_tag_type(entry, bad), -1) << bad;
    EXPECT_EQ(errno, EINVAL);
  }
  ASSERT_EQ(acl_set_tag_type(entry, ACL_EXTENDED_DENY), 0);
  ASSERT_EQ(acl_get_tag_type(entry, &tag), 0);
  EXPECT_EQ(tag, ACL_EXTENDED_DENY);
}

TEST_F(AclEntriesTest, QualifierIsAnIndependentCopy) {
  acl_t raw = acl_.get();
  acl_entry_t entry = nullptr;
  ASSERT_EQ(acl_create_entry(&raw, &entry), 0);
  errno = 0;
  EXPECT_EQ(acl_get_qualifier(entry), nullptr) << "never set";
  EXPECT_EQ(errno, EINVAL);

  test::Uuid source = uuidOf("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1");
  ASSERT_EQ(acl_set_qualifier(entry, source.data()), 0);
  source.fill(0);  // the entry kept its own copy
  QualifierHandle first(acl_get_qualifier(entry));
  QualifierHandle second(acl_get_qualifier(entry));
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(textOf(first.get()), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1");
  std::memset(first.get(), 0, 16);
  EXPECT_EQ(textOf(second.get()), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1");
  QualifierHandle third(acl_get_qualifier(entry));
  EXPECT_EQ(textOf(third.get()), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1");
}

TEST_F(AclEntriesTest, PermsetIsAHandleIntoItsEntry) {
  acl_entry_t entry = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_permset_t permset = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &permset), 0);
  EXPECT_EQ(acl_get_perm_np(permset, ACL_READ_DATA), 0);
  ASSERT_EQ(acl_add_perm(permset, ACL_READ_DATA), 0);
  ASSERT_EQ(acl_add_perm(permset, ACL_CHANGE_OWNER), 0);

  acl_permset_t again = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &again), 0);
  EXPECT_EQ(acl_get_perm_np(again, ACL_READ_DATA), 1);
  EXPECT_EQ(acl_get_perm_np(again, ACL_LIST_DIRECTORY), 1) << "same bit, folder name";
  EXPECT_EQ(acl_get_perm_np(again, ACL_CHANGE_OWNER), 1);
  EXPECT_EQ(acl_get_perm_np(again, ACL_EXECUTE), 0);
  EXPECT_EQ(acl_get_perm_np(again, ACL_READ_DATA | ACL_CHANGE_OWNER), 1);
  EXPECT_EQ(acl_get_perm_np(again, ACL_READ_DATA | ACL_EXECUTE), 0);

  ASSERT_EQ(acl_delete_perm(permset, ACL_READ_DATA), 0);
  EXPECT_EQ(acl_get_perm_np(again, ACL_READ_DATA), 0);
  ASSERT_EQ(acl_clear_perms(permset), 0);
  EXPECT_EQ(acl_get_perm_np(again, ACL_CHANGE_OWNER), 0);
}

TEST_F(AclEntriesTest, SetPermsetCopiesFromAnotherEntry) {
  acl_entry_t a = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_entry_t b = addEntry(ACL_EXTENDED_DENY, "22222222-2222-2222-2222-222222222222");
  acl_permset_t pa = nullptr;
  acl_permset_t pb = nullptr;
  ASSERT_EQ(acl_get_permset(a, &pa), 0);
  ASSERT_EQ(acl_get_permset(b, &pb), 0);
  ASSERT_EQ(acl_add_perm(pa, ACL_WRITE_DATA), 0);
  ASSERT_EQ(acl_set_permset(b, pa), 0);
  EXPECT_EQ(acl_get_perm_np(pb, ACL_WRITE_DATA), 1);
  ASSERT_EQ(acl_clear_perms(pa), 0);
  EXPECT_EQ(acl_get_perm_np(pb, ACL_WRITE_DATA), 1) << "a copy, not a shared set";
}

TEST_F(AclEntriesTest, EveryPermissionOfTheTableIsAccepted) {
  acl_entry_t entry = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_permset_t permset = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &permset), 0);
  for (acl_perm_t perm :
       {ACL_READ_DATA, ACL_LIST_DIRECTORY, ACL_EXECUTE, ACL_SEARCH, ACL_READ_ATTRIBUTES,
        ACL_READ_EXTATTRIBUTES, ACL_READ_SECURITY, ACL_WRITE_DATA, ACL_ADD_FILE, ACL_APPEND_DATA,
        ACL_ADD_SUBDIRECTORY, ACL_DELETE, ACL_DELETE_CHILD, ACL_WRITE_ATTRIBUTES,
        ACL_WRITE_EXTATTRIBUTES, ACL_WRITE_SECURITY, ACL_CHANGE_OWNER}) {
    ASSERT_EQ(acl_clear_perms(permset), 0);
    ASSERT_EQ(acl_add_perm(permset, perm), 0) << perm;
    EXPECT_EQ(acl_get_perm_np(permset, perm), 1) << perm;
  }
}

TEST_F(AclEntriesTest, UnknownPermissionsAreRefused) {
  acl_entry_t entry = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_permset_t permset = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &permset), 0);
  for (acl_perm_t bad : {0u, 0x1u, 0x4000u, 0x80000000u, ACL_READ_DATA | 0x1u}) {
    errno = 0;
    EXPECT_EQ(acl_add_perm(permset, bad), -1) << bad;
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(acl_get_perm_np(permset, bad), -1) << bad;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(acl_get_perm_np(permset, ACL_READ_DATA), 0) << "a refused add changed nothing";
}

TEST_F(AclEntriesTest, FlagsetIsAHandleIntoItsEntry) {
  acl_entry_t entry = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_flagset_t flagset = nullptr;
  ASSERT_EQ(acl_get_flagset_np(entry, &flagset), 0);
  for (acl_flag_t flag : {ACL_ENTRY_INHERITED, ACL_ENTRY_FILE_INHERIT, ACL_ENTRY_DIRECTORY_INHERIT,
                          ACL_ENTRY_LIMIT_INHERIT, ACL_ENTRY_ONLY_INHERIT}) {
    EXPECT_EQ(acl_get_flag_np(flagset, flag), 0) << flag;
    ASSERT_EQ(acl_add_flag_np(flagset, flag), 0) << flag;
  }
  acl_flagset_t again = nullptr;
  ASSERT_EQ(acl_get_flagset_np(entry, &again), 0);
  EXPECT_EQ(acl_get_flag_np(again, ACL_ENTRY_ONLY_INHERIT), 1);
  ASSERT_EQ(acl_delete_flag_np(flagset, ACL_ENTRY_ONLY_INHERIT), 0);
  EXPECT_EQ(acl_get_flag_np(again, ACL_ENTRY_ONLY_INHERIT), 0);
  EXPECT_EQ(acl_get_flag_np(again, ACL_ENTRY_INHERITED), 1);
  ASSERT_EQ(acl_clear_flags_np(flagset), 0);
  EXPECT_EQ(acl_get_flag_np(again, ACL_ENTRY_INHERITED), 0);

  acl_entry_t other = addEntry(ACL_EXTENDED_DENY, "22222222-2222-2222-2222-222222222222");
  ASSERT_EQ(acl_add_flag_np(flagset, ACL_ENTRY_FILE_INHERIT), 0);
  ASSERT_EQ(acl_set_flagset_np(other, flagset), 0);
  acl_flagset_t otherFlags = nullptr;
  ASSERT_EQ(acl_get_flagset_np(other, &otherFlags), 0);
  EXPECT_EQ(acl_get_flag_np(otherFlags, ACL_ENTRY_FILE_INHERIT), 1);

  for (acl_flag_t bad : {0u, 0x1u, 0x8u, 0x200u, ACL_ENTRY_INHERITED | 0x1000u}) {
    errno = 0;
    EXPECT_EQ(acl_add_flag_np(flagset, bad), -1) << bad;
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(acl_get_flag_np(flagset, bad), -1) << bad;
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST_F(AclEntriesTest, MissingOrWrongHandlesAreBadArguments) {
  acl_entry_t entry = addEntry(ACL_EXTENDED_ALLOW, "11111111-1111-1111-1111-111111111111");
  acl_permset_t permset = nullptr;
  acl_flagset_t flagset = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &permset), 0);
  ASSERT_EQ(acl_get_flagset_np(entry, &flagset), 0);
  acl_t raw = acl_.get();
  acl_tag_t tag;

  auto expectEinval = [](int result, const char* what) {
    EXPECT_EQ(result, -1) << what;
    EXPECT_EQ(errno, EINVAL) << what;
    errno = 0;
  };
  errno = 0;
  expectEinval(acl_get_entry(nullptr, ACL_FIRST_ENTRY, &entry), "get_entry acl");
  expectEinval(acl_get_entry(raw, ACL_FIRST_ENTRY, nullptr), "get_entry out");
  expectEinval(acl_create_entry(nullptr, &entry), "create_entry acl_p");
  expectEinval(acl_create_entry(&raw, nullptr), "create_entry out");
  acl_t none = nullptr;
  expectEinval(acl_create_entry(&none, &entry), "create_entry *acl_p");
  expectEinval(acl_get_tag_type(nullptr, &tag), "get_tag entry");
  expectEinval(acl_get_tag_type(entry, nullptr), "get_tag out");
  expectEinval(acl_set_tag_type(nullptr, ACL_EXTENDED_ALLOW), "set_tag");
  expectEinval(acl_set_qualifier(entry, nullptr), "set_qualifier");
  expectEinval(acl_get_permset(entry, nullptr), "get_permset");
  expectEinval(acl_set_permset(entry, nullptr), "set_permset");
  expectEinval(acl_clear_perms(nullptr), "clear_perms");
  expectEinval(acl_get_flagset_np(entry, nullptr), "get_flagset");
  expectEinval(acl_set_flagset_np(nullptr, flagset), "set_flagset");
  expectEinval(acl_clear_flags_np(nullptr), "clear_flags");
  EXPECT_EQ(acl_get_qualifier(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);

  // A permission set is not a flag set, and neither is an entry.
  expectEinval(acl_get_flag_np(reinterpret_cast<acl_flagset_t>(permset), ACL_ENTRY_INHERITED),
               "permset as flagset");
  expectEinval(acl_get_perm_np(reinterpret_cast<acl_permset_t>(flagset), ACL_READ_DATA),
               "flagset as permset");
  expectEinval(acl_get_tag_type(reinterpret_cast<acl_entry_t>(permset), &tag), "permset as entry");
  expectEinval(acl_get_entry(reinterpret_cast<acl_t>(entry), ACL_FIRST_ENTRY, &entry),
               "entry as acl");
}

}  // namespace
}  // namespace qx::xacl
