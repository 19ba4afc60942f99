// Random ACLs written through a real service, then for every test user and every one of read, write
// and execute, what the kernel grants against what qxfile's effective access says.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "qxfile/BlockingClient.h"
#include "qxfile/Client.h"
#include "tests/enforcement/AclRequest.h"
#include "tests/enforcement/KernelAccess.h"
#include "tests/enforcement/QxfileCommand.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

namespace {

using namespace qx::test;
using namespace qx::test::acl;
using Json = nlohmann::json;

constexpr int kAcls = 600;

// The users of tests/support/users (KernelAccess::testUsers), the first of them owning every item.
// Named in entries: every user but the owner, and groups that hold the owner (3101), one member
// (3102), nobody of the items (3104), several (3110, 3111).
const uid_t kNamedUsers[] = {2102, 2103, 2104, 2105};
const gid_t kNamedGroups[] = {3101, 3102, 3104, 3110, 3111};
const gid_t kOwningGroups[] = {3101, 3102, 3110, 3111};

// An operation and the permission names that stand for it on a file and on a folder.
struct Operation {
  unsigned bit;  // KernelAccess::kRead, kWrite or kExecute
  const char* name;
  std::vector<std::string> fileRights, folderRights;
};
// clang-format off
const Operation kOperations[] = {
    {KernelAccess::kRead, "read", {"Read Data"}, {"List Folder Contents"}},
    {KernelAccess::kWrite, "write", {"Write Data", "Append Data"},
     {"Create Files", "Create Folder", "Delete Subfolders and Files", "Traverse Folder"}},
    {KernelAccess::kExecute, "execute", {"Execute File"}, {"Traverse Folder"}}};
// clang-format on

struct Draw {
  bool folder = false;
  mode_t mode = 0;
  gid_t group = 0;
  std::vector<Ace> entries;
  bool allowOnlyUsers = false;
  std::vector<uid_t> namedUsers;
  // For failure messages: the kind, mode and group, then the entries written, one a line.
  std::string text() const {
    char text[64];
    std::snprintf(text, sizeof text, "%s mode %04o group %u:\n", folder ? "folder" : "file", mode,
                  group);
    return text + aclPartText(entries, true);
  }
};

class Drawing {
 public:
  explicit Drawing(unsigned seed) : random_(seed) {}

  // Every fourth ACL holds allow entries for users only.
  Draw next(int index) {
    Draw draw;
    draw.folder = below(2) == 0;
    draw.mode = below(01000);
    draw.group = kOwningGroups[below(std::size(kOwningGroups))];
    draw.allowOnlyUsers = index % 4 == 0;
    for (unsigned count = 1 + below(4); count > 0; --count) draw.entries.push_back(entry(draw));
    return draw;
  }

 private:
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

  Ace entry(Draw& draw) {
    Ace ace;
    ace.tag = draw.allowOnlyUsers || below(2) == 0 ? kAllow : kDeny;
    if (draw.allowOnlyUsers || below(2) == 0) {
      const uid_t uid = kNamedUsers[below(std::size(kNamedUsers))];
      draw.namedUsers.push_back(uid);
      ace.who = userUuid(uid);
    } else {
      ace.who = groupUuid(kNamedGroups[below(std::size(kNamedGroups))]);
    }
    // The rights that POSIX bits stand for, often whole, and now and then others.
    for (uint32_t right : {kReadData, kExecute}) ace.rights |= below(2) ? right : 0;
    const bool wholeWrite = below(2);
    for (uint32_t right : {kWriteData, kAppendData, kDeleteChild})
      ace.rights |= wholeWrite || below(3) == 0 ? right : 0;
    if (below(3) == 0) ace.rights |= static_cast<uint32_t>(random_()) & 0x3f90;
    if (draw.folder) {
      if (below(2)) ace.flags |= kFileInherit;
      if (below(2)) ace.flags |= kDirectoryInherit;
      if (ace.flags && below(4) == 0) ace.flags |= kOnlyInherit;
      if ((ace.flags & kDirectoryInherit) && below(4) == 0) ace.flags |= kLimitInherit;
    }
    if (below(6) == 0) ace.flags |= kInherited;
    return ace;
  }

