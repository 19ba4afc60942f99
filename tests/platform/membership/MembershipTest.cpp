#include <gtest/gtest.h>
#include <pwd.h>

#include <cerrno>
#include <string>

#include "platform/membership/Membership.h"

namespace qx {
namespace {

// Ids of this folder's nss/passwd and nss/group files.
constexpr uid_t kAlice = 2001;   // primary 3001, listed in qxstaff
constexpr uid_t kCarol = 2003;   // primary group qxstaff, not listed in it
constexpr uid_t kDave = 2004;    // no supplementary groups
constexpr uid_t kErin = 2005;    // listed in qxg01..qxg40
constexpr uid_t kNobody = 2999;  // no passwd entry
constexpr gid_t kAliceGroup = 3001;
constexpr gid_t kStaff = 3010;
constexpr gid_t kEmpty = 3020;

struct Uuid {
  uuid_t bytes;
};

Uuid user(uid_t uid) {
  Uuid u;
  EXPECT_EQ(mbr_uid_to_uuid(uid, u.bytes), 0);
  return u;
}

Uuid group(gid_t gid) {
  Uuid u;
  EXPECT_EQ(mbr_gid_to_uuid(gid, u.bytes), 0);
  return u;
}

Uuid parsed(const char* text) {
  Uuid u;
  EXPECT_EQ(uuid_parse(text, u.bytes), 0) << text;
  return u;
}

std::string text(const Uuid& u) {
  char out[37];
  uuid_unparse_upper(u.bytes, out);
  return out;
}

// The membership answer, or -(status) when the call failed.
int membership(const Uuid& identity, const Uuid& of) {
  int member = -100;
  int status = mbr_check_membership(identity.bytes, of.bytes, &member);
  return status == 0 ? member : -status;
}

TEST(MembershipTest, NssWrapperServesTheTestUsers) {
  struct passwd* pw = getpwnam("qxalice");
  ASSERT_NE(pw, nullptr) << "run through ctest: LD_PRELOAD=libnss_wrapper.so and the "
                            "NSS_WRAPPER_PASSWD/GROUP files of this folder are needed";
  EXPECT_EQ(pw->pw_uid, kAlice);
}

TEST(MembershipTest, IdsMapToTheirFixedUuidForms) {
  EXPECT_EQ(text(user(1000)), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000003E8");
  EXPECT_EQ(text(user(0)), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000000");
  EXPECT_EQ(text(user(0xfffffffe)), "FFFFEEEE-DDDD-CCCC-BBBB-AAAAFFFFFFFE");
  EXPECT_EQ(text(group(20)), "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000014");
  // Ids without a passwd or group entry map all the same.
  EXPECT_EQ(text(user(kNobody)), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000BB7");
  EXPECT_EQ(mbr_uid_to_uuid(1, nullptr), EINVAL);
  EXPECT_EQ(mbr_gid_to_uuid(1, nullptr), EINVAL);
}

TEST(MembershipTest, UuidsMapBackToIdsOfTheirType) {
  id_t id = 0;
  int type = -1;
  ASSERT_EQ(mbr_uuid_to_id(user(kAlice).bytes, &id, &type), 0);
  EXPECT_EQ(id, kAlice);
  EXPECT_EQ(type, ID_TYPE_UID);
  ASSERT_EQ(mbr_uuid_to_id(group(0xfffffffe).bytes, &id, &type), 0);
  EXPECT_EQ(id, 0xfffffffeu);
  EXPECT_EQ(type, ID_TYPE_GID);
  ASSERT_EQ(mbr_uuid_to_id(parsed("ffffeeee-dddd-cccc-bbbb-aaaa0000002a").bytes, &id, &type), 0);
  EXPECT_EQ(id, 42u);
  EXPECT_EQ(type, ID_TYPE_UID);
}

TEST(MembershipTest, OtherUuidsHaveNoId) {
  id_t id = 7;
  int type = 7;
  EXPECT_EQ(mbr_uuid_to_id(parsed("12345678-1234-1234-1234-123456789ABC").bytes, &id, &type),
            ENOENT);
  // One byte away from either prefix.
  EXPECT_EQ(mbr_uuid_to_id(parsed("FFFFEEEE-DDDD-CCCC-BBBB-AAAB000003E8").bytes, &id, &type),
            ENOENT);
  EXPECT_EQ(mbr_uuid_to_id(parsed("ABCDEFAB-CDEF-ABCD-EFAB-CDEE00000014").bytes, &id, &type),
            ENOENT);
  EXPECT_EQ(id, 7u);
  EXPECT_EQ(type, 7);
  EXPECT_EQ(mbr_uuid_to_id(user(1).bytes, nullptr, &type), EINVAL);
  EXPECT_EQ(mbr_uuid_to_id(user(1).bytes, &id, nullptr), EINVAL);
}

TEST(MembershipTest, UserIsMemberOfPrimaryAndSupplementaryGroups) {
  EXPECT_EQ(membership(user(kAlice), group(kAliceGroup)), 1);  // primary
  EXPECT_EQ(membership(user(kAlice), group(kStaff)), 1);       // listed member
  EXPECT_EQ(membership(user(kCarol), group(kStaff)), 1);       // primary, not listed
  EXPECT_EQ(membership(user(kAlice), group(kEmpty)), 0);
  EXPECT_EQ(membership(user(kDave), group(kStaff)), 0);
  EXPECT_EQ(membership(user(kAlice), group(9999)), 0);  // a gid without a group entry
}

TEST(MembershipTest, UserWithManyGroupsIsFoundInTheLast) {
  EXPECT_EQ(membership(user(kErin), group(4001)), 1);
  EXPECT_EQ(membership(user(kErin), group(4040)), 1);
  EXPECT_EQ(membership(user(kErin), group(4041)), 0);
}

TEST(MembershipTest, UserWithoutPasswdEntryIsUnknown) {
  EXPECT_EQ(membership(user(kNobody), group(kStaff)), -ENOENT);
}

TEST(MembershipTest, GroupIsMemberOnlyOfItself) {
  EXPECT_EQ(membership(group(kStaff), group(kStaff)), 1);
  EXPECT_EQ(membership(group(kStaff), group(kEmpty)), 0);
  EXPECT_EQ(membership(group(kAliceGroup), group(kStaff)), 0);
}

TEST(MembershipTest, NothingIsMemberOfAUser) {
  EXPECT_EQ(membership(user(kAlice), user(kAlice)), 0);
  EXPECT_EQ(membership(user(kAlice), user(kCarol)), 0);
  EXPECT_EQ(membership(group(kStaff), user(kAlice)), 0);
}

TEST(MembershipTest, UnknownUuidFormsAnswerEnoent) {
  Uuid other = parsed("12345678-1234-1234-1234-123456789ABC");
  EXPECT_EQ(membership(other, group(kStaff)), -ENOENT);
  EXPECT_EQ(membership(user(kAlice), other), -ENOENT);
  int member = 0;
  EXPECT_EQ(mbr_check_membership(user(kAlice).bytes, group(kStaff).bytes, nullptr), EINVAL);
  EXPECT_EQ(mbr_check_membership(nullptr, group(kStaff).bytes, &member), EINVAL);
}

}  // namespace
}  // namespace qx
