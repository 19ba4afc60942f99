// Listing an item's ACL entries, whether an identity can reach an item, and the permissions it
// effectively holds, on items owned by the test users.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "acl/QXFileAcl.h"
#include "platform/xacl/AclTesting.h"
#include "tests/acl/AclTestSupport.h"
#include "tests/support/ChildProcess.h"

namespace qxacltest {
namespace {

using States = std::map<std::string, int64_t>;
using qx::test::ChildProcess;
namespace xtesting = qx::xacl::testing;

class AclInspection : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give the items their owners";
  }

  // The listing, with the error out-parameter primed so that a missing write shows.
  qx::ArrayPtr list(const std::string& path) {
    error_ = qx::Error::errorWithDomain("primed", 1);
    qx::ArrayPtr listing = QXFileAcl::entriesForUrl(urlOf(path), &error_);
    EXPECT_TRUE(!listing || !error_) << "a success clears the error";
    return listing;
  }
  // The listing as text next to the one expected from `aces` and the mode.
  std::string listed(const std::string& path) { return listingText(list(path)); }
  static std::string expected(const std::vector<Ace>& aces, mode_t mode, bool folder,
                              uid_t owner = kOwner, gid_t group = kTeam) {
    std::vector<qx::ObjectPtr> records;
    for (const Ace& ace : aces) records.push_back(aclEntry(ace, folder));
    return listingText(listing(records, pseudoEntries(mode, owner, group, folder)));
  }

  // "yes" or "no" as written to an out-parameter primed with the other answer than `expected`
  // starts with, so that a missing write shows; on failure, the error's outcome after it.
  std::string traversable(const std::string& path, const qx::UuidPtr& who,
                          const std::string& expected) {
    bool answer = expected.rfind("yes", 0) != 0;
    error_ = qx::Error::errorWithDomain("primed", 1);
    const bool done = QXFileAcl::getTraversable(&answer, urlOf(path), who->bytes().data(), &error_);
    if (done && error_) return "completed with an error";
    return std::string(answer ? "yes" : "no") + (done ? "" : " " + outcome(false, error_));
  }

  // The leaf states of the effective access; checks the groups every result has.
  States access(const std::string& path, const qx::UuidPtr& who) {
    error_ = qx::Error::errorWithDomain("primed", 1);
    qx::ArrayPtr groups = QXFileAcl::accessForUrl(urlOf(path), who, &error_);
    if (!groups) return {};
    EXPECT_FALSE(error_);
    const bool folder = std::filesystem::is_directory(std::filesystem::symlink_status(path));
    States states;
    std::string shape;
    for (const auto& group : *groups) {
      const auto& leaves = qx::cast<qx::TreeNode>(group)->childNodes();
      shape += nameOf(group) + " " + std::to_string(recordOf(group)->permission()) + "=" +
               std::to_string(recordOf(group)->state()) + "/" + std::to_string(leaves.size()) + ";";
      for (const auto& leaf : leaves) states[nameOf(leaf)] = recordOf(leaf)->state();
    }
    EXPECT_EQ(shape, folder ? "Read 2=-1/5;Write 2=-1/6;Administration 2=-1/2;"
                            : "Read 2=-1/5;Write 2=-1/5;Administration 2=-1/2;");
    return states;
  }

  AclTree tree_;
  qx::ErrorPtr error_;
};

