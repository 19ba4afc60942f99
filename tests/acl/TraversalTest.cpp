// Whether an identity can reach an item through the folders above it.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "acl/QXFileAcl.h"
#include "platform/xacl/AclTesting.h"
#include "tests/acl/AclTestSupport.h"

namespace {

using namespace qxacltest;
using namespace qx::xacl;

struct Check {
  bool completed = false;
  bool traversable = false;
  qx::ErrorPtr error;
};

Check check(const std::string& path, const UuidBytes& who) {
  Check result;
  result.traversable = false;
  result.error = qx::Error::errorWithDomain("primed", 1);
  result.completed =
      QXFileAcl::getTraversable(&result.traversable, urlOf(path), who.data(), &result.error);
  return result;
}

// The answer as text, so that a child process can hand it back.
std::string answer(const std::string& path, const UuidBytes& who) {
  Check c = check(path, who);
  if (!c.completed) return "failed: " + (c.error ? c.error->localizedDescription() : "no error");
  if (c.error) return "completed with an error";
  return c.traversable ? "yes" : "no";
}

class Traversal : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give the items their owners";
  }
  TempTree tree_;
};

TEST_F(Traversal, RootItemAndTheItemItselfAreNotExamined) {
  Check root = check("/", userUuid(kOther));
  EXPECT_TRUE(root.completed);
  EXPECT_TRUE(root.traversable);
  EXPECT_FALSE(root.error);

  // A folder nobody may search is reachable itself.
  std::string closed = tree_.folder("closed", 0000, kOwner, kTeam);
  ASSERT_TRUE(setAcl(closed, {{userUuid(kOther), ACL_EXTENDED_DENY, ACL_SEARCH}}));
  EXPECT_EQ(answer(closed, userUuid(kOther)), "yes");
  EXPECT_EQ(answer(tree_.file("closed/inside"), userUuid(kOther)), "no");

  // Null out-parameters are allowed.
  EXPECT_TRUE(QXFileAcl::getTraversable(nullptr, urlOf(closed), userUuid(kOther).data(), nullptr));
}

TEST_F(Traversal, ModeBitsDecideForOwnerGroupAndOthers) {
  tree_.folder("team", 0710, kOwner, kTeam);
  std::string file = tree_.file("team/f");
  EXPECT_EQ(answer(file, userUuid(kOwner)), "yes");
  EXPECT_EQ(answer(file, userUuid(kMember)), "yes");   // supplementary member
  EXPECT_EQ(answer(file, userUuid(kPrimary)), "yes");  // primary group
  EXPECT_EQ(answer(file, groupUuid(kTeam)), "yes");    // the group itself
  EXPECT_EQ(answer(file, userUuid(kOther)), "no");
  EXPECT_EQ(answer(file, groupUuid(kDenied)), "no");

  // The owner's own bits count even when the group would let them in.
  tree_.folder("groupOnly", 0070, kMember, kTeam);
  std::string inside = tree_.file("groupOnly/f");
  EXPECT_EQ(answer(inside, userUuid(kMember)), "no");
  EXPECT_EQ(answer(inside, userUuid(kPrimary)), "yes");
}

TEST_F(Traversal, EveryFolderUpToTheRootIsChecked) {
  tree_.folder("a", 0700, kOwner, kTeam);
  tree_.folder("a/b", 0755, kOwner, kTeam);
  tree_.folder("a/b/c", 0755, kOwner, kTeam);
  std::string deep = tree_.file("a/b/c/f");
  EXPECT_EQ(answer(deep, userUuid(kOther)), "no");
  EXPECT_EQ(answer(deep, userUuid(kOwner)), "yes");
}

TEST_F(Traversal, FirstApplyingSearchEntryDecidesDenyBeforeAllow) {
  std::string folder = tree_.folder("d", 0755, kOwner, kTeam);
  std::string file = tree_.file("d/f");
  ASSERT_TRUE(setAcl(folder, {{groupUuid(kTeam), ACL_EXTENDED_DENY, ACL_SEARCH},
                              {userUuid(kMember), ACL_EXTENDED_ALLOW, ACL_SEARCH}}));
  EXPECT_EQ(answer(file, userUuid(kMember)), "no");
  EXPECT_EQ(answer(file, userUuid(kPrimary)), "no");
  // Not in the group: the entries do not apply and the mode lets them in.
  EXPECT_EQ(answer(file, userUuid(kOther)), "yes");
}

