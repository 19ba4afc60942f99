// Listing an item's ACL entries and POSIX pseudo-entries.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "acl/QXFileAcl.h"
#include "model/QXAclEntry.h"
#include "platform/foundation/String.h"
#include "platform/xacl/AclTesting.h"
#include "tests/acl/AclTestSupport.h"

namespace {

using namespace qxacltest;
using namespace qx::xacl;

class EntriesForUrl : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give the items their owners";
  }

  // The listing, with the error out-parameter primed so that a missing
  // write shows.
  qx::ArrayPtr list(const std::string& path) {
    error_ = qx::Error::errorWithDomain("primed", 1);
    return QXFileAcl::entriesForUrl(urlOf(path), &error_);
  }

  // The records between the markers, checking the markers on the way.
  static std::vector<QXAclEntryPtr> aclEntries(const qx::ArrayPtr& listing) {
    std::vector<QXAclEntryPtr> entries;
    EXPECT_EQ(qx::cast<qx::String>(listing->objectAtIndex(0))->str(), "ACL");
    size_t i = 1;
    for (; i < listing->count() && qx::cast<QXAclEntry>(listing->objectAtIndex(i)); ++i) {
      entries.push_back(qx::cast<QXAclEntry>(listing->objectAtIndex(i)));
    }
    EXPECT_EQ(listing->count(), i + 4);
    auto marker = qx::cast<qx::String>(listing->objectAtIndex(i));
    EXPECT_TRUE(marker && marker->str() == "POSIX");
    return entries;
  }

  static QXAclEntryPtr posix(const qx::ArrayPtr& listing, size_t which) {
    return qx::cast<QXAclEntry>(listing->objectAtIndex(listing->count() - 3 + which));
  }

  TempTree tree_;
  qx::ErrorPtr error_;
};

TEST_F(EntriesForUrl, ItemWithoutAclOrWithAnEmptyOneListsOnlyPosix) {
  std::string bare = tree_.file("bare");
  std::string empty = tree_.file("empty");
  ASSERT_TRUE(setEmptyStoredAcl(empty));
  for (const std::string& path : {bare, empty}) {
    qx::ArrayPtr listing = list(path);
    ASSERT_TRUE(listing) << path;
    EXPECT_FALSE(error_);
    ASSERT_EQ(listing->count(), 5u);
    EXPECT_TRUE(aclEntries(listing).empty());
  }
}

