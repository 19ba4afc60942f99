// Building ACLs from entry records, saving a listing to an item, and propagating a folder's
// settings down its tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "acl/QXAclAttribute.h"
#include "acl/QXAclWriter.h"
#include "acl/QXFileAcl.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclTesting.h"
#include "tests/acl/AclTestSupport.h"
#include "tests/support/ChildProcess.h"

namespace qxacltest {
namespace {

namespace xtesting = qx::xacl::testing;
using Aces = std::vector<Ace>;
using qx::test::ChildProcess;

const std::string kSaveTitle = "Error saving file Acces Control List entries";
const std::string kPropagateTitle =
    "Error propagating file Access Control List, POSIX permissions, owner and group";

const std::string kSetType =
    "Couldn't set file Acces Control List entry type for file at path \"%s\".";
const std::string kSetEntries =
    "Couldn't set file Acces Control List entries for file at path \"%s\".";
const std::string kSetMode = "Couldn't set file POSIX permissions for file at path \"%s\".";
const std::string kParseQualifier =
    "Couldn't retreive file Acces Control List entry qualifier for file at path \"%s\".";
const int kUnparsable = static_cast<int32_t>(0x80000002u);

// ---- Building an ACL from entry records ----

constexpr const char* kPath = "/some/folder";

// The ACL getAcl builds from `entries`, as text, expecting success.
std::string build(const std::vector<qx::ObjectPtr>& entries) {
  acl_t acl = nullptr;
  qx::ErrorPtr error = qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 99);
  EXPECT_TRUE(QXAclWriter::getAcl(&acl, qx::Array::make(entries), kPath, &error));
  EXPECT_EQ(error, nullptr) << "a success clears the error out-parameter";
  AclHandle owner(acl);
  return aclText(acl);
}

// An allow entry for the member of the given nodes after an empty "Read" group.
QXAclEntryPtr memberEntry(const std::vector<qx::ObjectPtr>& nodes) {
  auto all = qx::Array::make({node("Read", 2, 0)})->mutableCopy();
  for (const auto& node : nodes) all->addObject(node);
  return QXAclEntry::make(userUuid(kMember), ACL_EXTENDED_ALLOW, all, false);
}
QXAclEntryPtr withAppliesTo(const std::vector<QXTreeNodePtr>& children) {
  return memberEntry({node("Applies to", 0x2000, 1, children)});
}

TEST(GetAcl, ReadsEveryNodeBySense) {
  const qx::UuidPtr member = userUuid(kMember);
  EXPECT_EQ(build({}), "");
  // "This item" and "All descendants" set their flags when off, the others when on; a mixed child
  // sets nothing.
  for (uint32_t flag : {ACL_ENTRY_ONLY_INHERIT, ACL_ENTRY_LIMIT_INHERIT, ACL_ENTRY_FILE_INHERIT,
                        ACL_ENTRY_DIRECTORY_INHERIT}) {
    const int64_t setting =
        flag == ACL_ENTRY_ONLY_INHERIT || flag == ACL_ENTRY_LIMIT_INHERIT ? 0 : 1;
    for (int64_t state : {0, 1, -1}) {
      EXPECT_EQ(build({withAppliesTo({node("child", flag, state)})}),
                aclText({allow(member, 0, state == setting ? flag : 0)}))
          << "flag 0x" << std::hex << flag << " state " << std::dec << state;
    }
  }

  // Leaves that are not off add their bit, mixed ones too; group states never count.
  auto read = node("Read", 2, 0, {node("Read Data", 2, -1), node("Execute File", 8, 0)});
  auto write = node("Write", 2, 1, {node("Write Data", 4, 0), node("Delete", 0x10, 1)});
  EXPECT_EQ(build({memberEntry({read, write})}),
            aclText({allow(member, ACL_READ_DATA | ACL_DELETE)}));

  // The "Applies to" node is remembered for the whole call: entries without one take the flags of
  // the last one seen; a later one in an entry wins.
  const uint32_t inherit = ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT;
  auto file = aclEntry(deny(member, ACL_READ_DATA, ACL_ENTRY_INHERITED), false);
  auto folder = aclEntry(allow(member, ACL_READ_DATA, inherit), true);
  EXPECT_EQ(build({file, folder, file}),
            aclText({deny(member, ACL_READ_DATA, ACL_ENTRY_INHERITED),
                     allow(member, ACL_READ_DATA, inherit),
                     deny(member, ACL_READ_DATA, ACL_ENTRY_INHERITED | inherit)}));
  auto twice = memberEntry({node("Applies to", 0x2000, 1, {node("Child files", 0x20, 1)}),
                            node("Applies to", 0x2000, 1, {node("Child folders", 0x40, 1)})});
  EXPECT_EQ(build({twice}), aclText({allow(member, 0, ACL_ENTRY_DIRECTORY_INHERIT)}));
}

TEST(GetAcl, EachFailingStepNamesItselfAndStopsTheCall) {
  const auto good = aclEntry(allow(userUuid(kMember), ACL_READ_DATA), false);
  const auto badTag = aclEntry({3, userUuid(kMember), ACL_READ_DATA}, false);
  const auto noUuid = aclEntry(deny(nullptr, ACL_READ_DATA), false);
  const std::vector<qx::ObjectPtr> tooMany(ACL_MAX_ENTRIES, good);
  const std::tuple<std::vector<qx::ObjectPtr>, int, std::string> rows[] = {
      {tooMany, ENOMEM,
       "Couldn't initialize file Acces Control List storage for file at path \"%s\"."},
      {{good, badTag}, EINVAL, kSetType},
      {{qx::str("ACL")}, EINVAL, kSetType},  // not a record: an empty one, whose tag is undefined
      {{good, badTag, noUuid}, EINVAL, kSetType},  // nothing after the failing entry is looked at
      {{good, noUuid}, kUnparsable, kParseQualifier},
      {{memberEntry({node("Write", 2, 1, {node("Unknown", 0x4000, 1)})})},
       EINVAL,
       "Couldn't set file Acces Control List entry permission for file at path \"%s\"."},
      {{good, withAppliesTo({node("Unknown", 0x200, 1)})},
       EINVAL,
       "Couldn't set file Acces Control List entry flag for file at path \"%s\"."},
  };
  EXPECT_EQ(
      build(std::vector<qx::ObjectPtr>(ACL_MAX_ENTRIES - 1, good)),
      aclText(std::vector<Ace>(ACL_MAX_ENTRIES - 1, allow(userUuid(kMember), ACL_READ_DATA))));
  for (const auto& [entries, code, format] : rows) {
    SCOPED_TRACE(format);
    const size_t live = xtesting::LiveAcls();
    acl_t acl = reinterpret_cast<acl_t>(0x1);
    qx::ErrorPtr error;
    EXPECT_FALSE(QXAclWriter::getAcl(&acl, qx::Array::make(entries), kPath, &error));
    EXPECT_EQ(acl, reinterpret_cast<acl_t>(0x1)) << "the ACL out-parameter stays untouched";
    EXPECT_EQ(xtesting::LiveAcls(), live) << "the partly built ACL is released";
    EXPECT_EQ(outcome(false, error),
              std::to_string(code) + "\n" + step(format, kPath) + "\n" + std::strerror(code));
    EXPECT_EQ(pathOf(error), kPath);
  }
}

// Writing through a folder's descriptor, by the descriptor-relative calls and by acl_set_link_np on
// the path through /proc that stands in for them, never reaches past the item the walk examined.
// Propagation.FolderSwappedForALinkNeverLeadsChangesOutside swaps a folder under a whole walk; this
// is the check of the write itself.
TEST(AclAttribute, OnlyTheExaminedItemIsWritten) {
  const Ace entry = allow(userUuid(kOther), ACL_READ_DATA | ACL_EXECUTE);
  for (bool descriptorCalls : {true, false}) {
    SCOPED_TRACE(descriptorCalls ? "descriptor calls" : "path through /proc");
    AclTree tree, outside;
    auto setAt = [&](int folderFd, const char* name, const struct stat& st) {
      AclHandle acl = aclOf({entry});
      errno = 0;
      const std::string path = QXAclAttribute::pathThroughFolder(folderFd, name);
      const int result = descriptorCalls
                             ? QXAclAttribute::setAt(folderFd, name, st, acl.get())
                             : acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, acl.get());
      close(folderFd);
      return result == 0 ? 0 : errno;
    };
    auto open = [&](const std::string& relative) {
      return ::open(tree.path(relative).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    };
    // Swapped for a link to an outside file after the walk examined it.
    tree.file("item");
    const struct stat examined = lstatOf(tree.path("item"));
    outside.file("secret");
    ASSERT_EQ(unlink(tree.path("item").c_str()), 0);
    tree.link("item", outside.path("secret"));
    EXPECT_NE(setAt(open(""), "item", examined), 0);
    EXPECT_FALSE(hasAclAttribute(outside.path("secret")));
    // A folder renamed away is still the one written through its descriptor.
    tree.file("sub/file");
    const int sub = open("sub");
    const struct stat st = lstatOf(tree.path("sub/file"));
    ASSERT_EQ(rename(tree.path("sub").c_str(), tree.path("moved").c_str()), 0);
    tree.file("sub/file");
    EXPECT_EQ(setAt(sub, "file", st), 0);
    EXPECT_EQ(attributeAcl(tree.path("moved/file")), aclText({entry}));
    EXPECT_FALSE(hasAclAttribute(tree.path("sub/file")));
  }
}

// ---- Saving a listing to an item ----

// Mode, owners, ctime and stored ACL: what a save or a propagation may change.
std::string snapshot(const std::string& path) {
  const struct stat st = lstatOf(path);
  return std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + ":" +
         std::to_string(st.st_gid) + " ctime " + std::to_string(st.st_ctim.tv_sec) + "." +
         std::to_string(st.st_ctim.tv_nsec) + "\n" + storedAcl(path);
}

class AclModification : public ::testing::Test {
 protected:
  // "ok", or the failure as outcome() gives it; the error out-parameter is primed, so that a
  // success that leaves it set shows.
  std::string save(const qx::ArrayPtr& entries, const std::string& path) {
    error_ = qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 1);
    return outcome(QXFileAcl::setEntries(entries, urlOf(path), &error_), error_);
  }
  std::string propagate(const qx::ArrayPtr& entries, const std::string& top) {
    error_ = qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 1);
    return outcome(QXFileAcl::propagateEntries(entries, urlOf(top), &error_), error_);
  }
  static bool isRoot() { return geteuid() == 0; }

  AclTree tree_;
  qx::ErrorPtr error_;
};