// Listings compared with records built from the entries and the mode by the shared builder, whose
// rows are written out (tests/support/PermissionTrees.h): names, values and states.
TEST_F(AclInspection, ListingsKeepEntriesInOrderWithAppliesToAndPosixLeaves) {
  std::string bare = tree_.ownedFile("bare");
  EXPECT_EQ(listed(bare), expected({}, 0644, false));
  EXPECT_TRUE(QXFileAcl::entriesForUrl(urlOf(bare), nullptr)) << "the error may be null";
  ASSERT_TRUE(setAcl(bare, {}));
  EXPECT_EQ(listed(bare), expected({}, 0644, false)) << "an ACL without entries";

  std::string file = tree_.ownedFile("f");
  const uint32_t allRead = ACL_READ_DATA | ACL_EXECUTE | ACL_READ_ATTRIBUTES |
                           ACL_READ_EXTATTRIBUTES | ACL_READ_SECURITY;
  const std::vector<Ace> fileAces = {
      allow(userUuid(kMember), allRead | ACL_WRITE_DATA),
      deny(groupUuid(kTeam), ACL_CHANGE_OWNER, ACL_ENTRY_INHERITED | ACL_ENTRY_FILE_INHERIT)};
  ASSERT_TRUE(setAcl(file, fileAces));
  EXPECT_EQ(listed(file), expected(fileAces, 0644, false));
  // "Applies to" from every flag combination.
  std::string folder = tree_.ownedFolder("d");
  std::vector<Ace> aces;
  for (uint32_t combo = 0; combo < 16; ++combo) {
    uint32_t flags = ((combo & 1) ? ACL_ENTRY_ONLY_INHERIT : 0) |
                     ((combo & 2) ? ACL_ENTRY_FILE_INHERIT : 0) |
                     ((combo & 4) ? ACL_ENTRY_DIRECTORY_INHERIT : 0) |
                     ((combo & 8) ? ACL_ENTRY_LIMIT_INHERIT : 0);
    aces.push_back(allow(userUuid(kOwner + combo), ACL_SEARCH, flags));
  }
  ASSERT_TRUE(setAcl(folder, aces));
  EXPECT_EQ(listed(folder), expected(aces, 0755, true));

  // POSIX leaves follow the mode. A link's own mode is 0777 on Linux; it is not a folder, and its
  // target's ACL is not its.
  std::string link = tree_.path("link");
  ASSERT_EQ(symlink(folder.c_str(), link.c_str()), 0);
  ASSERT_EQ(lchown(link.c_str(), kOther, kDenied), 0);
  EXPECT_EQ(listed(tree_.ownedFile("f754", 0754)), expected({}, 0754, false));
  EXPECT_EQ(listed(tree_.ownedFolder("d754", 0754)), expected({}, 0754, true));
  EXPECT_EQ(listed(link), expected({}, 0777, false, kOther, kDenied));
}

