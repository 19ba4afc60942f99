// qxfile acl and access, end to end: what the command prints and what the
// items carry afterwards.
#include <sys/xattr.h>

#include "tests/client/cli/CliTestSupport.h"

namespace qxclitest {
namespace {

bool hasStoredAcl(const std::string& path) {
  return ::lgetxattr(path.c_str(), "user.qxfile.acl", nullptr, 0) > 0;
}

std::vector<std::string> strings(const Json& array) {
  std::vector<std::string> texts;
  for (const auto& item : array) texts.push_back(item.get<std::string>());
  return texts;
}

// The access leaves as "Name=0/1", in order.
std::vector<std::string> accessLeaves(const Json& document) {
  std::vector<std::string> leaves;
  for (const auto& group : document["access"]) {
    for (const auto& leaf : group["permissions"]) {
      leaves.push_back(leaf["name"].get<std::string>() + "=" +
                       (leaf["granted"].get<bool>() ? "1" : "0"));
    }
  }
  return leaves;
}

bool granted(const Json& document, const std::string& name) {
  for (const auto& group : document["access"]) {
    for (const auto& leaf : group["permissions"]) {
      if (leaf["name"] == name) return leaf["granted"].get<bool>();
    }
  }
  ADD_FAILURE() << "no leaf " << name;
  return false;
}

class AclCommand : public CommandLine {};

TEST_F(AclCommand, FolderEntriesRoundTripThroughAddAndRemove) {
  std::string folder = makeFolder(files_ / "shared", 0755);

  Outcome shown = qxfile({"acl", "show", folder, "--json"});
  ASSERT_EQ(shown.status, 0) << shown;
  Json listing = shown.json();
  EXPECT_EQ(listing["path"], folder);
  EXPECT_EQ(listing["kind"], "folder");
  EXPECT_EQ(listing["mode"], "0755");
  EXPECT_EQ(listing["owner"]["id"], ::geteuid());
  EXPECT_EQ(listing["owner"]["kind"], "user");
  EXPECT_TRUE(listing["acl"].empty());

  Outcome added = qxfile({"acl", "add", folder, "allow", "user:qxalice", "read,write", "--inherit",
                          "file,dir", "--json"});
  ASSERT_EQ(added.status, 0) << added;
  Json entry = added.json()["acl"][0];
  EXPECT_EQ(entry["tag"], "allow");
  EXPECT_EQ(entry["identity"]["name"], "qxalice");
  EXPECT_EQ(entry["identity"]["id"], kAlice);
  EXPECT_EQ(entry["identity"]["uuid"], "FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000899");
  EXPECT_EQ(
      strings(entry["permissions"]),
      (std::vector<std::string>{"List Folder Contents", "Traverse Folder", "Read Attributes",
                                "Read Extended Attributes", "Read Permissions", "Create Files",
                                "Create Folder", "Delete", "Delete Subfolders and Files",
                                "Write Attributes", "Write Extended Attributes"}));
  EXPECT_EQ(entry["rights"], 0xffe);
  EXPECT_EQ(
      strings(entry["appliesTo"]),
      (std::vector<std::string>{"This item", "Child files", "Child folders", "All descendants"}));
  EXPECT_EQ(entry["flags"], 0x60);
  EXPECT_FALSE(entry["inherited"].get<bool>());
  EXPECT_TRUE(hasStoredAcl(folder));

  // A deny entry in front, for a group, applying below the folder only.
  Outcome denied = qxfile({"acl", "add", folder, "deny", "group:qxstaff", "Delete,change_owner",
                           "--inherit", "only,file", "--at", "0", "--json"});
  ASSERT_EQ(denied.status, 0) << denied;
  Json acl = denied.json()["acl"];
  ASSERT_EQ(acl.size(), 2u);
  EXPECT_EQ(acl[0]["tag"], "deny");
  EXPECT_EQ(acl[0]["identity"]["kind"], "group");
  EXPECT_EQ(acl[0]["identity"]["name"], "qxstaff");
  EXPECT_EQ(strings(acl[0]["permissions"]), (std::vector<std::string>{"Delete", "Change Owner"}));
  EXPECT_EQ(strings(acl[0]["appliesTo"]), (std::vector<std::string>{"Child files"}));
  EXPECT_EQ(acl[1]["identity"]["name"], "qxalice");

  // The listing for people: one line an entry, names for identities.
  Outcome human = qxfile({"acl", "show", folder});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_NE(human.out.find(folder + " (folder)\n"), std::string::npos) << human.out;
  EXPECT_NE(human.out.find("mode:  0755 (rwxr-xr-x)"), std::string::npos) << human.out;
  EXPECT_NE(human.out.find("0: deny  group:qxstaff  Write: Delete; Administration: Change Owner"),
            std::string::npos)
      << human.out;
  EXPECT_NE(human.out.find("1: allow user:qxalice   Read: all; Write: all"), std::string::npos)
      << human.out;
  EXPECT_NE(human.out.find("applies to: This item, Child files, Child folders, All descendants"),
            std::string::npos)
      << human.out;

  Outcome byPosition = qxfile({"acl", "remove", folder, "1", "--json"});
  ASSERT_EQ(byPosition.status, 0) << byPosition;
  acl = byPosition.json()["acl"];
  ASSERT_EQ(acl.size(), 1u);
  EXPECT_EQ(acl[0]["identity"]["name"], "qxstaff");

  Outcome byIdentity = qxfile({"acl", "remove", folder, "group:qxstaff", "--json"});
  ASSERT_EQ(byIdentity.status, 0) << byIdentity;
  EXPECT_TRUE(byIdentity.json()["acl"].empty());
  EXPECT_FALSE(hasStoredAcl(folder)) << "an ACL without entries leaves no attribute";
}

TEST_F(AclCommand, FileEntriesUseTheFileNamesAndRefuseInheritance) {
  std::string file = makeFile(files_ / "report.txt", 10, 0644);

  Outcome added =
      qxfile({"acl", "add", file, "allow", "uid:2202", "read-data,execute,Append Data", "--json"});
  ASSERT_EQ(added.status, 0) << added;
  Json listing = added.json();
  EXPECT_EQ(listing["kind"], "file");
  Json entry = listing["acl"][0];
  EXPECT_EQ(entry["identity"]["name"], "qxbob");
  EXPECT_EQ(strings(entry["permissions"]),
            (std::vector<std::string>{"Read Data", "Execute File", "Append Data"}));
  EXPECT_EQ(entry["rights"], 0x2 | 0x8 | 0x20);
  EXPECT_TRUE(entry["appliesTo"].empty());

  Outcome inherit =
      qxfile({"acl", "add", file, "allow", "user:qxbob", "read", "--inherit", "file"});
  EXPECT_EQ(inherit.status, 2) << inherit;
  EXPECT_NE(inherit.err.find("--inherit applies to folders only"), std::string::npos) << inherit;

  Outcome folderOnly = qxfile({"acl", "add", file, "allow", "user:qxbob", "delete_child"});
  EXPECT_EQ(folderOnly.status, 2) << folderOnly;
  EXPECT_NE(folderOnly.err.find("does not apply to a file"), std::string::npos) << folderOnly;

  Outcome past = qxfile({"acl", "remove", file, "3"});
  EXPECT_EQ(past.status, 2) << past;
  EXPECT_NE(past.err.find("no ACL entry 3: the item has 1"), std::string::npos) << past;
  Outcome nobody = qxfile({"acl", "remove", file, "user:qxalice"});
  EXPECT_EQ(nobody.status, 2) << nobody;
  EXPECT_NE(nobody.err.find("no ACL entry for user:qxalice"), std::string::npos) << nobody;

  // Nothing of the refused commands reached the item.
  Outcome shown = qxfile({"acl", "show", file, "--json"});
  ASSERT_EQ(shown.status, 0) << shown;
  EXPECT_EQ(shown.json()["acl"].size(), 1u);
}

TEST_F(AclCommand, ModeOwnerAndGroupChangeTheItem) {
  std::string file = makeFile(files_ / "item", 0, 0644);

  Outcome mode = qxfile({"acl", "mode", file, "750", "--json"});
  ASSERT_EQ(mode.status, 0) << mode;
  EXPECT_EQ(mode.json()["mode"], "0750");
  EXPECT_EQ(modeOf(file), 0750u);
  Outcome human = qxfile({"acl", "mode", file, "0604"});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_NE(human.out.find("mode:  0604 (rw----r--)"), std::string::npos) << human.out;
  EXPECT_EQ(modeOf(file), 0604u);

  for (const char* bad : {"999", "1777", "rwx", "-1", ""}) {
    Outcome refused = qxfile({"acl", "mode", file, bad});
    EXPECT_EQ(refused.status, 2) << bad << "\n" << refused;
  }
  EXPECT_EQ(modeOf(file), 0604u);

  Outcome notAUser = qxfile({"acl", "owner", file, "group:qxstaff"});
  EXPECT_EQ(notAUser.status, 2) << notAUser;
  EXPECT_NE(notAUser.err.find("the owner must be a user"), std::string::npos) << notAUser;
  Outcome unknown = qxfile({"acl", "group", file, "nosuchgroup"});
  EXPECT_EQ(unknown.status, 2) << unknown;
  EXPECT_NE(unknown.err.find("unknown group \"nosuchgroup\""), std::string::npos) << unknown;

  if (!isRoot()) GTEST_SKIP() << "changing owners needs root";
  Outcome owner = qxfile({"acl", "owner", file, "qxalice", "--json"});
  ASSERT_EQ(owner.status, 0) << owner;
  EXPECT_EQ(owner.json()["owner"]["name"], "qxalice");
  Outcome group = qxfile({"acl", "group", file, "qxstaff"});
  ASSERT_EQ(group.status, 0) << group;
  EXPECT_NE(group.out.find("owner: user:qxalice\ngroup: group:qxstaff\n"), std::string::npos)
      << group.out;
  struct stat info {};
  ASSERT_EQ(::lstat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, kAlice);
  EXPECT_EQ(info.st_gid, kStaff);
  EXPECT_EQ(info.st_mode & 0777, 0604u) << "owner and group changes keep the mode";
}

TEST_F(AclCommand, UnknownIdsShowTheirUuids) {
  std::string file = makeFile(files_ / "item");
  Outcome added = qxfile({"acl", "add", file, "allow", "uid:4242", "read"});
  ASSERT_EQ(added.status, 0) << added;
  EXPECT_NE(added.out.find("allow user:FFFFEEEE-DDDD-CCCC-BBBB-AAAA00001092  Read: all"),
            std::string::npos)
      << added.out;
  Outcome json = qxfile({"acl", "show", file, "--json"});
  Json identity = json.json()["acl"][0]["identity"];
  EXPECT_EQ(identity["id"], 4242);
  EXPECT_TRUE(identity["name"].is_null());
}

TEST_F(AclCommand, EffectiveAccessFollowsModeAndEntries) {
  std::string file = makeFile(files_ / "notes", 1, 0640);
  std::string me = "uid:" + std::to_string(::geteuid());

  Outcome owner = qxfile({"access", file, me, "--json"});
  ASSERT_EQ(owner.status, 0) << owner;
  EXPECT_EQ(
      accessLeaves(owner.json()),
      (std::vector<std::string>{
          "Read Data=1", "Execute File=0", "Read Attributes=1", "Read Extended Attributes=1",
          "Read Permissions=1", "Write Data=1", "Append Data=1", "Delete=1", "Write Attributes=1",
          "Write Extended Attributes=1", "Change Permissions=1", "Change Owner=0"}));

  Outcome other = qxfile({"access", file, "qxbob", "--json"});
  ASSERT_EQ(other.status, 0) << other;
  Json access = other.json();
  EXPECT_EQ(access["identity"]["name"], "qxbob");
  EXPECT_FALSE(granted(access, "Read Data"));
  EXPECT_FALSE(granted(access, "Write Data"));
  EXPECT_TRUE(granted(access, "Read Attributes"));

  ASSERT_EQ(qxfile({"acl", "add", file, "allow", "user:qxbob", "read-data,write-data"}).status, 0);
  Outcome allowed = qxfile({"access", file, "user:qxbob", "--json"});
  ASSERT_EQ(allowed.status, 0) << allowed;
  EXPECT_TRUE(granted(allowed.json(), "Read Data"));
  EXPECT_TRUE(granted(allowed.json(), "Write Data"));
  EXPECT_FALSE(granted(allowed.json(), "Append Data"));

  // A deny entry for a group of hers, in front, wins over the mode bits.
  ASSERT_EQ(qxfile({"acl", "add", file, "deny", "group:qxstaff", "read-data", "--at", "0"}).status,
            0);
  Outcome human = qxfile({"access", file, "qxalice"});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_NE(
      human.out.find("Effective access of user:qxalice to " + file + "\nRead\n  no   Read Data\n"),
      std::string::npos)
      << human.out;
}

TEST_F(AclCommand, PropagationGivesTheFolderSettingsToEverythingBelow) {
  std::string top = makeFolder(files_ / "top", 0755);
  std::string sub = makeFolder(top + "/sub", 0700);
  std::string file = makeFile(sub + "/file", 3, 0600);
  ASSERT_EQ(
      qxfile({"acl", "add", top, "allow", "user:qxalice", "read", "--inherit", "file,dir"}).status,
      0);
  ASSERT_EQ(qxfile({"acl", "mode", top, "750"}).status, 0);

  Outcome propagated = qxfile({"propagate", top, "--json"});
  ASSERT_EQ(propagated.status, 0) << propagated;
  Json result = propagated.json();
  EXPECT_EQ(result["path"], top);
  EXPECT_EQ(result["aclEntries"], 1);
  EXPECT_EQ(result["mode"], "0750");
  EXPECT_EQ(modeOf(sub), 0750u);
  EXPECT_EQ(modeOf(file), 0750u);

  Json folderEntry = qxfile({"acl", "show", sub, "--json"}).json()["acl"][0];
  EXPECT_EQ(folderEntry["identity"]["name"], "qxalice");
  EXPECT_EQ(folderEntry["permissions"][0], "List Folder Contents");
  Json fileEntry = qxfile({"acl", "show", file, "--json"}).json()["acl"][0];
  EXPECT_EQ(fileEntry["identity"]["name"], "qxalice");
  EXPECT_EQ(strings(fileEntry["permissions"]),
            (std::vector<std::string>{"Read Data", "Execute File", "Read Attributes",
                                      "Read Extended Attributes", "Read Permissions"}));

  Outcome human = qxfile({"propagate", top});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_NE(human.out.find("Propagated to everything below " + top + ":\n  1 ACL entry"),
            std::string::npos)
      << human.out;

  Outcome notAFolder = qxfile({"propagate", file, "--json"});
  EXPECT_EQ(notAFolder.status, 1) << notAFolder;
  Json error = notAFolder.json()["error"];
  EXPECT_EQ(error["code"], ENOTDIR);
  EXPECT_EQ(error["description"],
            "Error propagating file Access Control List, POSIX permissions, owner and group");
}

}  // namespace
}  // namespace qxclitest
