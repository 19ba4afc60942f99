// The in-memory side of the ACL interface: entries, their parts, bad handles, releases and the
// text form.
#include <gtest/gtest.h>
#include <pwd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "XaclTestSupport.h"
#include "platform/xacl/AclTesting.h"
#include "platform/xacl/AclText.h"

namespace qx::xacl {
namespace {

using namespace test;

constexpr const char* kAlice = "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1";
constexpr const char* kStaff = "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000BC2";

// acl_get_entry's result and errno as one value: 0 on success, else errno.
int getEntry(acl_t acl, int id, acl_entry_t* entry) {
  errno = 0;
  return acl_get_entry(acl, id, entry) == 0 ? 0 : errno;
}

int freeError(void* object) {
  errno = 0;
  return acl_free(object) == 0 ? 0 : errno;
}

TEST(AclEntries, IterationInOrderUpTo128Entries) {
  EXPECT_EQ(errnoOf([] { return acl_init(-1) == nullptr; }), EINVAL);
  EXPECT_EQ(errnoOf([] { return acl_init(ACL_MAX_ENTRIES + 1) == nullptr; }), ENOMEM);
  EXPECT_TRUE(AclHandle(acl_init(ACL_MAX_ENTRIES)));

  AclHandle acl(acl_init(0));  // the count is a hint only
  acl_entry_t entry = nullptr;
  for (int id : {ACL_FIRST_ENTRY, ACL_NEXT_ENTRY, ACL_LAST_ENTRY})
    EXPECT_EQ(getEntry(acl.get(), id, &entry), EINVAL) << "empty ACL, id " << id;
  EXPECT_EQ(entry, nullptr);
  acl_entry_t a = addEntry(acl.get(), {ACL_EXTENDED_ALLOW, kAlice});
  ASSERT_EQ(getEntry(acl.get(), ACL_NEXT_ENTRY, &entry), 0) << "next without first";
  EXPECT_EQ(entry, a);
  acl_entry_t b = addEntry(acl.get(), {ACL_EXTENDED_DENY, kStaff});
  acl_entry_t c = addEntry(acl.get(), {ACL_EXTENDED_ALLOW, kStaff});
  std::vector<acl_entry_t> seen;
  for (int id = ACL_FIRST_ENTRY; getEntry(acl.get(), id, &entry) == 0; id = ACL_NEXT_ENTRY)
    seen.push_back(entry);
  EXPECT_EQ(seen, (std::vector<acl_entry_t>{a, b, c}));
  EXPECT_EQ(entry, c) << "a failed call leaves the out-parameter alone";
  EXPECT_EQ(getEntry(acl.get(), ACL_NEXT_ENTRY, &entry), EINVAL) << "stays past the end";
  ASSERT_EQ(getEntry(acl.get(), 1, &entry), 0);
  EXPECT_EQ(entry, b);
  ASSERT_EQ(getEntry(acl.get(), ACL_LAST_ENTRY, &entry), 0);
  EXPECT_EQ(entry, c);
  EXPECT_EQ(getEntry(acl.get(), 3, &entry), EINVAL);
  EXPECT_EQ(getEntry(acl.get(), -3, &entry), EINVAL);

  acl_t raw = acl.get();
  for (int i = 3; i < ACL_MAX_ENTRIES; ++i) ASSERT_EQ(acl_create_entry(&raw, &entry), 0) << i;
  acl_entry_t extra = nullptr;
  EXPECT_EQ(errnoOf([&] { return acl_create_entry(&raw, &extra) == -1; }), ENOMEM);
  EXPECT_EQ(extra, nullptr);
  EXPECT_EQ(raw, acl.get()) << "ACLs do not move";
  acl_tag_t tag = ACL_UNDEFINED_TAG;
  ASSERT_EQ(acl_get_tag_type(b, &tag), 0);
  EXPECT_EQ(tag, ACL_EXTENDED_DENY) << "entry handles survive 125 additions";
}

TEST(AclEntries, TagsQualifiersPermissionsAndFlags) {
  AclHandle acl(acl_init(2));
  acl_entry_t entry = addEntry(acl.get(), {ACL_UNDEFINED_TAG, nullptr});
  acl_tag_t tag = -1;
  ASSERT_EQ(acl_get_tag_type(entry, &tag), 0);
  EXPECT_EQ(tag, ACL_UNDEFINED_TAG);
  for (acl_tag_t bad : {ACL_UNDEFINED_TAG, 3, -1, 0x101})
    EXPECT_EQ(errnoOf([&] { return acl_set_tag_type(entry, bad) == -1; }), EINVAL) << bad;
  EXPECT_EQ(errnoOf([&] { return acl_get_qualifier(entry) == nullptr; }), EINVAL) << "never set";
  test::Uuid source = uuidOf(kAlice);
  ASSERT_EQ(acl_set_qualifier(entry, source.data()), 0);
  source.fill(0);
  QualifierHandle first(acl_get_qualifier(entry));
  QualifierHandle second(acl_get_qualifier(entry));
  ASSERT_TRUE(first && second);
  std::memset(first.get(), 0, 16);
  EXPECT_EQ(textOf(second.get()), kAlice) << "the entry and each qualifier hold their own copy";

  // Permission and flag sets are handles into their entry.
  acl_permset_t permset = nullptr, permsAgain = nullptr;
  acl_flagset_t flagset = nullptr, flagsAgain = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &permset) | acl_get_permset(entry, &permsAgain) |
                acl_get_flagset_np(entry, &flagset) | acl_get_flagset_np(entry, &flagsAgain),
            0);
  for (acl_perm_t perm = ACL_READ_DATA; perm <= ACL_CHANGE_OWNER; perm <<= 1) {
    ASSERT_EQ(acl_clear_perms(permset), 0);
    EXPECT_EQ(acl_get_perm_np(permsAgain, perm), 0) << perm;
    ASSERT_EQ(acl_add_perm(permset, perm), 0) << perm;
    EXPECT_EQ(acl_get_perm_np(permsAgain, perm), 1) << perm;
  }
  for (acl_flag_t flag : {ACL_ENTRY_INHERITED, ACL_ENTRY_FILE_INHERIT, ACL_ENTRY_DIRECTORY_INHERIT,
                          ACL_ENTRY_LIMIT_INHERIT, ACL_ENTRY_ONLY_INHERIT}) {
    EXPECT_EQ(acl_get_flag_np(flagsAgain, flag), 0) << flag;
    ASSERT_EQ(acl_add_flag_np(flagset, flag), 0) << flag;
    EXPECT_EQ(acl_get_flag_np(flagsAgain, flag), 1) << flag;
  }
  ASSERT_EQ(acl_delete_flag_np(flagset, ACL_ENTRY_ONLY_INHERIT), 0);
  ASSERT_EQ(acl_clear_perms(permset), 0);
  ASSERT_EQ(acl_add_perm(permset, ACL_READ_DATA | ACL_CHANGE_OWNER), 0);
  EXPECT_EQ(acl_get_perm_np(permsAgain, ACL_READ_DATA | ACL_EXECUTE), 0) << "every bit asked";
  ASSERT_EQ(acl_delete_perm(permset, ACL_READ_DATA), 0);
  EXPECT_EQ(acl_get_perm_np(permsAgain, ACL_READ_DATA), 0);
  // Values outside both tables, alone or beside known bits.
  for (uint32_t bad : {0u, 0x1u, 0x3u, 0x11u, 0x201u, 0x4000u, 0x80000000u}) {
    EXPECT_EQ(errnoOf([&] { return acl_add_perm(permset, bad) == -1; }), EINVAL) << bad;
    EXPECT_EQ(errnoOf([&] { return acl_get_perm_np(permset, bad) == -1; }), EINVAL) << bad;
    EXPECT_EQ(errnoOf([&] { return acl_add_flag_np(flagset, bad) == -1; }), EINVAL) << bad;
    EXPECT_EQ(errnoOf([&] { return acl_get_flag_np(flagset, bad) == -1; }), EINVAL) << bad;
  }
  EXPECT_EQ(acl_get_perm_np(permsAgain, ACL_CHANGE_OWNER), 1) << "refused calls changed nothing";

