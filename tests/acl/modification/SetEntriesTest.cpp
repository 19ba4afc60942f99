#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "ModificationTestSupport.h"
#include "acl/QXFileAcl.h"
#include "platform/xacl/AclTesting.h"

namespace qxtest {
namespace {

using namespace qx::xacl;
namespace xtesting = qx::xacl::testing;

void expectOperationError(const qx::ErrorPtr& error, int64_t code, const std::string& format,
                          const std::string& path) {
  ASSERT_NO_FATAL_FAILURE(expectStepError(error, kSaveTitle, code, format, path));
  auto url = qx::cast<qx::Url>(error->userInfo()->objectForKey(qx::kURLErrorKey));
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->path(), path);
}

bool save(const qx::ArrayPtr& entries, const std::string& path, qx::ErrorPtr* error = nullptr) {
  qx::ErrorPtr ignored;
  return QXFileAcl::setEntries(entries, urlOf(path), error ? error : &ignored);
}

bool isRoot() {
  return geteuid() == 0;
}

// ---- Round trips through the entry listing ----

// A node and its subtree as text: name, permission and state of every node.
std::string treeText(const qx::ObjectPtr& object) {
  auto treeNode = qx::cast<qx::TreeNode>(object);
  auto record = recordOf(object);
  if (!treeNode || !record) return "<not a node>";
  std::string text = (record->name() ? record->name()->str() : "<nil>") + ":" +
                     std::to_string(record->permission()) + "=" + std::to_string(record->state());
  if (treeNode->isLeaf()) return text;
  text += "[";
  for (const auto& child : treeNode->childNodes()) text += treeText(child) + " ";
  return text + "]";
}

// A listing as text, markers and records alike, so that a difference shows where it is.
std::string listingText(const qx::ArrayPtr& entries) {
  if (!entries) return "<nil>";
  std::string text;
  for (const qx::ObjectPtr& object : *entries) {
    if (auto marker = qx::cast<qx::String>(object)) {
      text += marker->str() + "\n";
      continue;
    }
    auto entry = qx::cast<QXAclEntry>(object);
    if (!entry) {
      text += "<unexpected element>\n";
      continue;
    }
    text += (entry->uuid() ? entry->uuid()->UUIDString() : "everyone") + " tag " +
            std::to_string(entry->tag()) + (entry->inherited() ? " inherited" : "") + ":";
    for (const qx::ObjectPtr& node : entry->permissions()->objects()) text += " " + treeText(node);
    text += "\n";
  }
  return text;
}

QXAclEntryPtr entryAt(const qx::ArrayPtr& entries, size_t index) {
  return entries->objectAs<QXAclEntry>(index);
}

// Sets the leaf `row` of top-level node `group` of an entry, and resolves the group again, as
// an editor would.
void setLeaf(const QXAclEntryPtr& entry, size_t group, size_t row, int64_t state) {
  auto groupNode = entry->permissions()->objectAs<qx::TreeNode>(group);
  recordOf(groupNode->childNodes()[row])->setState(state);
  QXAclEntry::resolveStateForPermissionNode(groupNode);
}

class SetEntriesTest : public ::testing::Test {
 protected:
  TempDir dir;
};

TEST_F(SetEntriesTest, GetEditSetGetKeepsEveryEntryInOrder) {
  const std::string folder = dir / "folder";
  ASSERT_TRUE(makeFolder(folder, 0750));
  const std::vector<AclFields> initial = {
      {ACL_EXTENDED_ALLOW, userUuid(kAlice), ACL_LIST_DIRECTORY | ACL_SEARCH | ACL_DELETE_CHILD,
       ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT},
      {ACL_EXTENDED_DENY, groupUuid(kStaff), ACL_DELETE | ACL_WRITE_SECURITY,
       ACL_ENTRY_INHERITED | ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
      {ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_PERM_MASK,
       ACL_ENTRY_ONLY_INHERIT | ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_LIMIT_INHERIT},
  };
  std::vector<qx::ObjectPtr> records;
  for (const AclFields& fields : initial) records.push_back(aclEntry(fields, true));
  ASSERT_TRUE(save(listing(records, pseudoEntries(0750, getuid(), getgid(), true)), folder));
  ASSERT_EQ(storedAcl(folder).value_or(std::vector<AclFields>{}), initial);

  qx::ErrorPtr error;
  qx::ArrayPtr listed = QXFileAcl::entriesForUrl(urlOf(folder), &error);
  ASSERT_NE(listed, nullptr) << (error ? error->description() : "");
  ASSERT_EQ(listed->count(), 1 + initial.size() + 1 + 3);
  const std::string before = listingText(listed);

  // Edit: a permission off and one on, a flag choice, the inherited mark, a new deny entry in
  // the middle, and the mode bits of owner and everyone.
  auto edited = listed->mutableCopy();
  setLeaf(entryAt(edited, 1), 0, 0, 0);  // alice: "List Folder Contents" off
  setLeaf(entryAt(edited, 1), 2, 1, 1);  // alice: "Change Owner" on
  setLeaf(entryAt(edited, 2), 3, 1, 1);  // staff: "Child files" on
  entryAt(edited, 3)->setInherited(true);
  edited->insertObject(aclEntry({ACL_EXTENDED_DENY, userUuid(kAlice), ACL_ADD_SUBDIRECTORY,
                                 ACL_ENTRY_DIRECTORY_INHERIT},
                                true),
                       3);
  auto owner = entryAt(edited, 6);
  recordOf(owner->permissions()->objectAtIndex(1))->setState(0);  // owner may not write
  auto everyone = entryAt(edited, 8);
  recordOf(everyone->permissions()->objectAtIndex(0))->setState(1);  // everyone may read

  ASSERT_TRUE(save(edited, folder, &error)) << (error ? error->description() : "");
  EXPECT_EQ(error, nullptr);
  qx::ArrayPtr reread = QXFileAcl::entriesForUrl(urlOf(folder), &error);
  ASSERT_NE(reread, nullptr);
  EXPECT_EQ(listingText(reread), listingText(edited));
  EXPECT_NE(listingText(reread), before);
  EXPECT_EQ(modeOf(folder), 0554u);

  const std::vector<AclFields> expected = {
      {ACL_EXTENDED_ALLOW, userUuid(kAlice), ACL_SEARCH | ACL_DELETE_CHILD | ACL_CHANGE_OWNER,
       ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT},
      {ACL_EXTENDED_DENY, groupUuid(kStaff), ACL_DELETE | ACL_WRITE_SECURITY,
       ACL_ENTRY_INHERITED | ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT |
           ACL_ENTRY_LIMIT_INHERIT},
      {ACL_EXTENDED_DENY, userUuid(kAlice), ACL_ADD_SUBDIRECTORY, ACL_ENTRY_DIRECTORY_INHERIT},
      {ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_PERM_MASK,
       ACL_ENTRY_INHERITED | ACL_ENTRY_ONLY_INHERIT | ACL_ENTRY_FILE_INHERIT |
           ACL_ENTRY_LIMIT_INHERIT},
  };
  EXPECT_EQ(describe(storedAcl(folder).value_or(std::vector<AclFields>{})), describe(expected));
}

TEST_F(SetEntriesTest, FileListingSavedUnchangedReadsBackTheSame) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0604));
  const std::vector<AclFields> initial = {
      {ACL_EXTENDED_DENY, userUuid(kBob), ACL_WRITE_DATA | ACL_APPEND_DATA, ACL_ENTRY_INHERITED},
      {ACL_EXTENDED_ALLOW, groupUuid(kStaff), ACL_READ_DATA | ACL_EXECUTE | ACL_READ_ATTRIBUTES, 0},
  };
  ASSERT_TRUE(save(listing({aclEntry(initial[0], false), aclEntry(initial[1], false)},
                           pseudoEntries(0604, getuid(), getgid())),
                   file));
  qx::ErrorPtr error;
  qx::ArrayPtr listed = QXFileAcl::entriesForUrl(urlOf(file), &error);
  ASSERT_NE(listed, nullptr);
  ASSERT_TRUE(save(listed, file, &error));
  EXPECT_EQ(listingText(QXFileAcl::entriesForUrl(urlOf(file), &error)), listingText(listed));
  EXPECT_EQ(storedAcl(file).value_or(std::vector<AclFields>{}), initial);
  EXPECT_EQ(modeOf(file), 0604u);
}