TEST_F(EntriesForUrl, FileEntriesKeepOrderTagsAndGroupStates) {
  std::string file = tree_.file("f");
  const uint32_t allRead = ACL_READ_DATA | ACL_EXECUTE | ACL_READ_ATTRIBUTES |
                           ACL_READ_EXTATTRIBUTES | ACL_READ_SECURITY;
  ASSERT_TRUE(setAcl(file, {{userUuid(kMember), ACL_EXTENDED_ALLOW, allRead | ACL_WRITE_DATA},
                            {groupUuid(kTeam), ACL_EXTENDED_DENY, ACL_CHANGE_OWNER,
                             ACL_ENTRY_INHERITED | ACL_ENTRY_FILE_INHERIT}}));
  qx::ArrayPtr listing = list(file);
  ASSERT_TRUE(listing);
  std::vector<QXAclEntryPtr> entries = aclEntries(listing);
  ASSERT_EQ(entries.size(), 2u);

  const QXAclEntryPtr& allow = entries[0];
  EXPECT_TRUE(allow->isAcl());
  EXPECT_TRUE(qx::isEqual(allow->uuid(), uuidObject(userUuid(kMember))));
  EXPECT_EQ(allow->tag(), ACL_EXTENDED_ALLOW);
  EXPECT_FALSE(allow->inherited());
  ASSERT_EQ(allow->permissions()->count(), 3u);
  std::vector<std::string> groups;
  std::vector<int64_t> groupStates;
  for (const auto& group : *allow->permissions()) {
    groups.push_back(nameOf(group));
    groupStates.push_back(recordOf(group)->state());
    EXPECT_EQ(recordOf(group)->permission(), 2);
  }
  EXPECT_EQ(groups, (std::vector<std::string>{"Read", "Write", "Administration"}));
  EXPECT_EQ(groupStates, (std::vector<int64_t>{1, -1, 0}));
  EXPECT_EQ(childrenOf(allow->permissions()->objectAtIndex(0)),
            (std::vector<Leaf>{{"Read Data", 0x2, 1},
                               {"Execute File", 0x8, 1},
                               {"Read Attributes", 0x80, 1},
                               {"Read Extended Attributes", 0x200, 1},
                               {"Read Permissions", 0x800, 1}}));
  EXPECT_EQ(childrenOf(allow->permissions()->objectAtIndex(1)),
            (std::vector<Leaf>{{"Write Data", 0x4, 1},
                               {"Append Data", 0x20, 0},
                               {"Delete", 0x10, 0},
                               {"Write Attributes", 0x100, 0},
                               {"Write Extended Attributes", 0x400, 0}}));
  EXPECT_EQ(childrenOf(allow->permissions()->objectAtIndex(2)),
            (std::vector<Leaf>{{"Change Permissions", 0x1000, 0}, {"Change Owner", 0x2000, 0}}));

  const QXAclEntryPtr& deny = entries[1];
  EXPECT_TRUE(qx::isEqual(deny->uuid(), uuidObject(groupUuid(kTeam))));
  EXPECT_EQ(deny->tag(), ACL_EXTENDED_DENY);
  EXPECT_TRUE(deny->inherited());
  EXPECT_EQ(recordOf(deny->permissions()->objectAtIndex(2))->state(), -1);
}

TEST_F(EntriesForUrl, FolderEntriesShowAppliesToForEveryFlagCombination) {
  std::string folder = tree_.folder("d");
  std::vector<Ace> aces;
  for (uint32_t combo = 0; combo < 16; ++combo) {
    uint32_t flags = ((combo & 1) ? ACL_ENTRY_ONLY_INHERIT : 0) |
                     ((combo & 2) ? ACL_ENTRY_FILE_INHERIT : 0) |
                     ((combo & 4) ? ACL_ENTRY_DIRECTORY_INHERIT : 0) |
                     ((combo & 8) ? ACL_ENTRY_LIMIT_INHERIT : 0);
    aces.push_back({userUuid(kOwner + combo), ACL_EXTENDED_ALLOW, ACL_SEARCH, flags});
  }
  ASSERT_TRUE(setAcl(folder, aces));
  qx::ArrayPtr listing = list(folder);
  ASSERT_TRUE(listing);
  std::vector<QXAclEntryPtr> entries = aclEntries(listing);
  ASSERT_EQ(entries.size(), 16u);
  for (uint32_t combo = 0; combo < 16; ++combo) {
    SCOPED_TRACE("flag combination " + std::to_string(combo));
    const qx::ArrayPtr& permissions = entries[combo]->permissions();
    ASSERT_EQ(permissions->count(), 4u);
    EXPECT_EQ(childrenOf(permissions->objectAtIndex(0)).size(), 5u);
    EXPECT_EQ(childrenOf(permissions->objectAtIndex(1)).size(), 6u);
    EXPECT_EQ(childrenOf(permissions->objectAtIndex(2)).size(), 2u);
    EXPECT_EQ(childrenOf(permissions->objectAtIndex(0))[0].name, "List Folder Contents");
    EXPECT_EQ(childrenOf(permissions->objectAtIndex(0))[1], (Leaf{"Traverse Folder", 0x8, 1}));
    EXPECT_EQ(childrenOf(permissions->objectAtIndex(1))[3].name, "Delete Subfolders and Files");

    const bool only = combo & 1, files = combo & 2, folders = combo & 4, limit = combo & 8;
    const int64_t thisItem = !only, all = !limit && folders;
    EXPECT_EQ(nameOf(permissions->objectAtIndex(3)), "Applies to");
    EXPECT_EQ(recordOf(permissions->objectAtIndex(3))->permission(), 0x2000);
    EXPECT_EQ(childrenOf(permissions->objectAtIndex(3)),
              (std::vector<Leaf>{{"This item", 0x100, thisItem},
                                 {"Child files", 0x20, files},
                                 {"Child folders", 0x40, folders},
                                 {"All descendants", 0x80, all}}));
    const bool agree = thisItem == files && files == folders && folders == all;
    EXPECT_EQ(recordOf(permissions->objectAtIndex(3))->state(), agree ? thisItem : -1);
  }
}