// The pseudo-entries give the mode by position; a mixed node clears its bit; changed permission
// bits drop the set-id bits; unchanged values make no call. A listing without ACL entries removes
// the ACL.
TEST_F(AclModification, ModeBitsFollowThePseudoEntries) {
  const std::string file = tree_.path("file");
  tree_.file("file");
  ASSERT_TRUE(setAcl(file, {allow(userUuid(kOther), ACL_READ_DATA)}));
  const std::tuple<mode_t, std::optional<mode_t>, mode_t> rows[] = {
      {0640, 0751, 0751}, {04755, 0755, 04755}, {04755, std::nullopt, 04755}, {04755, 0750, 0750}};
  for (const auto& [before, pseudo, after] : rows) {
    chmod(file.c_str(), before);
    auto entries =
        pseudo ? pseudoEntries(*pseudo, getuid(), getgid()) : std::vector<qx::ObjectPtr>{};
    ASSERT_EQ(save(listing({}, entries), file), "ok");
    EXPECT_EQ(shownMode(file), after) << std::oct << before;
  }
  EXPECT_FALSE(hasAclAttribute(file));
  auto pseudo = pseudoEntries(0777, getuid(), getgid());
  recordOf(qx::cast<QXAclEntry>(pseudo[1])->permissions()->objectAtIndex(1))->setState(-1);
  ASSERT_EQ(save(listing({}, pseudo), file), "ok");
  EXPECT_EQ(shownMode(file), 0757u);

  const std::string before = snapshot(file);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  ASSERT_EQ(save(listing({}, pseudoEntries(0757, getuid(), getgid())), file), "ok");
  EXPECT_EQ(snapshot(file), before) << "matching values, no call";
}

