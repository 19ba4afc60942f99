// What qxfile shows after the item's POSIX ACL, mode or stored attribute was
// changed behind its back, and that its effective access then agrees with
// the kernel.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <span>
#include <sstream>
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

using namespace qx::test::acl;
using qx::test::KernelAccess;
using qx::test::QxfileCommand;
using Json = nlohmann::json;
using Names = std::set<std::string>;

constexpr uid_t kOwner = 2101, kMember = 2102, kOther = 2104, kBlocked = 2105;
constexpr gid_t kOwnerGroup = 3101, kMemberGroup = 3102, kTeam = 3110, kDenied = 3111;

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

// The attribute bytes of an extended ACL in the stored layout: big-endian
// magic, count and flags, then per entry the qualifier, the flags word (tag
// in the low bits) and the rights.
std::string storedLayout(const std::vector<Ace>& entries) {
  std::string bytes;
  auto word = [&](uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(char(value >> shift));
  };
  word(0x012cc16d);
  word(static_cast<uint32_t>(entries.size()));
  word(0);
  for (const Ace& ace : entries) {
    bytes.append(reinterpret_cast<const char*>(ace.who->bytes().data()), 16);
    word(static_cast<uint32_t>(ace.tag) | ace.flags);
    word(ace.rights);
  }
  return bytes;
}

// One extended entry as `acl show --json` prints it: tag, kind:id, the
// permission names as a set, and the "Applies to" choices.
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

// getfacl's own lines for the item's access (or default) ACL, without its
// "#effective:" comments.
std::vector<std::string> getfaclLines(const std::string& path, bool defaults) {
  const std::string command = std::string("getfacl --omit-header --numeric -c ") +
                              (defaults ? "-d " : "-a ") + "'" + path + "' 2>/dev/null";
  std::vector<std::string> lines;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return lines;
  char buffer[512];
  while (fgets(buffer, sizeof buffer, pipe)) {
    std::string line = buffer;
    line = line.substr(0, line.find_first_of("\t #\n"));
    if (!line.empty()) lines.push_back(line);
  }
  pclose(pipe);
  return lines;
}

// The posix lines qxfile prints, with names turned back into ids so that
// they compare with getfacl --numeric.
std::vector<std::string> posixLines(const Json& lines) {
  const std::pair<const char*, const char*> users[] = {{"qxowner", "2101"},
                                                       {"qxmember", "2102"},
                                                       {"qxprimary", "2103"},
                                                       {"qxother", "2104"},
                                                       {"qxblocked", "2105"}};
  const std::pair<const char*, const char*> groups[] = {{"qxowner", "3101"}, {"qxmember", "3102"},
                                                        {"qxother", "3104"}, {"qxblocked", "3105"},
                                                        {"qxteam", "3110"},  {"qxdenied", "3111"}};
  std::vector<std::string> result;
  if (!lines.is_array()) return {"not a list of lines: " + lines.dump()};
  for (const Json& line : lines) {
    std::string text = line.get<std::string>();
    const bool group = text.rfind("group:", 0) == 0;
    for (auto [name, id] : group ? std::span<const std::pair<const char*, const char*>>(groups)
                                 : std::span<const std::pair<const char*, const char*>>(users)) {
      const std::string from = std::string(":") + name + ":";
      if (auto at = text.find(from); at != std::string::npos) {
        text.replace(at, from.size(), std::string(":") + id + ":");
      }
    }
    result.push_back(text);
  }
  return result;
}

int shell(const std::string& command) {
  return std::system(command.c_str());
}