TEST_F(EntriesForUrl, PosixLeavesFollowTheModeForFilesAndFolders) {
  struct Kind {
    std::string path;
    std::string third;
    std::array<int64_t, 3> values;
  };
  const Kind kinds[] = {{tree_.file("f", 0754), "Execute File", {2, 4, 8}},
                        {tree_.folder("d", 0754), "Traverse Folder", {0x80, 0x100, 0x1000}}};
  for (const Kind& kind : kinds) {
    SCOPED_TRACE(kind.path);
    qx::ArrayPtr listing = list(kind.path);
    ASSERT_TRUE(listing);
    const int64_t states[3][3] = {{1, 1, 1}, {1, 0, 1}, {1, 0, 0}};
    for (size_t who = 0; who < 3; ++who) {
      QXAclEntryPtr entry = posix(listing, who);
      ASSERT_TRUE(entry);
      EXPECT_FALSE(entry->isAcl());
      EXPECT_EQ(entry->tag(), 1);
      EXPECT_FALSE(entry->inherited());
      EXPECT_EQ(childrenOf(entry->permissions()->objectAtIndex(0)).size(), 0u);
      std::vector<Leaf> leaves;
      for (const auto& node : *entry->permissions()) {
        leaves.push_back({nameOf(node), static_cast<uint32_t>(recordOf(node)->permission()),
                          recordOf(node)->state()});
      }
      EXPECT_EQ(leaves, (std::vector<Leaf>{{"Read", kind.values[0], states[who][0]},
                                           {"Write", kind.values[1], states[who][1]},
                                           {kind.third, kind.values[2], states[who][2]}}));
    }
    EXPECT_TRUE(qx::isEqual(posix(listing, 0)->uuid(), uuidObject(userUuid(kOwner))));
    EXPECT_TRUE(qx::isEqual(posix(listing, 1)->uuid(), uuidObject(groupUuid(kTeam))));
    EXPECT_FALSE(posix(listing, 2)->uuid());
  }
}

TEST_F(EntriesForUrl, SymbolicLinkIsListedAsItself) {
  std::string target = tree_.folder("target", 0700, kOwner, kTeam);
  ASSERT_TRUE(setAcl(target, {{userUuid(kMember), ACL_EXTENDED_ALLOW, ACL_LIST_DIRECTORY}}));
  std::string link = tree_.link("link", target, kOther, kDenied);
  qx::ArrayPtr listing = list(link);
  ASSERT_TRUE(listing);
  EXPECT_TRUE(aclEntries(listing).empty());
  EXPECT_TRUE(qx::isEqual(posix(listing, 0)->uuid(), uuidObject(userUuid(kOther))));
  EXPECT_TRUE(qx::isEqual(posix(listing, 1)->uuid(), uuidObject(groupUuid(kDenied))));
  // A link's own mode is 0777 on Linux, and it is not a folder.
  for (size_t who = 0; who < 3; ++who) {
    const qx::ArrayPtr& leaves = posix(listing, who)->permissions();
    EXPECT_EQ(nameOf(leaves->objectAtIndex(2)), "Execute File");
    EXPECT_EQ(recordOf(leaves->objectAtIndex(2))->state(), 1);
  }
}