TEST_F(SetEntriesTest, ListingWithoutAclEntriesRemovesTheAcl) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file));
  ASSERT_TRUE(
      save(listing({aclEntry({ACL_EXTENDED_ALLOW, userUuid(kAlice), ACL_READ_DATA, 0}, false)}, {}),
           file));
  ASSERT_TRUE(hasAclAttribute(file));
  qx::ErrorPtr error = qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 1);
  EXPECT_TRUE(save(listing({}, pseudoEntries(0644, getuid(), getgid())), file, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(hasAclAttribute(file));
  EXPECT_EQ(storedAcl(file), std::nullopt);
}

// ---- Mode bits ----

TEST_F(SetEntriesTest, ModeBitsFollowThePseudoEntriesByPosition) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0640));
  ASSERT_TRUE(save(listing({}, pseudoEntries(0751, getuid(), getgid())), file));
  EXPECT_EQ(modeOf(file), 0751u);

  // A mixed node clears its bit.
  auto pseudo = pseudoEntries(0777, getuid(), getgid());
  recordOf(qx::cast<QXAclEntry>(pseudo[1])->permissions()->objectAtIndex(1))->setState(-1);
  ASSERT_TRUE(save(listing({}, pseudo), file));
  EXPECT_EQ(modeOf(file), 0757u);
}

