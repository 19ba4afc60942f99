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
  expectStepError(error, kPropagateTitle, code, format, path);
}

bool propagate(const qx::ArrayPtr& entries, const std::string& top, qx::ErrorPtr* error = nullptr) {
  qx::ErrorPtr ignored;
  return QXFileAcl::propagateEntries(entries, urlOf(top), error ? error : &ignored);
}

// Mode, owner, group, ctime and stored ACL of an item: what propagation may change.
struct Snapshot {
  mode_t mode;
  uid_t uid;
  gid_t gid;
  timespec ctime;
  std::optional<std::vector<AclFields>> acl;

  static Snapshot of(const std::string& path) {
    struct stat st = lstatOf(path);
    return {st.st_mode, st.st_uid, st.st_gid, st.st_ctim, storedAcl(path)};
  }
  bool operator==(const Snapshot& other) const {
    return mode == other.mode && uid == other.uid && gid == other.gid &&
           ctime.tv_sec == other.ctime.tv_sec && ctime.tv_nsec == other.ctime.tv_nsec &&
           acl == other.acl;
  }
};

// A folder entry for alice that lets files and folders inherit it, and an inherited deny
// entry for staff limited to one level, as a folder's listing shows them.
const AclFields kAliceAllow{
    ACL_EXTENDED_ALLOW, userUuid(kAlice),
    ACL_LIST_DIRECTORY | ACL_SEARCH | ACL_ADD_FILE | ACL_DELETE_CHILD | ACL_READ_SECURITY,
    ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT};
const AclFields kStaffDeny{
    ACL_EXTENDED_DENY, groupUuid(kStaff), ACL_ADD_SUBDIRECTORY | ACL_DELETE | ACL_DELETE_CHILD,
    ACL_ENTRY_INHERITED | ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT};

// Their file forms: the folder-only "Delete Subfolders and Files" goes, and so do the
// inheritance flags; the inherited mark stays.
const std::vector<AclFields> kFileAcl{
    {ACL_EXTENDED_ALLOW, userUuid(kAlice),
     ACL_READ_DATA | ACL_EXECUTE | ACL_WRITE_DATA | ACL_READ_SECURITY, 0},
    {ACL_EXTENDED_DENY, groupUuid(kStaff), ACL_APPEND_DATA | ACL_DELETE, ACL_ENTRY_INHERITED},
};
const std::vector<AclFields> kFolderAcl{kAliceAllow, kStaffDeny};

class PropagateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(makeFolder(top, 0750));
    if (geteuid() == 0) {
      ASSERT_EQ(chown(top.c_str(), kAlice, kStaff), 0);
    }
  }

  // The request: a folder listing, with one more ACL entry after the pseudo-entries that
  // must be ignored.
  qx::ArrayPtr request(std::vector<qx::ObjectPtr> aclEntries = {aclEntry(kAliceAllow, true),
                                                                aclEntry(kStaffDeny, true)}) {
    auto entries = listing(aclEntries, pseudoEntries(0777, kBob, kBobGroup, true))->mutableCopy();
    entries->addObject(aclEntry(
        {ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_PERM_MASK, ACL_ENTRY_FILE_INHERIT}, true));
    return entries;
  }

  std::string path(const std::string& relative) const { return top + "/" + relative; }

  TempDir dir;
  const std::string top = dir / "top";
  const std::string outside = dir / "outside";
};