TEST_F(EntriesForUrl, SuccessClearsTheErrorAndNullErrorIsAllowed) {
  std::string file = tree_.file("f");
  ASSERT_TRUE(list(file));
  EXPECT_FALSE(error_);
  EXPECT_TRUE(QXFileAcl::entriesForUrl(urlOf(file), nullptr));
  EXPECT_FALSE(QXFileAcl::entriesForUrl(urlOf(tree_.path("missing")), nullptr));
}

// The wrapped error of a failed listing: title, the step's sentence with the
// path, the system's text, the error number and the item's URL.
void expectFailure(const qx::ErrorPtr& error, const std::string& step, int number,
                   const std::string& path) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), qx::kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), number);
  EXPECT_EQ(error->localizedDescription(), "Error retrieving file Access Control List entries");
  EXPECT_EQ(error->localizedRecoverySuggestion(),
            step + " for file at path \"" + path + "\". " + std::strerror(number));
  auto url = error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), path);
}

TEST_F(EntriesForUrl, DamagedAclAndMissingItemFailWithTheirStep) {
  std::string damaged = tree_.file("damaged");
  ASSERT_TRUE(setDamagedAcl(damaged));
  EXPECT_FALSE(list(damaged));
  expectFailure(error_, "Couldn't retrieve file Acces Control List", EINVAL, damaged);

  std::string missing = tree_.path("missing");
  EXPECT_FALSE(list(missing));
  expectFailure(error_, "Couldn't retrieve file stat", ENOENT, missing);
}

TEST_F(EntriesForUrl, UnreachableItemFailsWithPermissionDenied) {
  tree_.folder("private", 0700, kOwner, kTeam);
  std::string file = tree_.file("private/f");
  std::string outcome = inChild(
      [&] {
        qx::ErrorPtr error;
        if (QXFileAcl::entriesForUrl(urlOf(file), &error)) return std::string("listed");
        return std::to_string(error->code()) + " " + *error->localizedRecoverySuggestion();
      },
      kOther, kOtherGroup);
  EXPECT_EQ(outcome, "13 Couldn't retrieve file Acces Control List for file at path \"" + file +
                         "\". Permission denied");
  // The owner gets through.
  EXPECT_EQ(inChild(
                [&] {
                  return QXFileAcl::entriesForUrl(urlOf(file), nullptr) ? std::string("listed")
                                                                        : std::string("failed");
                },
                kOwner, kOwnerGroup),
            "listed");
}

// A release cannot fail for real; the interface's test hook makes one fail.
TEST_F(EntriesForUrl, FailedReleasesAreReportedAndNothingLeaks) {
  std::string file = tree_.file("f");
  ASSERT_TRUE(setAcl(file, {{userUuid(kMember), ACL_EXTENDED_ALLOW, ACL_READ_DATA},
                            {userUuid(kOther), ACL_EXTENDED_DENY, ACL_READ_DATA}}));
  const size_t acls = qx::xacl::testing::LiveAcls(),
               qualifiers = qx::xacl::testing::LiveQualifiers();
  {
    qx::xacl::testing::ScopedFreeFailure failure(EIO, qx::xacl::testing::FreeTarget::Acl);
    EXPECT_FALSE(list(file));
    expectFailure(error_, "Couldn't release file Acces Control List storage", EIO, file);
  }
  {
    // The second entry's qualifier: the walk stops there and the ACL is still released.
    qx::xacl::testing::ScopedFreeFailure failure(EBUSY, qx::xacl::testing::FreeTarget::Qualifier,
                                                 1);
    EXPECT_FALSE(list(file));
    expectFailure(error_, "Couldn't release file Acces Control List entry qualifier", EBUSY, file);
  }
  EXPECT_EQ(qx::xacl::testing::LiveAcls(), acls);
  EXPECT_EQ(qx::xacl::testing::LiveQualifiers(), qualifiers);
}

}  // namespace
