#include <gtest/gtest.h>
#include <pwd.h>

#include <cerrno>

#include "XaclTestSupport.h"
#include "platform/xacl/AclText.h"

namespace qx::xacl {
namespace {

using namespace test;

TEST(AclTextTest, EntriesReadAsOneLineEachWithNamesOrUuids) {
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