TEST_F(SetEntriesTest, ChangedPermissionBitsDropSetIdBitsUnchangedOnesKeepThem) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 04755));
  ASSERT_TRUE(save(listing({}, pseudoEntries(0755, getuid(), getgid())), file));
  EXPECT_EQ(modeOf(file), 04755u) << "unchanged bits make no call";
  ASSERT_TRUE(save(listing({}, {}), file));
  EXPECT_EQ(modeOf(file), 04755u) << "no pseudo-entries, no mode change";
  ASSERT_TRUE(save(listing({}, pseudoEntries(0750, getuid(), getgid())), file));
  EXPECT_EQ(modeOf(file), 0750u);
}

// A change of any of the three updates the item's ctime; a request that matches them and
// removes an ACL the item does not have makes no call at all.
TEST_F(SetEntriesTest, MatchingValuesMakeNoCalls) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0640));
  const struct stat before = lstatOf(file);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  ASSERT_TRUE(save(listing({}, pseudoEntries(0640, before.st_uid, before.st_gid)), file));
  struct stat after = lstatOf(file);
  EXPECT_EQ(after.st_ctim.tv_sec, before.st_ctim.tv_sec);
  EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);

  ASSERT_TRUE(save(listing({}, pseudoEntries(0600, before.st_uid, before.st_gid)), file));
  after = lstatOf(file);
  EXPECT_NE(after.st_ctim.tv_nsec + after.st_ctim.tv_sec * 1000000000L,
            before.st_ctim.tv_nsec + before.st_ctim.tv_sec * 1000000000L)
      << "the control: a mode change does show";
}

// ---- Owner and group ----

TEST_F(SetEntriesTest, OwnerAndGroupChangeAsRoot) {
  if (!isRoot()) GTEST_SKIP() << "changing owners needs root";
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0644));
  qx::ErrorPtr error;
  ASSERT_TRUE(save(listing({}, pseudoEntries(0640, kAlice, kStaff)), file, &error))
      << (error ? error->description() : "");
  struct stat st = lstatOf(file);
  EXPECT_EQ(st.st_uid, kAlice);
  EXPECT_EQ(st.st_gid, kStaff);
  EXPECT_EQ(st.st_mode & 07777, 0640u);

  // Identities are taken in order, whatever their type: a group first becomes the owner.
  auto pseudo = pseudoEntries(0640, kAlice, kBobGroup);
  qx::cast<QXAclEntry>(pseudo[0])->setUuid(groupUuid(kBobGroup));
  ASSERT_TRUE(save(listing({}, pseudo), file));
  EXPECT_EQ(lstatOf(file).st_uid, kBobGroup);
  EXPECT_EQ(lstatOf(file).st_gid, kBobGroup);

  // A single identity changes the owner only.
  pseudo = pseudoEntries(0640, kBob, 0);
  qx::cast<QXAclEntry>(pseudo[1])->setUuid(nullptr);
  ASSERT_TRUE(save(listing({}, pseudo), file));
  EXPECT_EQ(lstatOf(file).st_uid, kBob);
  EXPECT_EQ(lstatOf(file).st_gid, kBobGroup);
}

