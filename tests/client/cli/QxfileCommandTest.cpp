// The qxfile command end to end: the real binary against the real service, with the users and
// groups of nss/; what it prints, how it exits, and what the items carry afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "qxfile/Client.h"
#include "tests/enforcement/QxfileCommand.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

namespace {

using namespace std::chrono_literals;
using qx::test::eventually;
using Json = nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

// A user of nss/.
constexpr uid_t kAlice = 2201;

using qx::test::QxfileCommand;
using Outcome = QxfileCommand::Outcome;

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : mode_t(-1);
}

// Each test has a service of its own in a private socket folder, started by the first qxfile that
// needs it and gone soon after the last one.
class Qxfile : public ::testing::Test {
 protected:
  // Open to the test users: effective access looks at the folders above an item.
  void SetUp() override { chmod(tree_.root().c_str(), 0755); }
  void TearDown() override {
    EXPECT_TRUE(sandbox_.allGoneWithin(15s)) << "the service kept running without clients";
  }

  static Outcome qxfile(std::vector<std::string> args) {
    return QxfileCommand::run(std::move(args));
  }

  // Runs qxfile with its standard output and error on a terminal; `out` is everything the terminal
  // received.
  static Outcome qxfileOnTerminal(std::vector<std::string> args) {
    args.insert(args.begin(), QX_CLI_EXECUTABLE);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int terminal = -1;
    pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
      execv(argv[0], argv.data());
      _exit(127);
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(terminal, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR);) {
      if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
    }
    close(terminal);  // read fails with EIO once the command has closed the terminal
    return {qx::test::ChildProcess::statusOf(pid), text, ""};
  }

  std::string file(const std::string& name, std::size_t bytes = 0, mode_t mode = 0644) const {
    tree_.file(name, std::string(bytes, 'x'));
    chmod(tree_.path(name).c_str(), mode);
    return tree_.path(name);
  }
  std::string folder(const std::string& name, mode_t mode = 0755) const {
    tree_.folder(name, mode);
    return tree_.path(name);
  }

  // Runs qxfile and, once it has its handler for SIGINT, interrupts it: the command then answers
  // the operation's next question with "stop". The service is held stopped until then (a client of
  // the test keeps it running), so that the first report or question is the one answered.
  Outcome interrupted(const std::vector<std::string>& args) {
    qxfile::Client keeper;
    EXPECT_FALSE(keeper.connect());
    const pid_t service = sandbox_.services().at(0);
    kill(service, SIGSTOP);
    return QxfileCommand::run(args, [&](pid_t pid) {
      const std::string proc = "/proc/" + std::to_string(pid);
      auto catchesInterrupt = [&] {
        std::error_code ignored;
        if (std::filesystem::read_symlink(proc + "/exe", ignored) != QX_CLI_EXECUTABLE) {
          return false;  // not yet past exec
        }
        std::ifstream status(proc + "/status");
        for (std::string line; std::getline(status, line);) {
          if (line.rfind("SigCgt:", 0) == 0)
            return ((std::stoull(line.substr(7), nullptr, 16) >> 1) & 1) != 0;
        }
        return false;
      };
      EXPECT_TRUE(eventually(catchesInterrupt)) << "qxfile never caught SIGINT";
      kill(pid, SIGINT);
      kill(service, SIGCONT);
    });
  }

  qx::test::ServiceSandbox sandbox_{QX_SERVICE_EXECUTABLE};
  qx::test::TempTree tree_{"qx-cli"};
};

Json itemAt(const Json& items, const std::string& path) {
  for (const auto& item : items) {
    if (item["path"] == path) return item;
  }
  ADD_FAILURE() << "no item " << path << " in " << items.dump();
  return Json();
}

// The words of `line`, with ITEM standing for `item` and EMPTY for an empty argument.
std::vector<std::string> words(const std::string& line, const std::string& item = "") {
  std::vector<std::string> args;
  std::istringstream in(line);
  for (std::string word; in >> word;) {
    args.push_back(word == "ITEM" ? item : word == "EMPTY" ? "" : word);
  }
  return args;
}

