// The permissions an identity effectively holds on an item.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "acl/QXFileAcl.h"
#include "tests/acl/AclTestSupport.h"

namespace {

using namespace qxacltest;
using namespace qx::xacl;
using States = std::map<std::string, int64_t>;

class AccessForUrl : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give the items their owners";
  }

  // The leaf states; also checks the shape every result has.
  States access(const std::string& path, const UuidBytes& who) {
    error_ = qx::Error::errorWithDomain("primed", 1);
    qx::ArrayPtr groups = QXFileAcl::accessForUrl(urlOf(path), uuidObject(who), &error_);
    if (!groups) return {};
    EXPECT_FALSE(error_);
    const bool folder = std::filesystem::is_directory(std::filesystem::symlink_status(path));
    expectShape(groups, folder);
    return leafStates(groups);
  }

  static void expectShape(const qx::ArrayPtr& groups, bool folder) {
    ASSERT_EQ(groups->count(), 3u);
    const char* names[] = {"Read", "Write", "Administration"};
    const size_t counts[] = {5, folder ? 6u : 5u, 2};
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(nameOf(groups->objectAtIndex(i)), names[i]);
      EXPECT_EQ(recordOf(groups->objectAtIndex(i))->permission(), 2);
      EXPECT_EQ(recordOf(groups->objectAtIndex(i))->state(), -1);
      std::vector<Leaf> leaves = childrenOf(groups->objectAtIndex(i));
      EXPECT_EQ(leaves.size(), counts[i]);
      for (const Leaf& leaf : leaves) EXPECT_TRUE(leaf.state == 0 || leaf.state == 1) << leaf;
    }
  }

  TempTree tree_;
  qx::ErrorPtr error_;
};

TEST_F(AccessForUrl, OwnerAndOthersOnAPlainFile) {
  std::string file = tree_.file("f", 0644, kOwner, kTeam);
  EXPECT_EQ(access(file, userUuid(kOwner)), (States{{"Read Data", 1},
                                                    {"Execute File", 0},
                                                    {"Read Attributes", 1},
                                                    {"Read Extended Attributes", 1},
                                                    {"Read Permissions", 1},
                                                    {"Write Data", 1},
                                                    {"Append Data", 1},
                                                    {"Delete", 1},
                                                    {"Write Attributes", 1},
                                                    {"Write Extended Attributes", 1},
                                                    {"Change Permissions", 1},
                                                    {"Change Owner", 0}}));
  const States everyoneElse{{"Read Data", 1},          {"Execute File", 0},
                            {"Read Attributes", 1},    {"Read Extended Attributes", 1},
                            {"Read Permissions", 1},   {"Write Data", 0},
                            {"Append Data", 0},        {"Delete", 1},
                            {"Write Attributes", 0},   {"Write Extended Attributes", 0},
                            {"Change Permissions", 0}, {"Change Owner", 0}};
  EXPECT_EQ(access(file, userUuid(kOther)), everyoneElse);
  EXPECT_EQ(access(file, userUuid(kMember)), everyoneElse);
}

TEST_F(AccessForUrl, GroupBitsForTheGroupAndItsMembers) {
  std::string file = tree_.file("f", 0070, kOwner, kTeam);
  for (const UuidBytes& who : {groupUuid(kTeam), userUuid(kMember), userUuid(kPrimary)}) {
    States states = access(file, who);
    EXPECT_EQ(states["Read Data"], 1);
    EXPECT_EQ(states["Write Data"], 1);
    EXPECT_EQ(states["Execute File"], 1);
    EXPECT_EQ(states["Write Attributes"], 0);
  }
  States owner = access(file, userUuid(kOwner));
  EXPECT_EQ(owner["Read Data"], 0);
  EXPECT_EQ(owner["Write Data"], 0);
  EXPECT_EQ(owner["Change Permissions"], 1);
}