TEST_F(PropagateTest, TreeGetsTheFolderSettingsFilesTheirFileForm) {
  ASSERT_TRUE(makeFile(path("a.txt"), 0644));
  ASSERT_TRUE(makeFolder(path("sub"), 0755));
  ASSERT_TRUE(makeFile(path("sub/b.txt"), 0600));
  ASSERT_TRUE(makeFolder(path("sub/deeper"), 0700));
  ASSERT_TRUE(makeFile(path("sub/deeper/c.sh"), 0755));
  ASSERT_TRUE(makeFolder(path("sub/empty"), 0755));
  ASSERT_EQ(symlink("a.txt", path("link-file").c_str()), 0);
  ASSERT_TRUE(makeFolder(outside, 0755));
  ASSERT_TRUE(makeFile(outside + "/o.txt", 0644));
  ASSERT_EQ(symlink("../outside", path("link-out").c_str()), 0);
  // The top folder's own ACL differs from what is propagated; it must stay.
  const AclFields topEntry{ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_SEARCH, 0};
  ASSERT_TRUE(QXFileAcl::setEntries(listing({aclEntry(topEntry, true)}, {}), urlOf(top), nullptr));

  const Snapshot topBefore = Snapshot::of(top);
  const Snapshot outsideBefore = Snapshot::of(outside);
  const Snapshot outsideFileBefore = Snapshot::of(outside + "/o.txt");
  const mode_t linkMode = lstatOf(path("link-file")).st_mode;
  qx::ArrayPtr entries = request();
  const auto folderEntry = entries->objectAs<QXAclEntry>(1);
  const size_t folderNodes = folderEntry->permissions()->count();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  qx::ErrorPtr error = qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 1);
  ASSERT_TRUE(propagate(entries, top, &error)) << (error ? error->description() : "");
  EXPECT_EQ(error, nullptr);

  EXPECT_TRUE(Snapshot::of(top) == topBefore) << "the top folder is never changed";
  for (const char* file : {"a.txt", "sub/b.txt", "sub/deeper/c.sh"}) {
    const struct stat st = lstatOf(path(file));
    EXPECT_EQ(st.st_mode & 07777, 0750u) << file;
    EXPECT_EQ(st.st_uid, topBefore.uid) << file;
    EXPECT_EQ(st.st_gid, topBefore.gid) << file;
    EXPECT_EQ(describe(storedAcl(path(file)).value_or(std::vector<AclFields>{})),
              describe(kFileAcl))
        << file;
  }
  for (const char* folder : {"sub", "sub/deeper", "sub/empty"}) {
    const struct stat st = lstatOf(path(folder));
    EXPECT_EQ(st.st_mode & 07777, 0750u) << folder;
    EXPECT_EQ(st.st_uid, topBefore.uid) << folder;
    EXPECT_EQ(st.st_gid, topBefore.gid) << folder;
    EXPECT_EQ(describe(storedAcl(path(folder)).value_or(std::vector<AclFields>{})),
              describe(kFolderAcl))
        << folder;
  }
  for (const char* link : {"link-file", "link-out"}) {
    const struct stat st = lstatOf(path(link));
    EXPECT_EQ(st.st_mode, linkMode) << link << ": a link keeps its mode";
    EXPECT_EQ(st.st_uid, topBefore.uid) << link;
    EXPECT_EQ(st.st_gid, topBefore.gid) << link;
    EXPECT_FALSE(hasAclAttribute(path(link))) << link;
  }
  EXPECT_TRUE(Snapshot::of(outside) == outsideBefore) << "a link's target is not followed";
  EXPECT_TRUE(Snapshot::of(outside + "/o.txt") == outsideFileBefore);

  EXPECT_EQ(folderEntry->permissions()->count(), folderNodes)
      << "the request's records keep their folder form";
}

