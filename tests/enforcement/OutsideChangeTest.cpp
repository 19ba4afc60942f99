// What qxfile shows after the item's POSIX ACL, mode or stored attribute was changed behind its
// back, and that its effective access then agrees with the kernel.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "qxfile/BlockingClient.h"
#include "qxfile/Client.h"
#include "tests/enforcement/AclRequest.h"
#include "tests/enforcement/KernelAccess.h"
#include "tests/enforcement/QxfileCommand.h"
#include "tests/support/AclFixtures.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

namespace {

using namespace qx::test;
using namespace qx::test::acl;
using Json = nlohmann::json;
using Names = std::set<std::string>;

// What a POSIX bit stands for among the extended ACL's permissions.
const Names kFileR = {"Read Data", "Read Attributes", "Read Extended Attributes",
                      "Read Permissions"};
const Names kFileW = {"Write Data", "Append Data", "Write Attributes", "Write Extended Attributes"};
const Names kFileX = {"Execute File"};
const Names kFolderR = {"List Folder Contents", "Read Attributes", "Read Extended Attributes",
                        "Read Permissions"};
const Names kFolderW = {"Create Files", "Create Folder", "Delete Subfolders and Files",
                        "Write Attributes", "Write Extended Attributes"};
const Names kFolderX = {"Traverse Folder"};

Names operator+(Names a, const Names& b) {
  a.insert(b.begin(), b.end());
  return a;
}

// One extended entry as `acl show --json` prints it: tag, kind:id, the permission names as a set,
// and the "Applies to" choices.
std::string entryText(const Json& entry) {
  std::ostringstream text;
  text << entry.value("tag", "?") << " " << entry["identity"].value("kind", "?") << ":"
       << entry["identity"]["id"].dump() << " {";
  Names names;
  for (const Json& name : entry["permissions"]) names.insert(name.get<std::string>());
  for (const std::string& name : names) text << name << ";";
  text << "}";
  for (const Json& choice : entry["appliesTo"]) text << " " << choice.get<std::string>();
  return text.str();
}
std::string entryText(const char* tag, const char* kind, unsigned id, const Names& names,
                      const std::vector<std::string>& appliesTo = {}) {
  Json entry = {{"tag", tag},
                {"identity", {{"kind", kind}, {"id", id}}},
                {"permissions", Json::array()},
                {"appliesTo", appliesTo}};
  for (const std::string& name : names) entry["permissions"].push_back(name);
  return entryText(entry);
}
std::multiset<std::string> entriesOf(const Json& document) {
  std::multiset<std::string> entries;
  for (const Json& entry : document["acl"]) entries.insert(entryText(entry));
  return entries;
}

// getfacl's own lines for the item's access (or default) ACL, without its "#effective:" comments;
// names come from the test users, as qxfile's do.
Json getfaclLines(const std::string& path, bool defaults) {
  std::istringstream text(KernelAccess::output(std::string("getfacl --omit-header -c -p ") +
                                               (defaults ? "-d '" : "-a '") + path + "'"));
  Json lines = Json::array();
  for (std::string line; std::getline(text, line);) {
    line = line.substr(0, line.find_first_of("\t #"));
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

class OutsideChange : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: items get owners, checks take users' ids";
    chmod(tree_.root().c_str(), 0755);
    users_ = KernelAccess::testUsers();
    for (const KernelAccess::User& user : users_) ASSERT_NE(user.uid, 0u) << "tests/support/users";
    std::optional<qxfile::Error> error = client_.connect();
    ASSERT_FALSE(error) << error->description;
  }

  // Writes `entries` through the service, keeping the item's owner, group and mode.
  void write(const std::string& path, const std::vector<Ace>& entries) {
    struct stat st {};
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    std::optional<qxfile::Error> error;
    ASSERT_TRUE(qxfile::BlockingClient(client_).setAcl(
        path, listing(entries, S_ISDIR(st.st_mode), st.st_mode & 0777, st.st_uid, st.st_gid),
        &error))
        << error->description << " " << error->recoverySuggestion.value_or("");
  }

  static Json show(const std::string& path) {
    QxfileCommand::Outcome run = QxfileCommand::run({"acl", "show", path, "--json"});
    EXPECT_EQ(run.status, 0) << run;
    return run.json();
  }

  // Every test user's read, write and execute: the kernel's are qxfile's.
  void expectAgreement(const std::string& path) {
    const bool folder = std::filesystem::is_directory(path);
    auto letters = [](unsigned bits) {
      return std::string(bits & KernelAccess::kRead ? "r" : "-") +
             (bits & KernelAccess::kWrite ? "w" : "-") +
             (bits & KernelAccess::kExecute ? "x" : "-");
    };
    std::string kernel, said;
    for (const KernelAccess::User& user : users_) {
      std::optional<qxfile::Error> error;
      const qxfile::EffectiveAccess access =
          qxfile::BlockingClient(client_).getAccess(path, qxfile::Identity::user(user.uid), &error);
      const unsigned granted = KernelAccess::operationsOf(grantedRights(access), folder);
      kernel += std::to_string(user.uid) + ":" + letters(KernelAccess::granted(path, folder, user));
      said += std::to_string(user.uid) + ":" + (error ? "error" : letters(granted));
    }
    EXPECT_EQ(said, kernel) << "qxfile against the kernel";
  }

  qx::test::ServiceSandbox sandbox_{QX_SERVICE_EXECUTABLE};
  qx::test::TempTree tree_{"qx-outside"};
  qxfile::Client client_;
  std::vector<KernelAccess::User> users_;
};

// An item given `written` through the service (nothing: qxfile never wrote it), then changed beside
// qxfile by `command` (run on the path) or by `attribute`, a file of tests/platform/xacl/attributes
// written as the item's attribute by `writer`.
struct Change {
  const char* name;
  bool folder;
  mode_t mode;
  gid_t group;
  std::vector<Ace> written;
  std::string command;
  const char* attribute;
  uid_t writer;
  const char* stored;  // what acl show says of the stored ACL afterwards
  std::vector<std::string> entries;
  const char* shownMode = nullptr;  // the mode acl show gives, where it matters
};

TEST_F(OutsideChange, ShowsWhatLinuxEnforcesAndAgreesWithTheKernel) {
  const std::vector<std::string> below = {"Child files", "Child folders", "All descendants"};
  // clang-format off
  const Change changes[] = {
      {"setfacl after a write: the translation", false, 0640, kTeam,
       {{kAllow, userUuid(kMember), kReadData}}, "setfacl -m u:2104:rx", nullptr, 0,
       "not in force", {entryText("allow", "user", kMember, kFileR),
                        entryText("allow", "user", kOther, kFileR + kFileX)}},
      {"a default entry added by setfacl applies below only", true, 0755, kOwnerGroup,
       {{kAllow, userUuid(kMember), kReadData | kExecute}}, "setfacl -d -m g:3110:rwx", nullptr, 0,
       "not in force",
       {entryText("allow", "user", kMember, kFolderR + kFolderX, {"This item"}),
        entryText("allow", "group", kTeam, kFolderR + kFolderW + kFolderX, below)}},
      {"chmod narrowing the mask: what is left; the group's bits are its entry's", false, 0664,
       kTeam, {{kAllow, userUuid(kMember), kReadData | kWriteData | kAppendData}}, "chmod g-w",
       nullptr, 0, "not in force", {entryText("allow", "user", kMember, kFileR)}, "0664"},
      {"a POSIX ACL on an item qxfile never wrote", false, 0600, kDenied,
       {}, "setfacl -m u:2105:rw,g:3102:r", nullptr, 0,
       "none", {entryText("allow", "user", kBlocked, kFileR + kFileW),
                entryText("allow", "group", kMemberGroup, kFileR)}},
      // With an empty mask the kernel does not consult the ACL: everyone but the owner and the
      // owning group's members gets the other bits, named or not.
      {"an empty mask leaves named entries to the other bits", false, 0604, kOwnerGroup,
       {}, "setfacl -m u:2104:-,g:3110:-", nullptr, 0,
       "none", {entryText("allow", "user", kOther, {}), entryText("allow", "group", kTeam, {})}},
      // Promises what Linux does not enforce until qxfile writes it again (below).
      {"an attribute of an earlier version, without a POSIX ACL", false, 0640, kTeam,
       {}, "", "earlier-version.attr", 0, "not in force", {}},
      // A user who may write a file may rewrite its user attributes: the denial claimed there is
      // not shown.
      {"a forged attribute gives way to what the kernel enforces", false, 0644, kOwnerGroup,
       {{kAllow, userUuid(kMember), kReadData | kWriteData | kAppendData}}, "", "forged.attr",
       kMember, "not in force", {entryText("allow", "user", kMember, kFileR + kFileW)}},
  };
  // clang-format on
  int n = 0;
  for (const Change& change : changes) {
    SCOPED_TRACE(change.name);
    const std::string name = "item" + std::to_string(n++), path = tree_.path(name);
    change.folder ? tree_.folder(name, 0700) : tree_.file(name, "contents");
    ASSERT_EQ(chown(path.c_str(), kOwner, change.group), 0);
    ASSERT_EQ(chmod(path.c_str(), change.mode), 0);
    if (!change.written.empty()) {
      write(path, change.written);
      EXPECT_EQ(show(path)["stored"], "current");
    }
    if (!change.command.empty()) {
      ASSERT_EQ(std::system((change.command + " '" + path + "'").c_str()), 0);
    }
    if (change.attribute) {
      const std::vector<uint8_t> bytes = qx::test::attributeFile(change.attribute).bytes;
      const KernelAccess::User writer =
          change.writer ? users_[change.writer - kOwner] : KernelAccess::User{0, 0, {0}};
      auto set = [&] {
        const int result =
            lsetxattr(path.c_str(), "user.qxfile.acl", bytes.data(), bytes.size(), 0);
        return result == 0 ? "set" : std::string(std::strerror(errno));
      };
      EXPECT_EQ(ChildProcess::runAs(writer.uid, writer.gid, set, 20, writer.groups), "set");
    }
    const Json shown = show(path);
    EXPECT_EQ(shown["stored"], change.stored) << shown.dump(2);
    EXPECT_EQ(entriesOf(shown),
              std::multiset<std::string>(change.entries.begin(), change.entries.end()))
        << shown.dump(2);
    if (change.shownMode) {
      EXPECT_EQ(shown["mode"], change.shownMode);
    }
    const Json posix = shown.value("posix", Json::object());
    EXPECT_EQ(posix.value("access", Json()), getfaclLines(path, false)) << shown.dump(2);
    EXPECT_EQ(posix.value("default", Json::array()), getfaclLines(path, true)) << shown.dump(2);
    expectAgreement(path);
  }

  // The earlier version's entries written again: in force and enforced.
  const std::string earlier = tree_.path("item5");
  ASSERT_EQ(KernelAccess::granted(earlier, false, users_[3]), 0u);
  write(earlier, {{kAllow, userUuid(kOther), kReadData | kExecute}});
  const Json after = show(earlier);
  EXPECT_EQ(after["stored"], "current") << after.dump(2);
  EXPECT_EQ(entriesOf(after), (std::multiset<std::string>{entryText(
                                  "allow", "user", kOther, {"Read Data", "Execute File"})}));
  EXPECT_EQ(KernelAccess::granted(earlier, false, users_[3]),
            KernelAccess::kRead | KernelAccess::kExecute);
  expectAgreement(earlier);
}

}  // namespace