TEST_F(AccessForUrl, FirstApplyingEntryDecidesDenyForAGroupBeforeAllowForTheUser) {
  std::string file = tree_.file("f", 0666, kOwner, kOwnerGroup);
  ASSERT_TRUE(setAcl(file, {{groupUuid(kTeam), ACL_EXTENDED_DENY, ACL_WRITE_DATA | ACL_APPEND_DATA},
                            {userUuid(kMember), ACL_EXTENDED_ALLOW,
                             ACL_WRITE_DATA | ACL_EXECUTE | ACL_CHANGE_OWNER}}));
  States member = access(file, userUuid(kMember));
  EXPECT_EQ(member["Write Data"], 0);
  EXPECT_EQ(member["Append Data"], 0);
  EXPECT_EQ(member["Execute File"], 1);
  EXPECT_EQ(member["Change Owner"], 1);
  EXPECT_EQ(member["Read Data"], 1);  // from the mode
  // Not in the group: only the mode speaks.
  States other = access(file, userUuid(kOther));
  EXPECT_EQ(other["Write Data"], 1);
  EXPECT_EQ(other["Execute File"], 0);
}

TEST_F(AccessForUrl, FolderThatCannotBeSearchedTakesNoChanges) {
  std::string folder = tree_.folder("d", 0776, kOwner, kTeam);
  const uint32_t changes = ACL_ADD_FILE | ACL_ADD_SUBDIRECTORY | ACL_DELETE_CHILD;
  ASSERT_TRUE(setAcl(folder, {{userUuid(kOther), ACL_EXTENDED_ALLOW, changes}}));
  States blocked = access(folder, userUuid(kOther));
  EXPECT_EQ(blocked["Traverse Folder"], 0);
  EXPECT_EQ(blocked["Create Files"], 0);
  EXPECT_EQ(blocked["Create Folder"], 0);
  EXPECT_EQ(blocked["Delete Subfolders and Files"], 0);
  EXPECT_EQ(blocked["List Folder Contents"], 1);

  ASSERT_TRUE(setAcl(folder, {{userUuid(kOther), ACL_EXTENDED_ALLOW, changes | ACL_SEARCH}}));
  States searchable = access(folder, userUuid(kOther));
  EXPECT_EQ(searchable["Traverse Folder"], 1);
  EXPECT_EQ(searchable["Create Files"], 1);
  EXPECT_EQ(searchable["Delete Subfolders and Files"], 1);
}

TEST_F(AccessForUrl, ReadPermissionsFollowReadAttributes) {
  std::string file = tree_.file("f", 0644, kOwner, kTeam);
  const UuidBytes member = userUuid(kMember), team = groupUuid(kTeam);

  // Attributes denied: a granted "Read Permissions" is taken back at the end.
  ASSERT_TRUE(setAcl(file, {{member, ACL_EXTENDED_DENY, ACL_READ_ATTRIBUTES},
                            {member, ACL_EXTENDED_ALLOW, ACL_READ_SECURITY}}));
  EXPECT_EQ(access(file, member)["Read Permissions"], 0);

  // No entry names it: the mode's fill grants it.
  ASSERT_TRUE(setAcl(file, {{member, ACL_EXTENDED_DENY, ACL_READ_ATTRIBUTES}}));
  States onlyAttributes = access(file, member);
  EXPECT_EQ(onlyAttributes["Read Attributes"], 0);
  EXPECT_EQ(onlyAttributes["Read Permissions"], 1);

  // Allowed, then denied by a later entry while attributes are undecided.
  ASSERT_TRUE(setAcl(file, {{member, ACL_EXTENDED_ALLOW, ACL_READ_SECURITY},
                            {team, ACL_EXTENDED_DENY, ACL_READ_SECURITY}}));
  States takenBack = access(file, member);
  EXPECT_EQ(takenBack["Read Permissions"], 0);
  EXPECT_EQ(takenBack["Read Attributes"], 1);

  // ... but not when the attributes were allowed.
  ASSERT_TRUE(setAcl(file, {{member, ACL_EXTENDED_ALLOW, ACL_READ_SECURITY | ACL_READ_ATTRIBUTES},
                            {team, ACL_EXTENDED_DENY, ACL_READ_SECURITY}}));
  EXPECT_EQ(access(file, member)["Read Permissions"], 1);

  // A first deny is remembered: a later allow changes nothing.
  ASSERT_TRUE(setAcl(file, {{team, ACL_EXTENDED_DENY, ACL_READ_SECURITY},
                            {member, ACL_EXTENDED_ALLOW, ACL_READ_SECURITY}}));
  EXPECT_EQ(access(file, member)["Read Permissions"], 0);
}