// Every folder above the item is asked in turn, from the nearest up; the first ACL entry about
// searching decides a folder, and an allow goes on to its parent.
TEST_F(AclInspection, TraversalAsksEveryFolderUpToTheRoot) {
  tree_.ownedFolder("team", 0710);
  tree_.ownedFolder("groupOnly", 0070, kMember, kTeam);
  tree_.ownedFolder("a", 0700);
  tree_.ownedFolder("a/b");
  tree_.ownedFolder("a/b/c");
  ASSERT_TRUE(setAcl(tree_.ownedFolder("deny"),
                     {deny(groupUuid(kTeam), ACL_SEARCH), allow(userUuid(kMember), ACL_SEARCH)}));
  const std::vector<Ace> silent = {allow(userUuid(kOther), ACL_LIST_DIRECTORY),
                                   deny(userUuid(kOther), ACL_ADD_FILE)};
  ASSERT_TRUE(setAcl(tree_.ownedFolder("silent", 0700), silent));
  ASSERT_TRUE(setAcl(tree_.ownedFolder("silentOpen", 0701), silent));
  std::string closed = tree_.ownedFolder("closed", 0000);
  ASSERT_TRUE(setAcl(closed, {deny(userUuid(kOther), ACL_SEARCH)}));
  const Ace allowOther = allow(userUuid(kOther), ACL_SEARCH);
  tree_.ownedFolder("outer", 0700);
  ASSERT_TRUE(setAcl(tree_.ownedFolder("outer/inner", 0700), {allowOther}));
  ASSERT_TRUE(setAcl(tree_.ownedFolder("open", 0700), {allow(groupUuid(kOtherGroup), ACL_SEARCH)}));
  ASSERT_TRUE(setAcl(tree_.ownedFolder("open/inner", 0700), {allowOther}));

  const qx::UuidPtr owner = userUuid(kOwner), member = userUuid(kMember),
                    primary = userUuid(kPrimary), other = userUuid(kOther);
  // clang-format off
  const std::tuple<std::string, qx::UuidPtr, std::string> rows[] = {
      {"team/f", owner, "yes"}, {"team/f", member, "yes"}, {"team/f", primary, "yes"},
      {"team/f", groupUuid(kTeam), "yes"}, {"team/f", other, "no"},
      {"team/f", groupUuid(kDenied), "no"},
      {"groupOnly/f", member, "no"},  // the owner's own bits count
      {"groupOnly/f", primary, "yes"}, {"a/b/c/f", other, "no"}, {"a/b/c/f", owner, "yes"},
      {"deny/f", member, "no"}, {"deny/f", primary, "no"}, {"deny/f", other, "yes"},
      {"silent/f", other, "no"}, {"silentOpen/f", other, "yes"},
      {"closed", other, "yes"},  // the item itself is not asked
      {"closed/f", other, "no"}, {"outer/inner/f", other, "no"}, {"open/inner/f", other, "yes"},
  };
  // clang-format on
  for (const auto& [item, who, answer] : rows) {
    if (!std::filesystem::exists(tree_.path(item))) tree_.ownedFile(item);
  }
  for (const auto& [item, who, answer] : rows) {
    EXPECT_EQ(traversable(tree_.path(item), who, answer), answer)
        << item << " for " << who->UUIDString();
  }
  EXPECT_EQ(traversable("/", userUuid(kOther), "yes"), "yes");
  EXPECT_TRUE(
      QXFileAcl::getTraversable(nullptr, urlOf(closed), userUuid(kOther)->bytes().data(), nullptr))
      << "null out-parameters are allowed";
}

// Leaves of the effective access, item by item (all twelve of a file where every leaf is named),
// with memberships from the group database; the rules themselves belong to the evaluator's tests
// (tests/platform/xacl).
TEST_F(AclInspection, EffectiveAccessFollowsModeAndEntriesInOrder) {
  const qx::UuidPtr member = userUuid(kMember), team = groupUuid(kTeam), other = userUuid(kOther);
  const mode_t folder = S_IFDIR;
  // clang-format off
  // mode (with S_IFDIR for a folder), ACL, identity, "Leaf=state" pairs to look at
  const std::tuple<mode_t, std::vector<Ace>, qx::UuidPtr, std::string> rows[] = {
      // The owner on 0644 (others on the mode alone are the evaluator's).
      {0644, {}, userUuid(kOwner),
       "Read Data=1, Execute File=0, Read Attributes=1, Read Extended Attributes=1, "
       "Read Permissions=1, Write Data=1, Append Data=1, Delete=1, Write Attributes=1, "
       "Write Extended Attributes=1, Change Permissions=1, Change Owner=0"},
      // Group bits for the group, a member and a primary member; the owner's own bits.
      {0070, {}, team, "Read Data=1, Write Data=1, Execute File=1, Write Attributes=0"},
      {0070, {}, member, "Read Data=1, Write Data=1"},
      {0070, {}, userUuid(kPrimary), "Read Data=1"},
      {0070, {}, userUuid(kOwner), "Read Data=0, Write Data=0, Change Permissions=1"},
      // A deny for a group the user is in through the group database, before an allow for them.
      {0666, {deny(team, ACL_WRITE_DATA | ACL_APPEND_DATA),
              allow(member, ACL_WRITE_DATA | ACL_EXECUTE | ACL_CHANGE_OWNER)}, member,
       "Write Data=0, Append Data=0, Execute File=1, Change Owner=1, Read Data=1"},
      // A folder's leaves.
      {folder | 0751, {}, other,
       "List Folder Contents=0, Traverse Folder=1, Create Files=0, Delete Subfolders and Files=0"},
  };
  // clang-format on
  int n = 0;
  for (const auto& [mode, acl, who, expected] : rows) {
    SCOPED_TRACE("row " + std::to_string(n));
    const std::string name = "item" + std::to_string(n++);
    std::string path =
        (mode & S_IFDIR) ? tree_.ownedFolder(name, mode & 07777) : tree_.ownedFile(name, mode);
    ASSERT_TRUE(setAcl(path, acl));
    States states = access(path, who);
    std::string seen;  // the named leaves' states, in the row's order
    for (size_t at = 0; at < expected.size(); at = expected.find(", ", at) + 2) {
      const std::string leaf = expected.substr(at, expected.find('=', at) - at);
      seen += (at ? ", " : "") + leaf + "=" + std::to_string(states[leaf]);
      if (expected.find(", ", at) == std::string::npos) break;
    }
    EXPECT_EQ(seen, expected);
  }
}