TEST_F(Qxfile, HelpAndWrongCommandLines) {
  Outcome help = qxfile({});
  EXPECT_EQ(help.status, 0) << help;
  EXPECT_EQ(qxfile({"--help"}).out, help.out);
  const std::string aclHelp = qxfile({"acl", "--help"}).out;
  for (const auto& [text, commands] : {std::pair{help.out, "acl access propagate size ls rename"},
                                       std::pair{aclHelp, "show add remove owner group mode"}}) {
    for (const std::string& command : words(commands))
      EXPECT_THAT(text, HasSubstr("\n  " + command + " "));
  }
  EXPECT_EQ(qxfile({"--version"}).out.rfind("qxfile ", 0), 0u);
  for (const char* command : {"acl show", "acl add", "acl remove", "acl owner", "acl group",
                              "acl mode", "access", "propagate", "size", "ls", "rename"}) {
    Outcome run = qxfile(words(command + std::string(" --help")));
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_THAT(run.out, HasSubstr("--json")) << command;
  }

  // data/wrong-command-lines.txt: each exits with 2 and says why.
  const std::string item = file("item");
  std::ifstream rows(QX_SOURCE_DIR "/tests/client/cli/data/wrong-command-lines.txt");
  int count = 0;
  for (std::string row; std::getline(rows, row);) {
    if (row.empty() || row[0] == '#') continue;
    if (row == "service") {
      EXPECT_EQ(modeOf(item), 0644u);
      EXPECT_TRUE(sandbox_.services().empty()) << "a wrong command line never needs the service";
      continue;
    }
    const std::size_t arrow = row.find(" => ");
    std::string reason = arrow == std::string::npos ? "" : row.substr(arrow + 4);
    if (reason.ends_with("\\n")) reason.replace(reason.size() - 2, 2, "\n");
    Outcome run = qxfile(words(row.substr(0, arrow), item));
    EXPECT_EQ(run.status, 2) << row << "\n" << run;
    EXPECT_FALSE(run.err.empty()) << row;
    EXPECT_THAT(run.err, HasSubstr(reason)) << row << "\n" << run;
    ++count;
  }
  EXPECT_EQ(count, 28);
}

TEST_F(Qxfile, OperationErrorsExitWithOneAndPrintDescriptionAndSuggestion) {
  const std::string missing = tree_.path("missing");
  Outcome run = qxfile({"acl", "show", missing});
  EXPECT_EQ(run.status, 1) << run;
  EXPECT_TRUE(run.out.empty());
  EXPECT_EQ(run.err,
            "qxfile: Error retrieving file Access Control List entries\n"
            "  Couldn't retrieve file stat for file at path \"" +
                missing + "\". No such file or directory\n");

  Outcome json = qxfile({"access", missing, "qxbob", "--json"});
  EXPECT_EQ(json.status, 1) << json;
  Json document = json.json();
  EXPECT_EQ(document["path"], missing);
  EXPECT_EQ(document["identity"]["name"], "qxbob");
  EXPECT_EQ(document["error"]["domain"], "NSPOSIXErrorDomain");
  EXPECT_EQ(document["error"]["description"], "Error retrieving effective file access permissions");
  EXPECT_THAT(document["error"]["suggestion"].get<std::string>(), HasSubstr(missing));
  EXPECT_THAT(json.err,
              HasSubstr("qxfile: Error retrieving effective file access permissions\n  "));

  // A file cannot be propagated to: the failure comes from the propagation, not the reading.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"propagate", file("file")}, {"size", missing}}) {
    Outcome failed = qxfile(args);
    EXPECT_EQ(failed.status, 1) << failed;
    EXPECT_THAT(failed.err, HasSubstr("\n  ")) << "a suggestion line\n" << failed;
  }
  EXPECT_EQ(qxfile({"size", missing, "--json"}).json()["error"]["code"], ENOENT);

  ASSERT_TRUE(sandbox_.allGoneWithin(15s));
  setenv("QXFILE_SERVICE_PATH", "/nonexistent/qxfile-service", 1);
  Outcome noService = qxfile({"acl", "show", tree_.root()});
  unsetenv("QXFILE_SERVICE_PATH");
  EXPECT_EQ(noService.status, 1) << noService;
  EXPECT_EQ(noService.err.rfind("qxfile: ", 0), 0u) << noService;
}