class OutsideChange : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: items get owners, checks take users' ids";
    chmod(tree_.root().c_str(), 0755);
    for (const char* name : {"qxowner", "qxmember", "qxprimary", "qxother", "qxblocked"}) {
      users_.push_back(KernelAccess::userNamed(name));
      ASSERT_NE(users_.back().uid, 0u) << name;
    }
    std::optional<qxfile::Error> error = client_.connect();
    ASSERT_FALSE(error) << error->description;
  }

  std::string item(const std::string& name, bool folder, mode_t mode, gid_t group) {
    if (folder) {
      tree_.folder(name, 0700);
    } else {
      tree_.file(name, "contents");
    }
    const std::string path = tree_.path(name);
    EXPECT_EQ(chown(path.c_str(), kOwner, group), 0);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
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

  // Every test user's read, write and execute: the kernel's and qxfile's.
  std::string accessTable(const std::string& path) {
    struct stat st {};
    lstat(path.c_str(), &st);
    const bool folder = S_ISDIR(st.st_mode);
    std::string kernel, said;
    for (const KernelAccess::User& user : users_) {
      std::optional<qxfile::Error> error;
      const qxfile::EffectiveAccess access =
          qxfile::BlockingClient(client_).getAccess(path, qxfile::Identity::user(user.uid), &error);
      const unsigned granted = KernelAccess::operationsOf(grantedRights(access), folder);
      auto letters = [](unsigned bits) {
        return std::string(bits & KernelAccess::kRead ? "r" : "-") +
               (bits & KernelAccess::kWrite ? "w" : "-") +
               (bits & KernelAccess::kExecute ? "x" : "-");
      };
      kernel +=
          std::to_string(user.uid) + ":" + letters(KernelAccess::granted(path, folder, user)) + " ";
      said += std::to_string(user.uid) + ":" + (error ? "error" : letters(granted)) + " ";
    }
    return "kernel " + kernel + "\nqxfile " + said;
  }
  void expectAgreement(const std::string& path) {
    const std::string table = accessTable(path);
    const auto split = table.find('\n');
    EXPECT_EQ(table.substr(7, split - 7), table.substr(split + 8)) << table;
  }

  void expectPosixAsGetfacl(const Json& document, const std::string& path) {
    const Json posix = document.value("posix", Json::object());
    EXPECT_EQ(posixLines(posix.value("access", Json())), getfaclLines(path, false))
        << document.dump(2);
    EXPECT_EQ(posixLines(posix.value("default", Json::array())), getfaclLines(path, true))
        << document.dump(2);
  }

  qx::test::ServiceSandbox sandbox_{QX_SERVICE_EXECUTABLE};
  qx::test::TempTree tree_{"qx-outside"};
  qxfile::Client client_;
  std::vector<KernelAccess::User> users_;
};

TEST_F(OutsideChange, SetfaclAfterAWriteShowsTheTranslation) {
  const std::string file = item("file", false, 0640, kTeam);
  write(file, {{kAllow, userUuid(kMember), kReadData}});
  Json before = show(file);
  EXPECT_EQ(before["stored"], "current") << before.dump(2);
  EXPECT_EQ(entriesOf(before),
            (std::multiset<std::string>{entryText("allow", "user", kMember, {"Read Data"})}));
  expectPosixAsGetfacl(before, file);
  expectAgreement(file);

  ASSERT_EQ(shell("setfacl -m u:2104:rx '" + file + "'"), 0);
  Json after = show(file);
  EXPECT_EQ(after["stored"], "not in force") << after.dump(2);
  EXPECT_EQ(entriesOf(after),
            (std::multiset<std::string>{entryText("allow", "user", kMember, kFileR),
                                        entryText("allow", "user", kOther, kFileR + kFileX)}))
      << after.dump(2);
  expectPosixAsGetfacl(after, file);
  expectAgreement(file);
}

TEST_F(OutsideChange, DefaultEntryAddedBySetfaclShowsAsInheritedOnly) {
  const std::string folder = item("folder", true, 0755, kOwnerGroup);
  write(folder, {{kAllow, userUuid(kMember), kReadData | kExecute}});
  EXPECT_EQ(show(folder)["stored"], "current");

  ASSERT_EQ(shell("setfacl -d -m g:3110:rwx '" + folder + "'"), 0);
  Json after = show(folder);
  EXPECT_EQ(after["stored"], "not in force") << after.dump(2);
  const std::vector<std::string> below = {"Child files", "Child folders", "All descendants"};
  EXPECT_EQ(entriesOf(after),
            (std::multiset<std::string>{
                entryText("allow", "user", kMember, kFolderR + kFolderX, {"This item"}),
                entryText("allow", "group", kTeam, kFolderR + kFolderW + kFolderX, below)}))
      << after.dump(2);
  expectPosixAsGetfacl(after, folder);
  expectAgreement(folder);
}

TEST_F(OutsideChange, ChmodThatNarrowsTheMaskShowsWhatIsLeft) {
  const std::string file = item("file", false, 0664, kTeam);
  write(file, {{kAllow, userUuid(kMember), kReadData | kWriteData | kAppendData}});
  EXPECT_EQ(show(file)["stored"], "current");
  expectAgreement(file);

  ASSERT_EQ(shell("chmod g-w '" + file + "'"), 0);
  Json after = show(file);
  EXPECT_EQ(after["stored"], "not in force") << after.dump(2);
  EXPECT_EQ(entriesOf(after),
            (std::multiset<std::string>{entryText("allow", "user", kMember, kFileR)}))
      << after.dump(2);
  EXPECT_EQ(after["mode"], "0664") << "the owning group's bits are the ACL's group entry";
  expectPosixAsGetfacl(after, file);
  expectAgreement(file);
}

