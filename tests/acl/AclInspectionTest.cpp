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

using qx::test::ChildProcess;
namespace xtesting = qx::xacl::testing;

// What the owner of an item with mode rw- may do with it.
const uint32_t kOwnerRights = ACL_READ_DATA | ACL_READ_ATTRIBUTES | ACL_READ_EXTATTRIBUTES |
                              ACL_READ_SECURITY | ACL_WRITE_DATA | ACL_APPEND_DATA | ACL_DELETE |
                              ACL_WRITE_ATTRIBUTES | ACL_WRITE_EXTATTRIBUTES | ACL_WRITE_SECURITY;

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

  // The effective access as text, or the failure's outcome.
  std::string access(const std::string& path, const qx::UuidPtr& who) {
    error_ = qx::Error::errorWithDomain("primed", 1);
    qx::ArrayPtr groups = QXFileAcl::accessForUrl(urlOf(path), who, &error_);
    if (!groups || error_) return outcome(groups != nullptr, error_);
    std::string text;
    for (const auto& group : *groups) text += treeText(group) + "\n";
    return text;
  }
  // The access granting `rights`: the rows of an entry without "Applies to", every group mixed.
  static std::string granting(uint32_t rights, bool folder) {
    std::string text;
    auto groups = entryRecord(nullptr, 1, rights, 0, folder)->permissions();
    for (size_t group = 0; group < 3; ++group) {
      recordOf(groups->objectAtIndex(group))->setState(-1);
      text += treeText(groups->objectAtIndex(group)) + "\n";
    }
    return text;
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

// The effective access of an item, every leaf: a file's and a folder's rows, and a group as the
// identity. The rules themselves belong to the evaluator's tests (tests/platform/xacl) and, with
// memberships from the group database, to the kernel agreement test.
TEST_F(AclInspection, EffectiveAccessShowsEveryRowOfTheItem) {
  const uint32_t groupAll = ACL_READ_DATA | ACL_READ_EXTATTRIBUTES | ACL_WRITE_DATA |
                            ACL_APPEND_DATA | ACL_WRITE_EXTATTRIBUTES | ACL_EXECUTE | ACL_DELETE |
                            ACL_READ_ATTRIBUTES | ACL_READ_SECURITY;
  EXPECT_EQ(access(tree_.ownedFile("owned", 0644), userUuid(kOwner)),
            granting(kOwnerRights, false));
  EXPECT_EQ(access(tree_.ownedFile("team", 0070), groupUuid(kTeam)), granting(groupAll, false));
  EXPECT_EQ(access(tree_.ownedFolder("folder", 0751), userUuid(kOther)),
            granting(ACL_SEARCH | ACL_DELETE | ACL_READ_ATTRIBUTES | ACL_READ_SECURITY, true));
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
      seen = access(p(row.item), row.who);
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
      return outcome(list(hidden) != nullptr, error_) + "\n" + access(hidden, userUuid(uid));
    });
  };
  EXPECT_EQ(inspectAs(kOther, kOtherGroup), failure(EACCES, listTitle, kRetrieveAcl, hidden) +
                                                "\n" +
                                                failure(EACCES, accessTitle, kRetrieveAcl, hidden));
  EXPECT_EQ(inspectAs(kOwner, kOwnerGroup), "ok\n" + granting(kOwnerRights | ACL_EXECUTE, false));
  EXPECT_EQ(access(hidden, userUuid(kOther)), granting(0, false));
}

}  // namespace
}  // namespace qxacltest