// Output that cannot be written is a failure, also for a command that has nothing else to report.
TEST_F(Qxfile, OutputThatCannotBeWrittenFailsTheCommand) {
  const std::string item = file("item");
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--help"}, {"acl", "show", item}, {"size", item, "--json"}}) {
    Outcome run = QxfileCommand::run(args, {}, "/dev/full");
    EXPECT_EQ(run.status, 1) << args.front() << "\n" << run;
    EXPECT_THAT(run.err, HasSubstr("qxfile: couldn't write the output")) << run;
  }
  // A command that failed already keeps its status.
  Outcome wrong = QxfileCommand::run({"bogus"}, {}, "/dev/full");
  EXPECT_EQ(wrong.status, 2) << wrong;
}

TEST_F(Qxfile, AclEntriesRoundTripThroughAddAndRemove) {
  std::string shared = folder("shared");
  Json listing = qxfile({"acl", "show", shared, "--json"}).json();
  EXPECT_EQ(listing["kind"], "folder");
  EXPECT_EQ(listing["owner"]["id"], geteuid());

  Outcome added = qxfile({"acl", "add", shared, "allow", "user:qxalice", "read,write", "--inherit",
                          "file,dir", "--json"});
  ASSERT_EQ(added.status, 0) << added;
  Json entry = added.json()["acl"][0];
  EXPECT_EQ(entry["tag"], "allow");
  EXPECT_EQ(entry["identity"], (Json{{"kind", "user"},
                                     {"id", kAlice},
                                     {"name", "qxalice"},
                                     {"uuid", "FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000899"}}));
  EXPECT_EQ(entry["rights"], 0xffe);
  EXPECT_EQ(entry["appliesTo"],
            Json::array({"This item", "Child files", "Child folders", "All descendants"}));
  EXPECT_EQ(entry["flags"], 0x60);

  Outcome denied = qxfile({"acl", "add", shared, "deny", "group:qxstaff", "Delete,change_owner",
                           "--inherit", "only,file", "--at", "0", "--json"});
  Json acl = denied.json()["acl"];
  ASSERT_EQ(acl.size(), 2u) << denied;
  EXPECT_EQ(acl[0]["identity"]["kind"], "group");
  EXPECT_EQ(acl[0]["permissions"], Json::array({"Delete", "Change Owner"}));
  EXPECT_EQ(acl[0]["appliesTo"], Json::array({"Child files"}));
  EXPECT_EQ(acl[1]["identity"]["name"], "qxalice");

  Outcome human = qxfile({"acl", "show", shared});
  for (const char* line : {" (folder)\n", "mode:  0755 (rwxr-xr-x)",
                           "0: deny  group:qxstaff  Write: Delete; Administration: Change Owner",
                           "1: allow user:qxalice   Read: all; Write: all",
                           "applies to: This item, Child files, Child folders, All descendants"}) {
    EXPECT_THAT(human.out, HasSubstr(line));
  }
  EXPECT_EQ(qxfile({"acl", "remove", shared, "1", "--json"}).json()["acl"].size(), 1u);
  EXPECT_TRUE(qxfile({"acl", "remove", shared, "group:qxstaff", "--json"}).json()["acl"].empty());

  // Files take the file names; unknown ids show their UUIDs.
  std::string report = file("report.txt", 10);
  Json fileEntry =
      qxfile({"acl", "add", report, "allow", "uid:2202", "read-data,execute,Append Data", "--json"})
          .json()["acl"][0];
  EXPECT_EQ(fileEntry["identity"]["name"], "qxbob");
  EXPECT_EQ(fileEntry["permissions"], Json::array({"Read Data", "Execute File", "Append Data"}));
  EXPECT_EQ(fileEntry["rights"], 0x2 | 0x8 | 0x20);
  Outcome unknown = qxfile({"acl", "add", report, "allow", "uid:4242", "read"});
  EXPECT_THAT(unknown.out, HasSubstr("allow user:FFFFEEEE-DDDD-CCCC-BBBB-AAAA00001092  Read: all"));
  Json identity = qxfile({"acl", "show", report, "--json"}).json()["acl"][1]["identity"];
  EXPECT_EQ(identity["id"], 4242);
  EXPECT_TRUE(identity["name"].is_null());
}