TEST_F(AccessForUrl, UntraversableItemReportsEveryLeafOff) {
  tree_.folder("private", 0700, kOwner, kTeam);
  std::string file = tree_.file("private/f", 0777, kOwner, kTeam);
  ASSERT_TRUE(setAcl(file, {{userUuid(kOther), ACL_EXTENDED_ALLOW, ACL_READ_DATA}}));
  States states = access(file, userUuid(kOther));
  ASSERT_EQ(states.size(), 12u);
  for (const auto& [name, state] : states) EXPECT_EQ(state, 0) << name;
  EXPECT_EQ(access(file, userUuid(kOwner))["Read Data"], 1);
}

void expectAccessFailure(const qx::ErrorPtr& error, const std::string& step, int number) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), number);
  EXPECT_EQ(error->localizedDescription(), "Error retrieving effective file access permissions");
  EXPECT_EQ(error->localizedRecoverySuggestion(), step + " " + std::strerror(number));
}

TEST_F(AccessForUrl, FailuresAreWrappedUnderTheAccessTitle) {
  std::string file = tree_.file("f");
  // No identity to parse.
  qx::ErrorPtr error;
  EXPECT_FALSE(QXFileAcl::accessForUrl(urlOf(file), nullptr, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), static_cast<int>(0x80000002u));
  EXPECT_EQ(error->localizedDescription(), "Error retrieving effective file access permissions");
  EXPECT_EQ(*error->localizedRecoverySuggestion(),
            "Couldn't retrieve selected user identifier. " +
                std::string(std::strerror(static_cast<int>(0x80000002u))));

  ASSERT_TRUE(setDamagedAcl(file));
  EXPECT_TRUE(access(file, userUuid(kOwner)).empty());
  expectAccessFailure(
      error_, "Couldn't retrieve file Acces Control List for file at path \"" + file + "\".",
      EINVAL);

  // A failure of the traversal check, wrapped once.
  std::string folder = tree_.folder("d");
  std::string inner = tree_.file("d/f");
  ASSERT_TRUE(setDamagedAcl(folder));
  EXPECT_TRUE(access(inner, userUuid(kOwner)).empty());
  expectAccessFailure(
      error_, "Couldn't retrieve file Acces Control List for file at path \"" + folder + "\".",
      EINVAL);

  // A user without a passwd entry, against the item's group.
  std::string plain = tree_.file("plain");
  EXPECT_TRUE(access(plain, userUuid(kUnknown)).empty());
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->localizedRecoverySuggestion(),
            "Couldn't determine group membership for selected user. No such file or directory");
}

TEST_F(AccessForUrl, UnreadableItemFailsForAnUnprivilegedCaller) {
  tree_.folder("private", 0700, kOwner, kTeam);
  std::string file = tree_.file("private/f");
  std::string outcome = inChild(
      [&] {
        qx::ErrorPtr error;
        auto result = QXFileAcl::accessForUrl(urlOf(file), uuidObject(userUuid(kOther)), &error);
        if (result) return std::string("answered");
        return std::to_string(error->code()) + " " + *error->localizedRecoverySuggestion();
      },
      kOther, kOtherGroup);
  EXPECT_EQ(outcome, "13 Couldn't retrieve file Acces Control List for file at path \"" + file +
                         "\". Permission denied");
}

}  // namespace