  // Setting a set copies it, from any entry.
  acl_entry_t other = addEntry(acl.get(), {ACL_EXTENDED_DENY, kStaff});
  ASSERT_EQ(acl_set_permset(other, permset) | acl_set_flagset_np(other, flagset) |
                acl_clear_perms(permset) | acl_clear_flags_np(flagset),
            0);
  EXPECT_EQ(acl_get_flag_np(flagsAgain, ACL_ENTRY_INHERITED), 0);
  ASSERT_EQ(acl_get_permset(other, &permset) | acl_get_flagset_np(other, &flagset), 0);
  EXPECT_EQ(acl_get_perm_np(permset, ACL_CHANGE_OWNER), 1) << "a copy, not a shared set";
  EXPECT_EQ(acl_get_flag_np(flagset, ACL_ENTRY_INHERITED | ACL_ENTRY_LIMIT_INHERIT), 1);
  EXPECT_EQ(acl_get_flag_np(flagset, ACL_ENTRY_ONLY_INHERIT), 0) << "deleted before the copy";
}

TEST(AclEntries, MissingOrWrongHandlesAreBadArguments) {
  AclHandle acl(acl_init(1));
  acl_entry_t entry = addEntry(acl.get(), {ACL_EXTENDED_ALLOW, kAlice});
  acl_permset_t permset = nullptr;
  acl_flagset_t flagset = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &permset) | acl_get_flagset_np(entry, &flagset), 0);
  acl_t raw = acl.get();
  acl_t none = nullptr;
  acl_tag_t tag;
  auto einval = [](int result) {
    bool refused = result == -1 && errno == EINVAL;
    errno = 0;
    return refused;
  };
  errno = 0;
  EXPECT_TRUE(einval(acl_get_entry(nullptr, ACL_FIRST_ENTRY, &entry)));
  EXPECT_TRUE(einval(acl_get_entry(raw, ACL_FIRST_ENTRY, nullptr)));
  EXPECT_TRUE(einval(acl_create_entry(nullptr, &entry)));
  EXPECT_TRUE(einval(acl_create_entry(&raw, nullptr)));
  EXPECT_TRUE(einval(acl_create_entry(&none, &entry)));
  EXPECT_TRUE(einval(acl_get_tag_type(nullptr, &tag)));
  EXPECT_TRUE(einval(acl_get_tag_type(entry, nullptr)));
  EXPECT_TRUE(einval(acl_set_tag_type(nullptr, ACL_EXTENDED_ALLOW)));
  EXPECT_TRUE(einval(acl_set_qualifier(entry, nullptr)));
  EXPECT_TRUE(einval(acl_get_permset(entry, nullptr)));
  EXPECT_TRUE(einval(acl_set_permset(entry, nullptr)));
  EXPECT_TRUE(einval(acl_clear_perms(nullptr)));
  EXPECT_TRUE(einval(acl_get_flagset_np(entry, nullptr)));
  EXPECT_TRUE(einval(acl_set_flagset_np(nullptr, flagset)));
  EXPECT_TRUE(einval(acl_clear_flags_np(nullptr)));
  EXPECT_EQ(acl_get_qualifier(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  // A permission set is not a flag set, and neither is an entry.
  EXPECT_TRUE(
      einval(acl_get_flag_np(reinterpret_cast<acl_flagset_t>(permset), ACL_ENTRY_INHERITED)));
  EXPECT_TRUE(einval(acl_get_perm_np(reinterpret_cast<acl_permset_t>(flagset), ACL_READ_DATA)));
  EXPECT_TRUE(einval(acl_get_tag_type(reinterpret_cast<acl_entry_t>(permset), &tag)));
  EXPECT_TRUE(einval(acl_get_entry(reinterpret_cast<acl_t>(entry), ACL_FIRST_ENTRY, &entry)));
}

TEST(AclFree, ReleasesOnlyWhatItHandedOutAndOnlyOnce) {
  const size_t acls = testing::LiveAcls(), qualifiers = testing::LiveQualifiers();
  acl_t acl = acl_init(1);
  acl_entry_t entry = addEntry(acl, {ACL_EXTENDED_ALLOW, kAlice});
  void* qualifier = acl_get_qualifier(entry);
  EXPECT_EQ(testing::LiveAcls(), acls + 1);
  EXPECT_EQ(testing::LiveQualifiers(), qualifiers + 1);
  acl_permset_t permset = nullptr;
  ASSERT_EQ(acl_get_permset(entry, &permset), 0);
  int local = 0;
  void* heap = std::malloc(16);
  for (void* foreign : {static_cast<void*>(nullptr), static_cast<void*>(&local), heap,
                        static_cast<void*>(entry), static_cast<void*>(permset)})
    EXPECT_EQ(freeError(foreign), EINVAL) << foreign;
  std::free(heap);
  acl_tag_t tag = ACL_UNDEFINED_TAG;
  EXPECT_EQ(acl_get_tag_type(entry, &tag), 0) << "the refused calls left the ACL alone";
  EXPECT_EQ(tag, ACL_EXTENDED_ALLOW);
  EXPECT_EQ(freeError(qualifier), 0);
  EXPECT_EQ(freeError(qualifier), EINVAL) << "released already";
  EXPECT_EQ(freeError(acl), 0);
  EXPECT_EQ(freeError(acl), EINVAL) << "released already";

  {
    AclHandle handle(acl_init(0));
    testing::FailNextFree(EIO, testing::FreeTarget::Acl);
    errno = ENOTDIR;
  }
  EXPECT_EQ(errno, ENOTDIR) << "a handle's unchecked, failing release keeps errno";
  EXPECT_EQ(testing::LiveAcls(), acls);
  EXPECT_EQ(testing::LiveQualifiers(), qualifiers);
}

TEST(AclText, EntriesReadAsOneLineEachWithNamesOrUuids) {
  ASSERT_NE(getpwnam("qxmember"), nullptr) << "tests/support/users through nss_wrapper";
  AclHandle acl = buildAcl({
      {ACL_EXTENDED_ALLOW, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000836", ACL_READ_DATA | ACL_EXECUTE,
       ACL_ENTRY_FILE_INHERIT},
      {ACL_EXTENDED_DENY, "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000C26",
       ACL_WRITE_DATA | ACL_APPEND_DATA | ACL_DELETE},
      {ACL_EXTENDED_ALLOW, "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000C26", 0,
       ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT},
  });
  EXPECT_EQ(AclText::format(acl.get()),
            "allow user:qxmember read_data,execute file_inherit\n"
            "deny group:qxteam write_data,append_data,delete\n"
            "allow group:qxteam none inherited,only_inherit\n");
  acl_entry_t first = nullptr;
  ASSERT_EQ(acl_get_entry(acl.get(), ACL_FIRST_ENTRY, &first), 0);
  EXPECT_EQ(AclText::format(acl.get(), true)->substr(0, 49),
            "allow user:qxmember list_directory,search file_in");
  acl_entry_t next = nullptr;
  ASSERT_EQ(acl_get_entry(acl.get(), ACL_NEXT_ENTRY, &next), 0)
      << "formatting did not move the iteration";
  EXPECT_EQ(AclText::formatEntry(next), "deny group:qxteam write_data,append_data,delete");
  AclHandle incomplete(acl_init(1));
  EXPECT_EQ(AclText::formatEntry(addEntry(incomplete.get(), {ACL_UNDEFINED_TAG, nullptr, 0x10})),
            "undefined unset delete");
  EXPECT_EQ(test::errnoOf([] { return !AclText::format(nullptr); }), EINVAL);
  EXPECT_FALSE(AclText::formatEntry(nullptr).has_value());

  EXPECT_EQ(AclText::identity(uuidOf("FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000BB7").data()),
            "user:FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000BB7");
  EXPECT_EQ(AclText::identity(uuidOf("ABCDEFAB-CDEF-ABCD-EFAB-CDEF0000270F").data()),
            "group:ABCDEFAB-CDEF-ABCD-EFAB-CDEF0000270F");
  EXPECT_EQ(AclText::identity(uuidOf("12345678-9abc-def0-1234-56789abcdef0").data()),
            "12345678-9ABC-DEF0-1234-56789ABCDEF0");

  // Every permission and flag by name, in table order, file and folder names alike.
  EXPECT_EQ(AclText::permissions(ACL_PERM_MASK, false),
            "read_data,execute,read_attributes,read_extattributes,read_security,write_data,"
            "append_data,delete,delete_child,write_attributes,write_extattributes,"
            "write_security,change_owner");
  EXPECT_EQ(AclText::permissions(ACL_PERM_MASK, true),
            "list_directory,search,read_attributes,read_extattributes,read_security,add_file,"
            "add_subdirectory,delete,delete_child,write_attributes,write_extattributes,"
            "write_security,change_owner");
  EXPECT_EQ(AclText::flags(ACL_ENTRY_FLAG_MASK),
            "inherited,file_inherit,directory_inherit,limit_inherit,only_inherit");
}

}  // namespace
}  // namespace qx::xacl