TEST_F(AclModification, OwnerAndGroupChangeAsRootOnly) {
  if (!isRoot()) GTEST_SKIP() << "changing owners needs root";
  const std::string file = tree_.path("file");
  tree_.file("file");
  auto owners = [&] {
    return std::to_string(lstatOf(file).st_uid) + ":" + std::to_string(lstatOf(file).st_gid);
  };
  ASSERT_EQ(save(listing({}, pseudoEntries(0640, kMember, kTeam)), file), "ok");
  EXPECT_EQ(owners(), "2102:3110");
  EXPECT_EQ(shownMode(file), 0640u);
  // Identities are taken in order, whatever their type: a group first becomes the owner; a single
  // identity changes the owner only.
  auto pseudo = pseudoEntries(0640, kMember, kOtherGroup);
  qx::cast<QXAclEntry>(pseudo[0])->setUuid(groupUuid(kOtherGroup));
  ASSERT_EQ(save(listing({}, pseudo), file), "ok");
  EXPECT_EQ(owners(), "3104:3104");
  pseudo = pseudoEntries(0640, kOther, 0);
  qx::cast<QXAclEntry>(pseudo[1])->setUuid(nullptr);
  ASSERT_EQ(save(listing({}, pseudo), file), "ok");
  EXPECT_EQ(owners(), "2104:3104");

  // Without privileges the owner change fails after the mode was written.
  ASSERT_EQ(chown(file.c_str(), kMember, kMemberGroup), 0);
  auto saveAs = [&](const qx::ArrayPtr& entries) {
    return ChildProcess::runAs(kMember, kMemberGroup, [&] {
      qx::ErrorPtr error;
      return outcome(QXFileAcl::setEntries(entries, urlOf(file), &error), error);
    });
  };
  EXPECT_EQ(saveAs(listing({}, pseudoEntries(0600, kOther, kMemberGroup))),
            failure(EPERM, kSaveTitle, "Couldn't set file owner for file at path \"%s\".", file));
  EXPECT_EQ(shownMode(file), 0600u);
  EXPECT_EQ(owners(), "2102:3102");

  // Another user's file writable by all: a request that repeats its mode and owners makes no call
  // but the ACL write, which Linux keeps for the owner: the POSIX ACL is refused and nothing is
  // stored.
  ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(file.c_str(), 0666), 0);
  const Ace entry = allow(userUuid(kOther), ACL_READ_DATA);
  EXPECT_EQ(saveAs(listing({aclEntry(entry, false)}, pseudoEntries(0666, 0, 0))),
            failure(EPERM, kSaveTitle, kSetEntries, file));
  EXPECT_EQ(storedAcl(file), "no ACL");
  EXPECT_FALSE(hasAclAttribute(file));
}