// Each failing step of listing, traversal and effective access: listing and effective access wrap
// it under their titles, traversal reports the step itself with the answer it reached. A release
// cannot fail for real; the interface's test hook makes one fail.
TEST_F(AclInspection, FailuresCarryTheStepTheNumberAndTheTitle) {
  const std::string listTitle = "Error retrieving file Access Control List entries";
  const std::string accessTitle = "Error retrieving effective file access permissions";
  const std::string membership = "Couldn't determine group membership for selected user.";
  const std::string qualifier =
      "Couldn't release file Acces Control List entry qualifier for file at path \"%s\".";
  ASSERT_TRUE(setDamagedAcl(tree_.ownedFile("damaged")));
  ASSERT_TRUE(setDamagedAcl(tree_.ownedFolder("d")));
  tree_.ownedFile("d/f");
  // An entry naming neither a user nor a group cannot be matched, and a user without a passwd entry
  // cannot be placed against the folder's group.
  ASSERT_TRUE(
      setAcl(tree_.ownedFolder("u"),
             {allow(qx::Uuid::withString("01234567-89AB-CDEF-0123-456789ABCDEF"), ACL_SEARCH)}));
  tree_.ownedFile("u/f");
  ASSERT_TRUE(setAcl(tree_.ownedFolder("e"), {}));
  tree_.ownedFile("e/f");
  // A release failing after a deny keeps the answer.
  ASSERT_TRUE(setAcl(tree_.ownedFolder("r"), {deny(userUuid(kOther), ACL_SEARCH)}));
  tree_.ownedFile("r/f");
  ASSERT_TRUE(setAcl(tree_.ownedFile("f"), {allow(userUuid(kMember), ACL_READ_DATA),
                                            deny(userUuid(kOther), ACL_READ_DATA)}));
  struct Row {
    char operation;  // 'l'isting, 't'raversal, effective 'a'ccess
    std::string item;
    qx::UuidPtr who;
    int freeError;  // a release made to fail with this number, 0 for none
    xtesting::FreeTarget target;
    unsigned skip;
    std::string at;        // the item the error's URL names
    std::string expected;  // the outcome
  };
  auto p = [&](const std::string& item) { return item.empty() ? tree_.root() : tree_.path(item); };
  const auto acl = xtesting::FreeTarget::Acl;
  const int unparsable = static_cast<int>(0x80000002u);
  const Row rows[] = {
      {'l', "damaged", nullptr, 0, acl, 0, "damaged",
       failure(EINVAL, listTitle, kRetrieveAcl, p("damaged"))},
      {'l', "missing", nullptr, 0, acl, 0, "missing",
       failure(ENOENT, listTitle, "Couldn't retrieve file stat for file at path \"%s\".",
               p("missing"))},
      {'l', "f", nullptr, EIO, acl, 0, "f", failure(EIO, listTitle, kRelease, p("f"))},
      // The second entry's qualifier: the walk stops there and the ACL is still released.
      {'l', "f", nullptr, EBUSY, xtesting::FreeTarget::Qualifier, 1, "f",
       failure(EBUSY, listTitle, qualifier, p("f"))},
      {'t', "d/f", userUuid(kOther), 0, acl, 0, "d",
       "yes 22\n" + step(kRetrieveAcl, p("d")) + "\nInvalid argument"},
      {'t', "u/f", userUuid(kOther), 0, acl, 0, "u",
       "yes 2\n" + membership + "\nNo such file or directory"},
      {'t', "e/f", userUuid(kUnknown), 0, acl, 0, "e",
       "yes 2\n" + membership + "\nNo such file or directory"},
      {'t', "r/f", userUuid(kOther), EIO, acl, 0, "r",
       "no 5\n" + step(kRelease, p("r")) + "\nInput/output error"},
      {'a', "f", nullptr, 0, acl, 0, "f",
       std::to_string(unparsable) + "\n" + accessTitle +
           "\nCouldn't retrieve selected user identifier. " + std::strerror(unparsable)},
      {'a', "damaged", userUuid(kOwner), 0, acl, 0, "damaged",
       failure(EINVAL, accessTitle, kRetrieveAcl, p("damaged"))},
      {'a', "d/f", userUuid(kOwner), 0, acl, 0, "d",
       failure(EINVAL, accessTitle, kRetrieveAcl, p("d"))},
      {'a', "f", userUuid(kUnknown), 0, acl, 0, "",
       "2\n" + accessTitle + "\n" + membership + " No such file or directory"},
  };
  const size_t acls = xtesting::LiveAcls(), qualifiers = xtesting::LiveQualifiers();
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(1, row.operation) + " " + row.item);
    std::optional<xtesting::ScopedFreeFailure> failing;
    if (row.freeError) failing.emplace(row.freeError, row.target, row.skip);
    std::string seen;
    if (row.operation == 'l') {
      seen = list(p(row.item)) ? "listed" : outcome(false, error_);
    } else if (row.operation == 'a') {
      seen = access(p(row.item), row.who).empty() ? outcome(false, error_) : "accessed";
    } else {
      seen = traversable(p(row.item), row.who, row.expected);
    }
    EXPECT_EQ(seen, row.expected);
    EXPECT_EQ(pathOf(error_), p(row.at)) << "the error's URL";
  }
  EXPECT_EQ(std::pair(xtesting::LiveAcls(), xtesting::LiveQualifiers()),
            std::pair(acls, qualifiers));

  // Behind a folder only the owner can search, listing and effective access fail for others on
  // reading the ACL; an identity that cannot search there is granted nothing.
  tree_.ownedFolder("private", 0700);
  std::string hidden = tree_.ownedFile("private/f", 0777);
  ASSERT_TRUE(setAcl(hidden, {allow(userUuid(kOther), ACL_READ_DATA)}));
  auto inspectAs = [&](uid_t uid, gid_t gid) {
    return ChildProcess::runAs(uid, gid, [&] {
      qx::ErrorPtr listError, accessError;
      auto listed = QXFileAcl::entriesForUrl(urlOf(hidden), &listError);
      auto access = QXFileAcl::accessForUrl(urlOf(hidden), userUuid(uid), &accessError);
      return outcome(listed != nullptr, listError) + "\n" + outcome(access != nullptr, accessError);
    });
  };
  EXPECT_EQ(inspectAs(kOther, kOtherGroup), failure(EACCES, listTitle, kRetrieveAcl, hidden) +
                                                "\n" +
                                                failure(EACCES, accessTitle, kRetrieveAcl, hidden));
  EXPECT_EQ(inspectAs(kOwner, kOwnerGroup), "ok\nok");
  States states = access(hidden, userUuid(kOther));
  ASSERT_EQ(states.size(), 12u);
  for (const auto& [name, state] : states) EXPECT_EQ(state, 0) << name;
  EXPECT_EQ(access(hidden, userUuid(kOwner))["Read Data"], 1);
}

}  // namespace
}  // namespace qxacltest
