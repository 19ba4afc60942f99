#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "platform/membership/IdentityNames.h"

namespace qx {
namespace {

TEST(IdentityNamesTest, FindsUsersByIdAndName) {
  int error = -1;
  auto alice = IdentityNames::user(2001, &error);
  ASSERT_TRUE(alice.has_value());
  EXPECT_EQ(error, 0);
  EXPECT_EQ(alice->name, "qxalice");
  EXPECT_EQ(alice->gid, 3001u);
  auto bob = IdentityNames::userNamed("qxbob");
  ASSERT_TRUE(bob.has_value());
  EXPECT_EQ(bob->uid, 2002u);
  EXPECT_EQ(IdentityNames::userName(2003), "qxcarol");
}

TEST(IdentityNamesTest, MissingUsersAndGroupsAreAbsent) {
  int error = 0;
  EXPECT_FALSE(IdentityNames::user(2999, &error).has_value());
  EXPECT_EQ(error, ENOENT);
  EXPECT_FALSE(IdentityNames::userNamed("qxnobody", &error).has_value());
  EXPECT_EQ(error, ENOENT);
  EXPECT_FALSE(IdentityNames::userName(2999).has_value());
  EXPECT_FALSE(IdentityNames::groupName(9999).has_value());
  EXPECT_FALSE(IdentityNames::groupNamed("qxnogroup").has_value());
}

TEST(IdentityNamesTest, FindsGroupsByIdAndName) {
  EXPECT_EQ(IdentityNames::groupName(3010), "qxstaff");
  EXPECT_EQ(IdentityNames::groupNamed("qxempty"), 3020u);
}

TEST(IdentityNamesTest, EntriesLargerThanTheFirstBufferAreRead) {
  // qxlong's passwd line is over 3000 bytes, more than the first lookup buffer holds.
  auto user = IdentityNames::user(2006);
  ASSERT_TRUE(user.has_value());
  EXPECT_EQ(user->name, "qxlong");
}

TEST(IdentityNamesTest, GroupsOfAUserIncludePrimaryAndListedGroups) {
  auto erin = IdentityNames::user(2005);
  ASSERT_TRUE(erin.has_value());
  std::vector<gid_t> groups = IdentityNames::groupsOf(*erin);
  EXPECT_EQ(groups.size(), 41u);
  EXPECT_NE(std::find(groups.begin(), groups.end(), 3005u), groups.end());
  EXPECT_NE(std::find(groups.begin(), groups.end(), 4040u), groups.end());
}

}  // namespace
}  // namespace qx
