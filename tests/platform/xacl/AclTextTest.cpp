#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "XaclTestSupport.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclText.h"

namespace qx::xacl {
namespace {

using test::uuidOf;

acl_entry_t addEntry(acl_t acl, acl_tag_t tag, const char* qualifier, acl_perm_t perms,
                     acl_flag_t flags) {
  acl_entry_t entry = nullptr;
  acl_permset_t permset = nullptr;
  acl_flagset_t flagset = nullptr;
  EXPECT_EQ(acl_create_entry(&acl, &entry), 0);
  if (tag != ACL_UNDEFINED_TAG) {
    EXPECT_EQ(acl_set_tag_type(entry, tag), 0);
  }
  if (qualifier != nullptr) {
    EXPECT_EQ(acl_set_qualifier(entry, uuidOf(qualifier).data()), 0);
  }
  EXPECT_EQ(acl_get_permset(entry, &permset), 0);
  if (perms != 0) {
    EXPECT_EQ(acl_add_perm(permset, perms), 0);
  }
  EXPECT_EQ(acl_get_flagset_np(entry, &flagset), 0);
  if (flags != 0) {
    EXPECT_EQ(acl_add_flag_np(flagset, flags), 0);
  }
  return entry;
}

TEST(AclTextTest, NssWrapperServesTheTestUsers) {
  ASSERT_NE(getpwnam("qxalice"), nullptr)
      << "run through ctest: the nss_wrapper files of this folder are needed";
}

TEST(AclTextTest, EntriesReadAsOneLineEach) {
  AclHandle acl(acl_init(3));
  addEntry(acl.get(), ACL_EXTENDED_ALLOW, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1",
           ACL_READ_DATA | ACL_EXECUTE, ACL_ENTRY_FILE_INHERIT);
  addEntry(acl.get(), ACL_EXTENDED_DENY, "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000BC2",
           ACL_WRITE_DATA | ACL_APPEND_DATA | ACL_DELETE, 0);
  addEntry(acl.get(), ACL_EXTENDED_ALLOW, "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000BC2", 0,
           ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT);
  EXPECT_EQ(AclText::format(acl.get()),
            "allow user:qxalice read_data,execute file_inherit\n"
            "deny group:qxstaff write_data,append_data,delete\n"
            "allow group:qxstaff none inherited,only_inherit\n");
  acl_entry_t first = nullptr;
  ASSERT_EQ(acl_get_entry(acl.get(), ACL_FIRST_ENTRY, &first), 0);
  EXPECT_EQ(AclText::format(acl.get(), true)->substr(0, 48),
            "allow user:qxalice list_directory,search file_in");
  acl_entry_t next = nullptr;
  ASSERT_EQ(acl_get_entry(acl.get(), ACL_NEXT_ENTRY, &next), 0)
      << "formatting did not move the iteration";
  EXPECT_EQ(AclText::formatEntry(next), "deny group:qxstaff write_data,append_data,delete");
}

TEST(AclTextTest, UnnamedIdentitiesShowTheirUuid) {
  EXPECT_EQ(AclText::identity(uuidOf("FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000BB7").data()),
            "user:FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000BB7");
  EXPECT_EQ(AclText::identity(uuidOf("ABCDEFAB-CDEF-ABCD-EFAB-CDEF0000270F").data()),
            "group:ABCDEFAB-CDEF-ABCD-EFAB-CDEF0000270F");
  EXPECT_EQ(AclText::identity(uuidOf("12345678-9abc-def0-1234-56789abcdef0").data()),
            "12345678-9ABC-DEF0-1234-56789ABCDEF0");
}

TEST(AclTextTest, EveryPermissionAndFlagHasAName) {
  EXPECT_EQ(AclText::permissions(ACL_PERM_MASK, false),
            "read_data,execute,read_attributes,read_extattributes,read_security,write_data,"
            "append_data,delete,delete_child,write_attributes,write_extattributes,"
            "write_security,change_owner");
  EXPECT_EQ(AclText::permissions(ACL_PERM_MASK, true),
            "list_directory,search,read_attributes,read_extattributes,read_security,add_file,"
            "add_subdirectory,delete,delete_child,write_attributes,write_extattributes,"
            "write_security,change_owner");
  EXPECT_EQ(AclText::permissions(0, false), "none");
  EXPECT_EQ(AclText::flags(ACL_ENTRY_FLAG_MASK),
            "inherited,file_inherit,directory_inherit,limit_inherit,only_inherit");
  EXPECT_EQ(AclText::flags(0), "");
}

TEST(AclTextTest, IncompleteEntriesAndBadHandles) {
  AclHandle acl(acl_init(1));
  acl_entry_t entry = addEntry(acl.get(), ACL_UNDEFINED_TAG, nullptr, ACL_DELETE, 0);
  EXPECT_EQ(AclText::formatEntry(entry), "undefined unset delete");
  errno = 0;
  EXPECT_FALSE(AclText::format(nullptr).has_value());
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(AclText::formatEntry(nullptr).has_value());
}

TEST(AclTextTest, ReadsTheAclOfAPath) {
  test::TempDir dir;
  std::string folder = dir / "folder";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  EXPECT_EQ(AclText::forPath(folder.c_str()), "");

  AclHandle acl(acl_init(1));
  addEntry(acl.get(), ACL_EXTENDED_ALLOW, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D2",
           ACL_ADD_FILE | ACL_SEARCH, ACL_ENTRY_DIRECTORY_INHERIT);
  ASSERT_EQ(acl_set_link_np(folder.c_str(), ACL_TYPE_EXTENDED, acl.get()), 0);
  EXPECT_EQ(AclText::forPath(folder.c_str()),
            "allow user:qxbob search,add_file directory_inherit\n");

  errno = 0;
  EXPECT_FALSE(AclText::forPath((dir / "missing").c_str()).has_value());
  EXPECT_EQ(errno, ENOENT);
  ASSERT_TRUE(test::writeRaw(folder, {1, 2, 3}));
  errno = 0;
  EXPECT_FALSE(AclText::forPath(folder.c_str()).has_value());
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
}  // namespace qx::xacl