// Identities are checked before anything is written, then the mode, the owners and the ACL are
// written in that order. A link is changed itself or the step fails: Linux keeps neither a link's
// mode nor an ACL on it, and its target is never touched.
TEST_F(AclModification, SaveFailuresComeInTheOrderOfTheSteps) {
  const std::string missing = tree_.path("missing"), file = tree_.path("file");
  EXPECT_EQ(
      save(listing({}, {}), missing),
      failure(ENOENT, kSaveTitle, "Couldn't retrieve file stat for file at path \"%s\".", missing));
  tree_.file("file");
  // An unknown identity; with the owner's missing, the group's is the first one and names the
  // owner.
  const std::string ownerId = "Couldn't retrieve file owner identifier for file at path \"%s\".";
  const std::tuple<qx::UuidPtr, qx::UuidPtr, std::string> ids[] = {
      {qx::Uuid::make(), groupUuid(getgid()), ownerId},
      {userUuid(getuid()), qx::Uuid::make(),
       "Couldn't retrieve file group identifier for file at path \"%s\"."},
      {nullptr, qx::Uuid::make(), ownerId}};
  for (const auto& [owner, group, format] : ids) {
    auto pseudo = pseudoEntries(0600, getuid(), getgid());
    qx::cast<QXAclEntry>(pseudo[0])->setUuid(owner);
    qx::cast<QXAclEntry>(pseudo[1])->setUuid(group);
    EXPECT_EQ(save(listing({}, pseudo), file), failure(ENOENT, kSaveTitle, format, file));
  }
  EXPECT_EQ(shownMode(file), 0644u);
  EXPECT_EQ(save(listing({aclEntry(allow(nullptr, ACL_READ_DATA), false)},
                         pseudoEntries(0600, getuid(), getgid())),
                 file),
            failure(kUnparsable, kSaveTitle, kParseQualifier, file));
  EXPECT_EQ(shownMode(file), 0600u) << "the ACL comes after the mode";
  EXPECT_FALSE(hasAclAttribute(file));

  const std::string link = tree_.path("link");
  tree_.file("target");
  tree_.link("link", "target");
  const std::string targetBefore = snapshot(tree_.path("target"));
  if (isRoot()) {
    ASSERT_EQ(save(listing({}, pseudoEntries(0777, kMember, kTeam)), link), "ok");
    EXPECT_EQ(std::pair(lstatOf(link).st_uid, lstatOf(link).st_gid), std::pair(kMember, kTeam));
  }
  const uid_t uid = lstatOf(link).st_uid;
  const gid_t gid = lstatOf(link).st_gid;
  EXPECT_EQ(save(listing({}, pseudoEntries(0700, uid, gid)), link),
            failure(EOPNOTSUPP, kSaveTitle, kSetMode, link));

  // A failing release is reported when nothing failed before it; after a failed write the write's
  // failure is, and the ACL is released all the same.
  const auto request = listing({aclEntry(allow(userUuid(kOther), ACL_READ_DATA), false)}, {});
  const size_t live = xtesting::LiveAcls();
  for (const auto& [path, expected] :
       {std::pair{link, failure(ENOTSUP, kSaveTitle, kSetEntries, link)},
        std::pair{file, failure(EIO, kSaveTitle, kRelease, file)}}) {
    xtesting::ScopedFreeFailure failing(EIO, xtesting::FreeTarget::Acl);
    EXPECT_EQ(save(request, path), expected);
    EXPECT_EQ(pathOf(error_), path);
    EXPECT_FALSE(xtesting::FreeFailurePending());
  }
  EXPECT_EQ(xtesting::LiveAcls(), live);
  EXPECT_EQ(storedAcl(file), aclText({allow(userUuid(kOther), ACL_READ_DATA)}));
  EXPECT_EQ(snapshot(tree_.path("target")), targetBefore);
}