// Without privileges the owner change fails after the mode was written; nothing is undone.
TEST_F(SetEntriesTest, UnprivilegedOwnerChangeFailsAfterTheModeWasWritten) {
  if (!isRoot()) GTEST_SKIP() << "needs root to act as another user";
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0644));
  ASSERT_EQ(chown(file.c_str(), kAlice, kAliceGroup), 0);

  auto result = runAs(kAlice, kAliceGroup, [&] {
    qx::ErrorPtr error;
    bool ok = save(listing({}, pseudoEntries(0600, kBob, kAliceGroup)), file, &error);
    return outcome(ok, error);
  });
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result,
            std::to_string(EPERM) + "\n" + kSaveTitle + "\n" +
                suggestionFor("Couldn't set file owner for file at path \"%s\".", file, EPERM));
  const struct stat st = lstatOf(file);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_uid, kAlice);
}

// Another user's file that is writable by all: an unprivileged caller may write its ACL but
// not its mode or owners, so a request that repeats those succeeds only if no call is made.
TEST_F(SetEntriesTest, UnprivilegedSaveOfMatchingValuesOnlyWritesTheAcl) {
  if (!isRoot()) GTEST_SKIP() << "needs root to act as another user";
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0666));
  const AclFields entry{ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_READ_DATA, 0};

  auto result = runAs(kAlice, kAliceGroup, [&] {
    qx::ErrorPtr error;
    bool ok = save(listing({aclEntry(entry, false)}, pseudoEntries(0666, 0, 0)), file, &error);
    return outcome(ok, error);
  });
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result, "ok");
  EXPECT_EQ(storedAcl(file).value_or(std::vector<AclFields>{}), std::vector<AclFields>{entry});

  result = runAs(kAlice, kAliceGroup, [&] {
    qx::ErrorPtr error;
    bool ok = save(listing({}, pseudoEntries(0664, 0, 0)), file, &error);
    return outcome(ok, error);
  });
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result,
            std::to_string(EPERM) + "\n" + kSaveTitle + "\n" +
                suggestionFor("Couldn't set file POSIX permissions for file at path \"%s\".", file,
                              EPERM))
      << "the control: a mode change is refused";
}

// ---- Symbolic links ----

TEST_F(SetEntriesTest, SymbolicLinkIsChangedItselfOrFailsHonestly) {
  const std::string target = dir / "target";
  const std::string link = dir / "link";
  ASSERT_TRUE(makeFile(target, 0600));
  ASSERT_EQ(symlink("target", link.c_str()), 0);
  const struct stat targetBefore = lstatOf(target);

  if (isRoot()) {
    ASSERT_TRUE(save(listing({}, pseudoEntries(0777, kAlice, kStaff)), link));
    EXPECT_EQ(lstatOf(link).st_uid, kAlice);
    EXPECT_EQ(lstatOf(link).st_gid, kStaff);
  }

  qx::ErrorPtr error;
  EXPECT_FALSE(save(listing({}, pseudoEntries(0700, lstatOf(link).st_uid, lstatOf(link).st_gid)),
                    link, &error));
  expectOperationError(error, EOPNOTSUPP,
                       "Couldn't set file POSIX permissions for file at path \"%s\".", link);

  const AclFields entry{ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_READ_DATA, 0};
  EXPECT_FALSE(save(listing({aclEntry(entry, false)},
                            pseudoEntries(0777, lstatOf(link).st_uid, lstatOf(link).st_gid)),
                    link, &error));
  expectOperationError(error, ENOTSUP,
                       "Couldn't set file Acces Control List entries for file at path \"%s\".",
                       link);

  const struct stat targetAfter = lstatOf(target);
  EXPECT_EQ(targetAfter.st_mode, targetBefore.st_mode);
  EXPECT_EQ(targetAfter.st_uid, targetBefore.st_uid);
  EXPECT_EQ(targetAfter.st_gid, targetBefore.st_gid);
  EXPECT_FALSE(hasAclAttribute(target));
}