TEST_F(Qxfile, ModeOwnerAndGroupChangeTheItem) {
  std::string item = file("item");
  EXPECT_EQ(qxfile({"acl", "mode", item, "750", "--json"}).json()["mode"], "0750");
  EXPECT_THAT(qxfile({"acl", "mode", item, "0604"}).out, HasSubstr("mode:  0604 (rw----r--)"));

  if (geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  EXPECT_EQ(qxfile({"acl", "owner", item, "qxalice", "--json"}).json()["owner"]["name"], "qxalice");
  EXPECT_THAT(qxfile({"acl", "group", item, "qxstaff"}).out,
              HasSubstr("owner: user:qxalice\ngroup: group:qxstaff\n"));
}

TEST_F(Qxfile, EffectiveAccessAsJsonAndAsText) {
  std::string notes = file("notes", 1, 0640);
  Outcome owner = qxfile({"access", notes, "uid:" + std::to_string(geteuid()), "--json"});
  ASSERT_EQ(owner.status, 0) << owner;
  Json groups = owner.json()["access"];
  ASSERT_EQ(groups.size(), 3u) << groups.dump();
  EXPECT_EQ(groups[0]["permissions"][1],
            (Json{{"name", "Execute File"}, {"value", 8}, {"granted", false}, {"enforced", true}}));
  // A user named bare.
  Outcome human = qxfile({"access", notes, "qxalice"});
  EXPECT_THAT(human.out,
              HasSubstr("Effective access of user:qxalice to " + notes +
                        "\n(K: the kernel enforces this answer)\nRead\n  no  K  Read Data\n"));
}

TEST_F(Qxfile, PropagationReportsWhatItGaveEverythingBelow) {
  std::string top = folder("top");
  ASSERT_EQ(
      qxfile({"acl", "add", top, "allow", "user:qxalice", "read", "--inherit", "file,dir"}).status,
      0);
  Json result = qxfile({"propagate", top, "--json"}).json();
  EXPECT_EQ(result["path"], top);
  EXPECT_EQ(result["aclEntries"], 1);
  EXPECT_EQ(result["mode"], "0755");
  EXPECT_THAT(qxfile({"propagate", top}).out,
              HasSubstr("Propagated to everything below " + top + ":\n  1 ACL entry"));
}

TEST_F(Qxfile, SizeTotalsInThePathsOrderAndEveryFolderWithAll) {
  std::string top = folder("top");
  file("top/a", 100);
  std::string sub = folder("top/sub");
  file("top/sub/b", 2000);
  std::string empty = folder("top/empty");
  Json totals = qxfile({"size", top, "--json"}).json();
  EXPECT_EQ(totals["paths"], Json::array({top}));
  EXPECT_EQ(totals["total"], (Json{{"size", 2100}, {"final", true}}));
  EXPECT_EQ(totals["items"].size(), 1u);
  EXPECT_FALSE(totals["stopped"].get<bool>());
  // --all: every folder, each after the folders inside it, as du prints them.
  Json items = qxfile({"size", "--all", top, "--json"}).json()["items"];
  ASSERT_EQ(items.size(), 3u) << items.dump();
  EXPECT_EQ(items[0]["path"], empty);
  EXPECT_EQ(items[0]["indexPath"], Json::array({1}));
  EXPECT_EQ(items[2]["path"], top);
  EXPECT_EQ(qxfile({"size", "-a", top}).out, "    0 B      0 bytes  " + empty + "\n" +
                                                 "2.0 KiB  2,000 bytes  " + sub + "\n" +
                                                 "2.1 KiB  2,100 bytes  " + top + "\n");

  std::string b = folder("b");
  for (int i = 0; i < 250; ++i) file("b/f" + std::to_string(i), 4096);
  std::string a = file("a", 1500000);
  Json two = qxfile({"size", b, a, "--json"}).json();
  EXPECT_EQ(two["paths"], Json::array({b, a})) << "as asked";
  EXPECT_EQ(two["items"][0]["path"], a);
  EXPECT_EQ(two["items"][0]["folder"], false);
  EXPECT_EQ(qxfile({"size", b, a}).out, "   1.4 MiB  1,500,000 bytes  " + a + "\n" +
                                            "1000.0 KiB  1,024,000 bytes  " + b + "\n" +
                                            "   2.4 MiB  2,524,000 bytes  total\n");
}

TEST_F(Qxfile, SizeShowsProgressOnATerminalAndStopsOnCtrlC) {
  std::string many = folder("many");
  for (int i = 0; i < 300; ++i) file("many/f" + std::to_string(i), 10);
  Outcome terminal = qxfileOnTerminal({"size", many});
  ASSERT_EQ(terminal.status, 0) << terminal;
  EXPECT_THAT(terminal.out, HasSubstr("\r\033[KCounting..."));
  EXPECT_THAT(terminal.out, HasSubstr("\r\033[K2.9 KiB  3,000 bytes  " + many));
  EXPECT_THAT(qxfileOnTerminal({"size", many, "--json"}).out, Not(HasSubstr("Counting")));

  for (int i = 300; i < 1000; ++i) file("many/f" + std::to_string(i), 10);
  std::string later = folder("zz");
  file("zz/file", 5);
  Outcome run = interrupted({"size", later, many, "--json"});
  EXPECT_EQ(run.status, 130) << run;
  Json totals = run.json();
  EXPECT_TRUE(totals["stopped"].get<bool>());
  const int64_t partial = totals["total"]["size"];
  EXPECT_LT(partial, 10000) << "stopped at the first report";
  EXPECT_EQ(itemAt(totals["items"], many)["size"], partial);
  EXPECT_TRUE(itemAt(totals["items"], later)["size"].is_null());
  Outcome human = interrupted({"size", later, many});
  EXPECT_EQ(human.status, 130) << human;
  EXPECT_THAT(human.out, HasSubstr("      -      -        " + later + "  (not reached)\n"));
  EXPECT_THAT(human.out, HasSubstr(" total\nStopped with Ctrl-C: the totals are partial.\n"));
}

TEST_F(Qxfile, ListingLevelsFollowThePositionsGiven) {
  std::string top = folder("top");
  for (const char* name : {"top/b", "top/A", "top/a"}) file(name);
  std::string sub = folder("top/sub");
  file("top/sub/inner");
  Json listing = qxfile({"ls", top, "3", "--json"}).json();
  EXPECT_EQ(listing["indexPath"], Json::array({3}));
  ASSERT_EQ(listing["levels"].size(), 2u);
  EXPECT_EQ(listing["levels"][0]["folder"], top);
  EXPECT_EQ(listing["levels"][0]["entries"][3]["folder"], true);
  EXPECT_EQ(listing["levels"][1]["entries"][0]["path"], sub + "/inner");
  EXPECT_EQ(qxfile({"ls", top, "3"}).out, top + " (level 0, 4 entries)\n     0  " + top +
                                              "/A\n     1  " + top + "/a\n     2  " + top +
                                              "/b\n     3  " + sub + "/\n\n" + sub +
                                              " (level 1, 1 entry)\n     0  " + sub + "/inner\n");
  Outcome past = qxfile({"ls", sub, "1"});
  EXPECT_EQ(past.status, 1) << past;
  EXPECT_EQ(past.err,
            "qxfile: Error retrieving folder's contents\n  Couldn't find item at position 1 in "
            "folder at path \"" +
                sub + "\". Invalid argument\n");
}

TEST_F(Qxfile, RenamePairsStopAtATakenNameOrCtrlC) {
  std::string one = file("one"), two = file("two");
  const Json renamed = Json::array(  // a slash becomes a colon
      {{{"from", one}, {"to", tree_.path("uno")}, {"previousName", "one"}},
       {{"from", two}, {"to", tree_.path("dos:tres")}, {"previousName", "two"}}});
  EXPECT_EQ(qxfile({"rename", one, "uno", two, "dos/tres", "--json"}).json(),
            (Json{{"requested", 2}, {"renamed", renamed}, {"stopped", false}}));
  std::string three = file("three");
  EXPECT_EQ(qxfile({"rename", three, "tres"}).out,
            three + " -> " + tree_.path("tres") + "\nRenamed 1 of 1 item.\n");

  std::string first = file("first"), second = file("second"), third = file("third");
  Outcome taken = qxfile({"rename", first, "1st", second, "third", third, "3rd", "--json"});
  EXPECT_EQ(taken.status, 1) << taken;
  EXPECT_EQ(taken.json()["renamed"].size(), 1u);
  EXPECT_EQ(taken.err, "qxfile: Error renaming files\n  Couldn't rename file at path \"" + second +
                           "\". File exists\n");

  std::vector<std::string> args{"rename"};
  for (int i = 0; i < 100; ++i) {
    args.push_back(file("f" + std::to_string(i)));
    args.push_back("g" + std::to_string(i));
  }
  args.push_back("--json");
  Outcome stopped = interrupted(args);
  EXPECT_EQ(stopped.status, 130) << stopped;
  EXPECT_TRUE(stopped.json()["stopped"].get<bool>());
  EXPECT_LT(stopped.json()["renamed"].size(), 100u) << "stopped at the first question";
}

}  // namespace