TEST_F(OutsideChange, PosixAclOnAnItemQxfileNeverWroteIsTranslated) {
  const std::string file = item("file", false, 0600, kDenied);
  ASSERT_EQ(shell("setfacl -m u:2105:rw,g:3102:r '" + file + "'"), 0);
  Json shown = show(file);
  EXPECT_EQ(shown["stored"], "none") << shown.dump(2);
  EXPECT_EQ(entriesOf(shown),
            (std::multiset<std::string>{entryText("allow", "user", kBlocked, kFileR + kFileW),
                                        entryText("allow", "group", kMemberGroup, kFileR)}))
      << shown.dump(2);
  expectPosixAsGetfacl(shown, file);
  expectAgreement(file);
}

// With an empty mask the kernel does not consult the ACL: everyone but the
// owner and the owning group's members gets the other bits, named or not.
TEST_F(OutsideChange, EmptyMaskLeavesNamedEntriesToTheOtherBits) {
  const std::string file = item("file", false, 0604, kOwnerGroup);
  ASSERT_EQ(shell("setfacl -m u:2104:-,g:3110:- '" + file + "'"), 0);
  EXPECT_EQ(KernelAccess::granted(file, false, users_[3]), KernelAccess::kRead);
  expectAgreement(file);
}

// An attribute as earlier versions wrote it, on an item without a POSIX ACL,
// promises what Linux does not enforce until qxfile writes it again.
TEST_F(OutsideChange, AttributeOfAnEarlierVersionIsEnforcedOnceWrittenAgain) {
  const std::string file = item("file", false, 0640, kTeam);
  const std::vector<Ace> entries = {{kAllow, userUuid(kOther), kReadData | kExecute}};
  const std::string bytes = storedLayout(entries);
  ASSERT_EQ(lsetxattr(file.c_str(), "user.qxfile.acl", bytes.data(), bytes.size(), 0), 0);
  Json before = show(file);
  EXPECT_EQ(before["stored"], "not in force") << before.dump(2);
  EXPECT_TRUE(before["acl"].empty()) << before.dump(2);
  expectAgreement(file);
  EXPECT_EQ(KernelAccess::granted(file, false, users_[3]), 0u);

  write(file, entries);
  Json after = show(file);
  EXPECT_EQ(after["stored"], "current") << after.dump(2);
  EXPECT_EQ(entriesOf(after), (std::multiset<std::string>{entryText(
                                  "allow", "user", kOther, {"Read Data", "Execute File"})}));
  EXPECT_EQ(KernelAccess::granted(file, false, users_[3]),
            KernelAccess::kRead | KernelAccess::kExecute);
  expectAgreement(file);
}

// A user who may write a file may rewrite its user attributes: a denial
// claimed there is not shown, and effective access follows the kernel.
TEST_F(OutsideChange, ForgedAttributeGivesWayToWhatTheKernelEnforces) {
  const std::string file = item("file", false, 0644, kOwnerGroup);
  const std::vector<Ace> written = {
      {kAllow, userUuid(kMember), kReadData | kWriteData | kAppendData}};
  write(file, written);
  EXPECT_EQ(show(file)["stored"], "current");

  std::vector<Ace> forged = written;
  forged.insert(forged.begin(), {kDeny, userUuid(kOther), kReadData});
  const std::string bytes = storedLayout(forged);
  EXPECT_EQ(KernelAccess::runAs(users_[1],
                                [&] {
                                  return lsetxattr(file.c_str(), "user.qxfile.acl", bytes.data(),
                                                   bytes.size(), 0) == 0
                                             ? 0
                                             : errno;
                                }),
            0)
      << "the member may write the file and so its user attributes";

  Json shown = show(file);
  EXPECT_EQ(shown["stored"], "not in force") << shown.dump(2);
  EXPECT_EQ(entriesOf(shown),
            (std::multiset<std::string>{entryText("allow", "user", kMember, kFileR + kFileW)}))
      << shown.dump(2);
  EXPECT_EQ(KernelAccess::granted(file, false, users_[3]), KernelAccess::kRead);
  expectAgreement(file);
}

}  // namespace