// ---- Propagation ----

// A folder entry for the member that files and folders inherit, and an inherited deny entry for the
// team limited to one level; and their file forms, without the folder-only permission and the
// inheritance flags.
const Ace kMemberAllow =
    allow(userUuid(kMember),
          ACL_LIST_DIRECTORY | ACL_SEARCH | ACL_ADD_FILE | ACL_DELETE_CHILD | ACL_READ_SECURITY,
          ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT);
const Ace kTeamDeny =
    deny(groupUuid(kTeam), ACL_ADD_SUBDIRECTORY | ACL_DELETE | ACL_DELETE_CHILD,
         ACL_ENTRY_INHERITED | ACL_ENTRY_DIRECTORY_INHERIT | ACL_ENTRY_LIMIT_INHERIT);
const Aces kFileAcl{
    allow(userUuid(kMember), ACL_READ_DATA | ACL_EXECUTE | ACL_WRITE_DATA | ACL_READ_SECURITY),
    deny(groupUuid(kTeam), ACL_APPEND_DATA | ACL_DELETE, ACL_ENTRY_INHERITED)};

class Propagation : public AclModification {
 protected:
  void SetUp() override {
    tree_.folder("top", 0750);
    if (isRoot()) {
      ASSERT_EQ(chown(top.c_str(), kMember, kTeam), 0);
    }
  }
  // A folder listing, with an entry after the pseudo-entries that must be ignored.
  qx::ArrayPtr request(std::vector<qx::ObjectPtr> acl = {aclEntry(kMemberAllow, true),
                                                         aclEntry(kTeamDeny, true)}) {
    auto entries = listing(acl, pseudoEntries(0777, kOther, kOtherGroup, true))->mutableCopy();
    entries->addObject(
        aclEntry(allow(userUuid(kOther), ACL_PERM_MASK, ACL_ENTRY_FILE_INHERIT), true));
    return entries;
  }
  std::string at(const std::string& relative) const { return tree_.path("top/" + relative); }

  const std::string top = tree_.path("top");
};