TEST_F(Traversal, AclSilentAboutSearchFallsBackToTheMode) {
  std::string folder = tree_.folder("d", 0700, kOwner, kTeam);
  std::string file = tree_.file("d/f");
  ASSERT_TRUE(setAcl(folder, {{userUuid(kOther), ACL_EXTENDED_ALLOW, ACL_LIST_DIRECTORY},
                              {userUuid(kOther), ACL_EXTENDED_DENY, ACL_ADD_FILE}}));
  EXPECT_EQ(answer(file, userUuid(kOther)), "no");
  chmod(folder.c_str(), 0701);
  EXPECT_EQ(answer(file, userUuid(kOther)), "yes");
}

TEST_F(Traversal, AllowEntryDecidesTheFolderAndTheWalkGoesOnToTheParent) {
  std::string outer = tree_.folder("outer", 0700, kOwner, kTeam);
  std::string inner = tree_.folder("outer/inner", 0700, kOwner, kTeam);
  std::string file = tree_.file("outer/inner/f");
  ASSERT_TRUE(setAcl(inner, {{userUuid(kOther), ACL_EXTENDED_ALLOW, ACL_SEARCH}}));
  // Run where a walk that never leaves the folder would be stopped.
  EXPECT_EQ(inChild([&] { return answer(file, userUuid(kOther)); }), "no");
  ASSERT_TRUE(setAcl(outer, {{groupUuid(kOtherGroup), ACL_EXTENDED_ALLOW, ACL_SEARCH}}));
  EXPECT_EQ(inChild([&] { return answer(file, userUuid(kOther)); }), "yes");
}

TEST_F(Traversal, FailuresNameTheFolderAndAreNotWrapped) {
  std::string folder = tree_.folder("d", 0755, kOwner, kTeam);
  std::string file = tree_.file("d/f");
  ASSERT_TRUE(setDamagedAcl(folder));
  Check damaged = check(file, userUuid(kOther));
  EXPECT_FALSE(damaged.completed);
  EXPECT_TRUE(damaged.traversable);
  ASSERT_TRUE(damaged.error);
  EXPECT_EQ(damaged.error->code(), EINVAL);
  EXPECT_EQ(damaged.error->localizedDescription(),
            "Couldn't retrieve file Acces Control List for file at path \"" + folder + "\".");
  EXPECT_EQ(damaged.error->localizedRecoverySuggestion(), "Invalid argument");
  EXPECT_EQ(damaged.error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey)->path(), folder);

  // An entry naming neither a user nor a group cannot be matched.
  UuidBytes stranger{};
  uuid_parse("01234567-89AB-CDEF-0123-456789ABCDEF", stranger.data());
  ASSERT_TRUE(setAcl(folder, {{stranger, ACL_EXTENDED_ALLOW, ACL_SEARCH}}));
  Check membership = check(file, userUuid(kOther));
  EXPECT_FALSE(membership.completed);
  ASSERT_TRUE(membership.error);
  EXPECT_EQ(membership.error->code(), ENOENT);
  EXPECT_EQ(membership.error->localizedDescription(),
            "Couldn't determine group membership for selected user.");

  // A user without a passwd entry cannot be placed against the folder's group.
  ASSERT_TRUE(setAcl(folder, {}));
  Check unknown = check(file, userUuid(kUnknown));
  EXPECT_FALSE(unknown.completed);
  ASSERT_TRUE(unknown.error);
  EXPECT_EQ(unknown.error->code(), ENOENT);
  EXPECT_EQ(unknown.error->localizedDescription(),
            "Couldn't determine group membership for selected user.");
}

TEST_F(Traversal, ReleaseFailureAfterADenyKeepsTheAnswer) {
  std::string folder = tree_.folder("d", 0755, kOwner, kTeam);
  std::string file = tree_.file("d/f");
  ASSERT_TRUE(setAcl(folder, {{userUuid(kOther), ACL_EXTENDED_DENY, ACL_SEARCH}}));
  qx::xacl::testing::ScopedFreeFailure failure(EIO, qx::xacl::testing::FreeTarget::Acl);
  Check c = check(file, userUuid(kOther));
  EXPECT_FALSE(c.completed);
  EXPECT_FALSE(c.traversable);
  ASSERT_TRUE(c.error);
  EXPECT_EQ(c.error->code(), EIO);
  EXPECT_EQ(
      c.error->localizedDescription(),
      "Couldn't release file Acces Control List storage for file at path \"" + folder + "\".");
}

}  // namespace