TEST_F(PropagateTest, EmptyFolderChangesNothing) {
  const Snapshot before = Snapshot::of(top);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  qx::ErrorPtr error;
  EXPECT_TRUE(propagate(request(), top, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_TRUE(Snapshot::of(top) == before);
}

TEST_F(PropagateTest, RequestWithoutAclEntriesRemovesDescendantsAcls) {
  ASSERT_TRUE(makeFile(path("a.txt"), 0750));
  ASSERT_TRUE(makeFolder(path("sub"), 0750));
  ASSERT_TRUE(propagate(request(), top));
  ASSERT_TRUE(hasAclAttribute(path("a.txt")));
  ASSERT_TRUE(hasAclAttribute(path("sub")));

  EXPECT_TRUE(propagate(listing({}, pseudoEntries(0700, 0, 0)), top));
  EXPECT_FALSE(hasAclAttribute(path("a.txt")));
  EXPECT_FALSE(hasAclAttribute(path("sub")));
}

// Departure from the platform's behaviour, which would set mode 000 and owner 0 on the item.
TEST_F(PropagateTest, TopItemThatIsNotAFolderChangesNothing) {
  const std::string file = dir / "file";
  ASSERT_TRUE(makeFile(file, 0644));
  const std::string link = dir / "link";
  ASSERT_EQ(symlink("top", link.c_str()), 0);
  const Snapshot fileBefore = Snapshot::of(file);
  const Snapshot linkBefore = Snapshot::of(link);
  const Snapshot topBefore = Snapshot::of(top);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  qx::ErrorPtr error;
  EXPECT_FALSE(propagate(request(), file, &error));
  expectOperationError(error, ENOTDIR, "Couldn't read folder hierarchy for folder at path \"%s\".",
                       file);
  EXPECT_TRUE(Snapshot::of(file) == fileBefore);

  EXPECT_FALSE(propagate(request(), link, &error));
  expectOperationError(error, ENOTDIR, "Couldn't read folder hierarchy for folder at path \"%s\".",
                       link);
  EXPECT_TRUE(Snapshot::of(link) == linkBefore);
  EXPECT_TRUE(Snapshot::of(top) == topBefore);
}

TEST_F(PropagateTest, MissingTopFailsToGetTheItem) {
  const std::string missing = dir / "missing";
  qx::ErrorPtr error;
  EXPECT_FALSE(propagate(request(), missing, &error));
  expectOperationError(error, ENOENT, "Couldn't get folder hierarchy item at path \"%s\".",
                       missing);
}

// A folder is changed after everything inside it: when an item inside fails, the folder
// keeps its old settings. (A FIFO cannot carry the ACL on Linux.)
TEST_F(PropagateTest, FolderIsChangedAfterItsContentsAndAFailureEndsTheWalk) {
  ASSERT_TRUE(makeFolder(path("box"), 0700));
  ASSERT_EQ(mkfifo(path("box/pipe").c_str(), 0600), 0);
  const Snapshot boxBefore = Snapshot::of(path("box"));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  qx::ErrorPtr error;
  EXPECT_FALSE(propagate(request(), top, &error));
  expectOperationError(error, ENOTSUP,
                       "Couldn't set file Acces Control List entries for file at path \"%s\".",
                       path("box/pipe"));
  EXPECT_EQ(modeOf(path("box/pipe")), 0750u) << "the changes before the failing one stay";
  EXPECT_TRUE(Snapshot::of(path("box")) == boxBefore);
}

// Root reads every folder, so the unreadable folder is met by another user.
TEST_F(PropagateTest, UnreadableSubfolderEndsTheWalkWithItsMessage) {
  if (geteuid() == 0) {
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(chown(top.c_str(), kAlice, kAliceGroup), 0);
  }
  ASSERT_TRUE(makeFolder(path("locked"), 0755));
  ASSERT_TRUE(makeFile(path("locked/inside"), 0644));
  ASSERT_EQ(chmod(path("locked").c_str(), 0), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(path("locked").c_str(), kAlice, kAliceGroup), 0);
  }
  const Snapshot lockedBefore = Snapshot::of(path("locked"));

  auto result = runAs(kAlice, kAliceGroup, [&] {
    qx::ErrorPtr error;
    return outcome(propagate(request(), top, &error), error);
  });
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result, std::to_string(EACCES) + "\n" + kPropagateTitle + "\n" +
                         suggestionFor("Couldn't read folder contents for folder at path \"%s\".",
                                       path("locked"), EACCES));
  EXPECT_TRUE(Snapshot::of(path("locked")) == lockedBefore);
}

TEST_F(PropagateTest, BadEntryFailsBeforeTheWalk) {
  ASSERT_TRUE(makeFile(path("a.txt"), 0644));
  const Snapshot before = Snapshot::of(path("a.txt"));
  qx::ErrorPtr error;
  EXPECT_FALSE(
      propagate(request({aclEntry({7, userUuid(kAlice), ACL_READ_DATA, 0}, true)}), top, &error));
  expectOperationError(error, EINVAL,
                       "Couldn't set file Acces Control List entry type for file at path \"%s\".",
                       top);
  EXPECT_TRUE(Snapshot::of(path("a.txt")) == before);
}

// The file ACL is released first, then the folder ACL; a failing release is reported with the
// top folder's path once the walk is done.
TEST_F(PropagateTest, FailingReleaseIsReportedAfterTheWalk) {
  ASSERT_TRUE(makeFile(path("a.txt"), 0644));
  const size_t live = xtesting::LiveAcls();
  for (unsigned skip : {0u, 1u}) {
    ASSERT_EQ(chmod(path("a.txt").c_str(), 0644), 0);
    qx::ErrorPtr error;
    {
      xtesting::ScopedFreeFailure failure(EIO, xtesting::FreeTarget::Acl, skip);
      EXPECT_FALSE(propagate(request(), top, &error));
      EXPECT_FALSE(xtesting::FreeFailurePending());
    }
    expectOperationError(
        error, EIO, "Couldn't release file Acces Control List storage for file at path \"%s\".",
        top);
    EXPECT_EQ(modeOf(path("a.txt")), 0750u);
  }
  EXPECT_EQ(xtesting::LiveAcls(), live);
}

}  // namespace
}  // namespace qxtest