TEST_F(Propagation, TreeGetsTheFolderSettingsFilesTheirFileForm) {
  for (const char* file : {"top/a.txt", "top/sub/b.txt", "top/sub/deeper/c.sh", "outside/o.txt"})
    tree_.file(file);
  chmod(at("sub/deeper").c_str(), 0700);
  tree_.folder("top/sub/empty");
  tree_.link("top/link-file", "a.txt");
  tree_.link("top/link-out", "../outside");
  ASSERT_TRUE(setAcl(top, {allow(userUuid(kOther), ACL_SEARCH)}));
  auto unchanged = [&] {
    return snapshot(top) + snapshot(tree_.path("outside")) + snapshot(tree_.path("outside/o.txt"));
  };
  const std::string before = unchanged();
  const mode_t linkMode = lstatOf(at("link-file")).st_mode;
  qx::ArrayPtr entries = request();
  const std::string requestBefore = listingText(entries);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  ASSERT_EQ(propagate(entries, top), "ok");
  EXPECT_EQ(unchanged(), before) << "the top folder is never changed, links are not followed";
  for (const char* item : {"a.txt", "sub/b.txt", "sub/deeper/c.sh", "sub", "sub/deeper",
                           "sub/empty", "link-file", "link-out"}) {
    SCOPED_TRACE(item);
    const struct stat st = lstatOf(at(item));
    EXPECT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(lstatOf(top).st_uid, lstatOf(top).st_gid));
    if (S_ISLNK(st.st_mode)) {
      EXPECT_EQ(st.st_mode, linkMode) << "a link keeps its mode and takes no ACL";
      EXPECT_FALSE(hasAclAttribute(at(item)));
      continue;
    }
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    EXPECT_EQ(storedAcl(at(item)),
              aclText(S_ISDIR(st.st_mode) ? Aces{kMemberAllow, kTeamDeny} : kFileAcl));
  }
  EXPECT_EQ(listingText(entries), requestBefore) << "the request's records stay as they were";

  // A request without ACL entries removes the descendants' ACLs.
  EXPECT_EQ(propagate(listing({}, pseudoEntries(0700, 0, 0)), top), "ok");
  EXPECT_FALSE(hasAclAttribute(at("a.txt")));
  EXPECT_FALSE(hasAclAttribute(at("sub")));
}

