#include <gtest/gtest.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/membership/IdentityNames.h"
#include "platform/membership/Membership.h"

namespace qx {
namespace {

// Ids of this folder's nss/passwd and nss/group files.
constexpr uid_t kAlice = 2001;   // primary 3001, listed in qxstaff
constexpr uid_t kCarol = 2003;   // primary group qxstaff, not listed in it
constexpr uid_t kDave = 2004;    // no supplementary groups
constexpr uid_t kErin = 2005;    // listed in qxg01..qxg40 (4001..4040)
constexpr uid_t kNobody = 2999;  // no passwd entry
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

TEST(MembershipTest, IdsAndTheirUuidFormsMapBothWays) {
  ASSERT_NE(getpwnam("qxalice"), nullptr) << "run through ctest: this folder's nss_wrapper files";
  EXPECT_EQ(text(user(1000)), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000003E8");
  EXPECT_EQ(text(user(0xfffffffe)), "FFFFEEEE-DDDD-CCCC-BBBB-AAAAFFFFFFFE");
  EXPECT_EQ(text(user(kNobody)), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000BB7");  // no passwd entry
  EXPECT_EQ(text(group(20)), "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000014");
  struct Row {
    Uuid uuid;
    int status;
    id_t id;
    int type;
  };
  for (const Row& row : {
           Row{user(kAlice), 0, kAlice, ID_TYPE_UID},
           Row{group(0xfffffffe), 0, 0xfffffffe, ID_TYPE_GID},
           Row{parsed("ffffeeee-dddd-cccc-bbbb-aaaa0000002a"), 0, 42, ID_TYPE_UID},
           Row{parsed("12345678-1234-1234-1234-123456789ABC"), ENOENT, 7, 7},
           Row{parsed("FFFFEEEE-DDDD-CCCC-BBBB-AAAB000003E8"), ENOENT, 7, 7},  // one byte off
           Row{parsed("ABCDEFAB-CDEF-ABCD-EFAB-CDEE00000014"), ENOENT, 7, 7},
       }) {
    id_t id = 7;
    int type = 7;
    const int status = mbr_uuid_to_id(row.uuid.bytes, &id, &type);
    EXPECT_EQ(std::tuple(status, id, type), std::tuple(row.status, row.id, row.type))
        << text(row.uuid);
  }
  id_t id;
  int type;
  EXPECT_EQ(mbr_uid_to_uuid(1, nullptr), EINVAL);
  EXPECT_EQ(mbr_gid_to_uuid(1, nullptr), EINVAL);
  EXPECT_EQ(mbr_uuid_to_id(user(1).bytes, nullptr, &type), EINVAL);
  EXPECT_EQ(mbr_uuid_to_id(user(1).bytes, &id, nullptr), EINVAL);
}

TEST(MembershipTest, MembersArePrimaryOrListedUsersAndAGroupItself) {
  const Uuid other = parsed("12345678-1234-1234-1234-123456789ABC");
  struct Row {
    Uuid identity;
    Uuid of;
    int expected;  // the answer, or -(status) when the call fails
  };
  for (const Row& row : {
           Row{user(kAlice), group(3001), 1},    // primary
           Row{user(kAlice), group(kStaff), 1},  // listed
           Row{user(kCarol), group(kStaff), 1},  // primary, not listed
           Row{user(kAlice), group(kEmpty), 0},
           Row{user(kDave), group(kStaff), 0},
           Row{user(kAlice), group(9999), 0},  // a gid without a group entry
           Row{user(kErin), group(4001), 1},
           Row{user(kErin), group(4040), 1},  // the last of forty
           Row{user(kErin), group(4041), 0},
           Row{user(kNobody), group(kStaff), -ENOENT},
           Row{group(kStaff), group(kStaff), 1},
           Row{group(3001), group(kStaff), 0},
           Row{user(kAlice), user(kAlice), 0},  // nothing is a member of a user
           Row{group(kStaff), user(kAlice), 0},
           Row{other, group(kStaff), -ENOENT},
           Row{user(kAlice), other, -ENOENT},
       }) {
    int member = -100;
    int status = mbr_check_membership(row.identity.bytes, row.of.bytes, &member);
    EXPECT_EQ(status == 0 ? member : -status, row.expected)
        << text(row.identity) << " in " << text(row.of);
  }
  int member = 0;
  EXPECT_EQ(mbr_check_membership(user(kAlice).bytes, group(kStaff).bytes, nullptr), EINVAL);
  EXPECT_EQ(mbr_check_membership(nullptr, group(kStaff).bytes, &member), EINVAL);
}

TEST(IdentityNamesTest, FindsUsersAndGroupsByIdAndName) {
  int error = -1;
  auto alice = IdentityNames::user(kAlice, &error);
  ASSERT_TRUE(alice.has_value());
  EXPECT_EQ(std::tuple(error, alice->name, alice->gid), std::tuple(0, "qxalice", 3001u));
  EXPECT_EQ(IdentityNames::userNamed("qxbob")->uid, 2002u);
  EXPECT_EQ(IdentityNames::userName(kCarol), "qxcarol");
  EXPECT_EQ(IdentityNames::groupName(kStaff), "qxstaff");
  EXPECT_EQ(IdentityNames::groupNamed("qxempty"), kEmpty);
  // qxlong's passwd line is longer than the first lookup buffer.
  EXPECT_EQ(IdentityNames::user(2006)->name, "qxlong");
  std::vector<gid_t> groups = IdentityNames::groupsOf(*IdentityNames::user(kErin));
  EXPECT_EQ(groups.size(), 41u);
  EXPECT_NE(std::find(groups.begin(), groups.end(), 3005u), groups.end());
  EXPECT_NE(std::find(groups.begin(), groups.end(), 4040u), groups.end());

  EXPECT_FALSE(IdentityNames::user(kNobody, &error).has_value());
  EXPECT_EQ(error, ENOENT);
  EXPECT_FALSE(IdentityNames::userNamed("qxnobody", &error).has_value());
  EXPECT_EQ(error, ENOENT);
  EXPECT_FALSE(IdentityNames::userName(kNobody).has_value());
  EXPECT_FALSE(IdentityNames::groupName(9999).has_value());
  EXPECT_FALSE(IdentityNames::groupNamed("qxnogroup").has_value());
}

}  // namespace
}  // namespace qx