// ---- Failures ----

TEST_F(SetEntriesTest, MissingItemFailsToStat) {
  const std::string missing = dir / "missing";
  qx::ErrorPtr error;
  EXPECT_FALSE(save(listing({}, {}), missing, &error));
  expectOperationError(error, ENOENT, "Couldn't retrieve file stat for file at path \"%s\".",
                       missing);
}

// Unknown identities fail before anything is written; the message follows the identity's
// position among the identities.
TEST_F(SetEntriesTest, UnknownIdentitiesFailBeforeAnyWrite) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0644));
  auto pseudo = pseudoEntries(0600, getuid(), getgid());
  qx::cast<QXAclEntry>(pseudo[0])->setUuid(qx::Uuid::make());
  qx::ErrorPtr error;
  EXPECT_FALSE(save(listing({}, pseudo), file, &error));
  expectOperationError(error, ENOENT,
                       "Couldn't retrieve file owner identifier for file at path \"%s\".", file);

  pseudo = pseudoEntries(0600, getuid(), getgid());
  qx::cast<QXAclEntry>(pseudo[1])->setUuid(qx::Uuid::make());
  EXPECT_FALSE(save(listing({}, pseudo), file, &error));
  expectOperationError(error, ENOENT,
                       "Couldn't retrieve file group identifier for file at path \"%s\".", file);

  // With the owner's identity missing, the group's is the first one: it names the owner.
  qx::cast<QXAclEntry>(pseudo[0])->setUuid(nullptr);
  EXPECT_FALSE(save(listing({}, pseudo), file, &error));
  expectOperationError(error, ENOENT,
                       "Couldn't retrieve file owner identifier for file at path \"%s\".", file);
  EXPECT_EQ(modeOf(file), 0644u);
}

// Mode first, then owner and group, then the ACL: a bad ACL entry fails after the mode was
// written, with the ACL construction's own message.
TEST_F(SetEntriesTest, AclConstructionFailureComesAfterTheModeWrite) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0644));
  auto bad = aclEntry({ACL_EXTENDED_ALLOW, nullptr, ACL_READ_DATA, 0}, false);
  qx::ErrorPtr error;
  EXPECT_FALSE(save(listing({bad}, pseudoEntries(0600, getuid(), getgid())), file, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), static_cast<int32_t>(0x80000002u));
  EXPECT_EQ(error->localizedDescription(), kSaveTitle);
  EXPECT_EQ(modeOf(file), 0600u);
  EXPECT_FALSE(hasAclAttribute(file));
}

TEST_F(SetEntriesTest, FailingReleaseIsReportedOnlyWhenNothingFailedBefore) {
  const std::string file = dir / "file";
  const std::string link = dir / "link";
  ASSERT_TRUE(makeFile(file, 0644));
  ASSERT_EQ(symlink("file", link.c_str()), 0);
  const AclFields entry{ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_READ_DATA, 0};
  const size_t live = xtesting::LiveAcls();
  qx::ErrorPtr error;
  {
    xtesting::ScopedFreeFailure failure(EIO, xtesting::FreeTarget::Acl);
    EXPECT_FALSE(save(listing({aclEntry(entry, false)}, {}), file, &error));
    EXPECT_FALSE(xtesting::FreeFailurePending());
  }
  expectOperationError(error, EIO,
                       "Couldn't release file Acces Control List storage for file at path \"%s\".",
                       file);
  EXPECT_EQ(storedAcl(file).value_or(std::vector<AclFields>{}), std::vector<AclFields>{entry});
  {
    xtesting::ScopedFreeFailure failure(EIO, xtesting::FreeTarget::Acl);
    EXPECT_FALSE(save(listing({aclEntry(entry, false)}, {}), link, &error));
    EXPECT_FALSE(xtesting::FreeFailurePending()) << "released after the failed write too";
  }
  expectOperationError(error, ENOTSUP,
                       "Couldn't set file Acces Control List entries for file at path \"%s\".",
                       link);
  EXPECT_EQ(xtesting::LiveAcls(), live);
}

}  // namespace
}  // namespace qxtest