  std::mt19937 random_;
};

// The class of users whose rights come from the mode alone on Linux.
std::string modeClassOf(const KernelAccess::User& user, uid_t owner, const Draw& draw) {
  if (user.uid == owner) return "owner";
  if (std::count(draw.namedUsers.begin(), draw.namedUsers.end(), user.uid)) return "";
  if (std::count(user.groups.begin(), user.groups.end(), draw.group)) return "owning group";
  for (const Ace& ace : draw.entries) {
    for (gid_t group : user.groups) {
      if (ace.who->isEqual(*groupUuid(group))) return "";
    }
  }
  return "others";
}

struct Flagged {
  const KernelAccess::User* user;
  const Operation* operation;
  std::string modeClass;
};

bool listed(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// `qxfile acl show --json` marks an entry's right that stands for the operation as not enforced for
// the user's class; `qxfile access --json` shows one of them denied and not enforced.
bool markedInListing(const Json& document, const Flagged& flagged, bool folder) {
  const auto& rights = folder ? flagged.operation->folderRights : flagged.operation->fileRights;
  for (const Json& entry : document.value("acl", Json::array())) {
    for (const Json& mark : entry.value("linux", Json::object()).value("unenforced", Json())) {
      if (listed(rights, mark.value("right", "")) && mark.value("for", "") == flagged.modeClass)
        return true;
    }
  }
  return false;
}
bool markedInAccess(const Json& document, const Flagged& flagged, bool folder) {
  const auto& rights = folder ? flagged.operation->folderRights : flagged.operation->fileRights;
  for (const Json& group : document.value("access", Json::array())) {
    for (const Json& leaf : group.value("permissions", Json::array())) {
      if (listed(rights, leaf.value("name", "")) && !leaf.value("granted", true) &&
          !leaf.value("enforced", true))
        return true;
    }
  }
  return false;
}

TEST(KernelAgreement, KernelNeverGrantsWhatQxfileDeniesBeyondTheMarkedDenials) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: items get owners, checks take users' ids";
  const std::vector<KernelAccess::User> users = KernelAccess::testUsers();
  for (const KernelAccess::User& user : users) ASSERT_NE(user.uid, 0u) << "tests/support/users";
  const uid_t owner = users[0].uid;

  qx::test::ServiceSandbox sandbox(QX_SERVICE_EXECUTABLE);
  qx::test::TempTree tree("qx-enforcement");
  chmod(tree.root().c_str(), 0755);  // every user may reach the items
  qxfile::Client client;
  std::optional<qxfile::Error> error = client.connect();
  ASSERT_FALSE(error) << error->description;
  qxfile::BlockingClient service(client);

  Drawing drawing(20261124);
  long acls = 0, checks = 0, exact = 0, restricted = 0, flaggedCount = 0, failures = 0;
  for (int index = 0; index < kAcls && failures < 20; ++index) {
    const Draw draw = drawing.next(index);
    ++acls;
    SCOPED_TRACE("ACL " + std::to_string(index) + ": " + draw.text());
    const std::string path = tree.path("item" + std::to_string(index));
    draw.folder ? tree.folder("item" + std::to_string(index), 0700)
                : tree.file("item" + std::to_string(index));
    ASSERT_EQ(chown(path.c_str(), owner, draw.group), 0);
    ASSERT_TRUE(service.setAcl(
        path, listing(draw.entries, draw.folder, draw.mode, owner, draw.group), &error))
        << error->description << " " << error->recoverySuggestion.value_or("");
    EXPECT_EQ(aclPartText(service.getAcl(path, &error)), aclPartText(draw.entries, draw.folder))
        << "read back as written, every entry, flag and order";
    struct stat st {};
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    ASSERT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(owner, draw.group));

    std::vector<Flagged> flagged;
    for (const KernelAccess::User& user : users) {
      const unsigned kernel = KernelAccess::granted(path, draw.folder, user);
      ASSERT_NE(kernel, ~0u) << "the child could not take uid " << user.uid;
      const qxfile::EffectiveAccess access =
          service.getAccess(path, qxfile::Identity::user(user.uid), &error);
      ASSERT_FALSE(error) << error->description;
      const unsigned said = KernelAccess::operationsOf(grantedRights(access), draw.folder);
      for (const Operation& operation : kOperations) {
        ++checks;
        const bool byKernel = kernel & operation.bit, byQxfile = said & operation.bit;
        if (byKernel == byQxfile) {
          ++exact;
          continue;
        }
        const std::string pair = "uid " + std::to_string(user.uid) + " " + operation.name +
                                 ": kernel " + (byKernel ? "grants" : "denies") + ", qxfile " +
                                 (byQxfile ? "grants" : "denies");
        const std::string modeClass = byKernel ? modeClassOf(user, owner, draw) : "";
        std::string problem;
        if (!byKernel) {
          ++restricted;
        } else if (modeClass.empty()) {
          problem = ", for a user named or in a named group";
        } else {
          ++flaggedCount;
          flagged.push_back({&user, &operation, modeClass});
        }
        if (draw.allowOnlyUsers && problem.empty()) {
          problem = ", in an ACL of allow entries for users only";
        }
        if (!problem.empty()) {
          ++failures;
          ADD_FAILURE() << pair << problem << "\n"
                        << KernelAccess::output("getfacl -n -c -p '" + path + "'");
        }
      }
    }
    if (flagged.empty()) continue;
    const QxfileCommand::Outcome shown = QxfileCommand::run({"acl", "show", path, "--json"});
    ASSERT_EQ(shown.status, 0) << shown;
    std::set<uid_t> asked;
    for (const Flagged& pair : flagged) {
      const std::string what = "uid " + std::to_string(pair.user->uid) + " " + pair.operation->name;
      if (!markedInListing(shown.json(), pair, draw.folder) && ++failures) {
        ADD_FAILURE() << what << ": the kernel grants what qxfile denies, and acl show marks no "
                      << "right for it as not enforced for " << pair.modeClass << "\n"
                      << shown.out;
      }
      if (!asked.insert(pair.user->uid).second) continue;
      const QxfileCommand::Outcome access =
          QxfileCommand::run({"access", path, "uid:" + std::to_string(pair.user->uid), "--json"});
      if (!markedInAccess(access.json(), pair, draw.folder) && ++failures) {
        ADD_FAILURE() << what << ": access says every denied right for it is enforced\n" << access;
      }
    }
  }
  std::printf("kernel agreement: acls=%ld checks=%ld exact=%ld restricted=%ld flagged=%ld\n", acls,
              checks, exact, restricted, flaggedCount);
  ::testing::Test::RecordProperty("checks", std::to_string(checks));
  EXPECT_EQ(checks, kAcls * 5L * 3) << "stopped early after 20 failures";
  EXPECT_GT(flaggedCount, 0) << "no ACL reached a user whose rights come from the mode";
  EXPECT_GT(restricted, 0);
}

}  // namespace