// Each failure ends the walk with its step's message under the operation's title.
TEST_F(Propagation, FailuresEndTheWalkWithTheStepsMessage) {
  const std::string hierarchy = "Couldn't read folder hierarchy for folder at path \"%s\".";
  tree_.file("file");
  tree_.link("link", "top");
  for (const char* name : {"file", "link"}) {
    const std::string before = snapshot(tree_.path(name));
    EXPECT_EQ(propagate(request(), tree_.path(name)),
              failure(ENOTDIR, kPropagateTitle, hierarchy, tree_.path(name)));
    EXPECT_EQ(snapshot(tree_.path(name)), before) << "a top that is not a folder";
  }
  EXPECT_EQ(propagate(request(), tree_.path("missing")),
            failure(ENOENT, kPropagateTitle, "Couldn't get folder hierarchy item at path \"%s\".",
                    tree_.path("missing")));

  tree_.file("top/a.txt");
  const std::string fileBefore = snapshot(at("a.txt"));
  EXPECT_EQ(propagate(request({aclEntry({7, userUuid(kMember), ACL_READ_DATA}, true)}), top),
            failure(EINVAL, kPropagateTitle, kSetType, top));
  EXPECT_EQ(snapshot(at("a.txt")), fileBefore) << "a bad entry fails before the walk";

  // The file ACL is released first, then the folder ACL; a failing release is reported with the top
  // folder's path once the walk is done.
  const size_t live = xtesting::LiveAcls();
  for (unsigned skip : {0u, 1u}) {
    ASSERT_EQ(chmod(at("a.txt").c_str(), 0644), 0);
    {
      xtesting::ScopedFreeFailure failing(EIO, xtesting::FreeTarget::Acl, skip);
      EXPECT_EQ(propagate(request(), top), failure(EIO, kPropagateTitle, kRelease, top));
      EXPECT_FALSE(xtesting::FreeFailurePending());
    }
    EXPECT_EQ(shownMode(at("a.txt")), 0750u);
  }
  EXPECT_EQ(xtesting::LiveAcls(), live);

  // A folder is changed after everything inside it: when an item inside fails (a FIFO cannot carry
  // the ACL on Linux), the folder keeps its settings.
  tree_.folder("top/box", 0700);
  tree_.fifo("top/box/pipe");
  const std::string boxBefore = snapshot(at("box"));
  EXPECT_EQ(propagate(request(), top),
            failure(ENOTSUP, kPropagateTitle, kSetEntries, at("box/pipe")));
  EXPECT_EQ(shownMode(at("box/pipe")), 0750u) << "the changes before the failing one stay";
  EXPECT_EQ(snapshot(at("box")), boxBefore);

  // The walk asks before each item; the first yes ends it, the items visited before stay changed
  // and none after is touched.
  for (const char* item : {"box/pipe", "box", "a.txt"}) ASSERT_EQ(remove(at(item).c_str()), 0);
  tree_.file("top/a.txt");
  tree_.file("top/b.txt");
  for (const char* name : {"a.txt", "b.txt"}) ASSERT_EQ(chmod(at(name).c_str(), 0600), 0);
  int asked = 0;
  auto stopAtThird = [&asked] { return ++asked == 3; };  // top's D, one file, then stop
  qx::ErrorPtr error;
  EXPECT_EQ(outcome(QXFileAcl::propagateEntries(request(), urlOf(top), &error, stopAtThird), error),
            failure(ECANCELED, kPropagateTitle,
                    "Couldn't retrieve folder hierarchy item for folder at path \"%s\".", top));
  EXPECT_EQ(asked, 3);
  EXPECT_EQ(shownMode(at("a.txt")) + shownMode(at("b.txt")), 0750u + 0600u)
      << "exactly one file was changed before the stop";

  // Root reads every folder, so the unreadable folder is met by another user.
  if (!isRoot()) return;
  ASSERT_EQ(chown(top.c_str(), kMember, kMemberGroup), 0);
  tree_.file("top/locked/inside");
  ASSERT_EQ(chmod(at("locked").c_str(), 0), 0);
  ASSERT_EQ(chown(at("locked").c_str(), kMember, kMemberGroup), 0);
  const std::string lockedBefore = snapshot(at("locked"));
  EXPECT_EQ(ChildProcess::runAs(kMember, kMemberGroup, [&] { return propagate(request(), top); }),
            failure(EACCES, kPropagateTitle,
                    "Couldn't read folder contents for folder at path \"%s\".", at("locked")));
  EXPECT_EQ(snapshot(at("locked")), lockedBefore);
}

// Propagation runs as root over trees that other users can write. Once the walk is inside a
// folder, the folder is swapped for a link to a folder outside the tree whose items have the same
// names: a walk that opened or changed items by path would change the outside items.
TEST_F(Propagation, FolderSwappedForALinkNeverLeadsChangesOutside) {
  if (!isRoot()) GTEST_SKIP() << "the attack matters, and owner changes work, as root";
  const std::string victim = at("victim"), parked = at("victim.parked");
  for (const char* folder : {"top/victim", "outside"}) {
    for (const char* name : {"/f0", "/f1", "/nested/f0", "/nested/f1"}) {
      tree_.file(std::string(folder) + name);
    }
  }
  auto outsideState = [&] {
    std::string state;  // any write changes at least an item's ctime
    for (const auto& item : std::filesystem::recursive_directory_iterator(tree_.path("outside"))) {
      state += snapshot(item.path()) + " " + item.path().string() + "\n";
    }
    return state;
  };
  const std::string outsideBefore = outsideState();
  int asked = 0;
  auto swapOnceInside = [&] {
    if (++asked == 3) {  // top, the folder, then the first item read from inside it
      EXPECT_EQ(rename(victim.c_str(), parked.c_str()), 0);
      EXPECT_EQ(symlink(tree_.path("outside").c_str(), victim.c_str()), 0);
    }
    return false;
  };
  qx::ErrorPtr error;
  QXFileAcl::propagateEntries(request(), urlOf(top), &error, swapOnceInside);
  EXPECT_GT(asked, 6);
  EXPECT_EQ(outsideState(), outsideBefore) << "changes from inside the tree reached outside";
  for (const char* name : {"/f0", "/f1", "/nested/f0", "/nested/f1"}) {
    EXPECT_EQ(lstatOf(parked + name).st_uid, kMember) << "the walk went on in the folder: " << name;
  }
}

}  // namespace
}  // namespace qxacltest
