// qxfile size, ls and rename end to end, with their progress lines and Ctrl-C.
#include <signal.h>

#include <filesystem>

#include "tests/client/cli/CliTestSupport.h"

namespace qxclitest {
namespace {

// Sends SIGINT once the command has its handler for it: the command then
// answers the operation's next question with "stop".
void interruptOnceReady(pid_t pid) {
  ASSERT_TRUE(eventually([&] { return catchesSignal(pid, SIGINT); }))
      << "qxfile never caught SIGINT";
  ::kill(pid, SIGINT);
}

Json itemAt(const Json& items, const std::string& path) {
  for (const auto& item : items) {
    if (item["path"] == path) return item;
  }
  ADD_FAILURE() << "no item " << path << " in " << items.dump();
  return Json();
}

class SizeCommand : public CommandLine {};

TEST_F(SizeCommand, TotalsOfOneFolderAndOfEveryFolderBelow) {
  std::string top = makeFolder(files_ / "top");
  makeFile(top + "/a", 100);
  std::string sub = makeFolder(top + "/sub");
  makeFile(sub + "/b", 2000);
  std::string empty = makeFolder(top + "/empty");

  Outcome run = qxfile({"size", top, "--json"});
  ASSERT_EQ(run.status, 0) << run;
  Json totals = run.json();
  EXPECT_EQ(totals["paths"], Json::array({top}));
  EXPECT_EQ(totals["total"]["size"], 2100);
  EXPECT_EQ(totals["total"]["final"], true);
  ASSERT_EQ(totals["items"].size(), 1u);
  EXPECT_EQ(totals["items"][0]["path"], top);
  EXPECT_EQ(totals["items"][0]["folder"], true);
  EXPECT_FALSE(totals["stopped"].get<bool>());

  // --all: every folder, each after the folders inside it, as du prints them.
  Outcome all = qxfile({"size", "--all", top, "--json"});
  ASSERT_EQ(all.status, 0) << all;
  Json items = all.json()["items"];
  ASSERT_EQ(items.size(), 3u) << items.dump();
  EXPECT_EQ(items[0]["path"], empty);
  EXPECT_EQ(items[0]["size"], 0);
  EXPECT_EQ(items[0]["indexPath"], Json::array({1}));
  EXPECT_EQ(items[1]["path"], sub);
  EXPECT_EQ(items[1]["size"], 2000);
  EXPECT_EQ(items[2]["path"], top);
  EXPECT_EQ(items[2]["size"], 2100);

  Outcome human = qxfile({"size", "-a", top});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_EQ(human.out, "    0 B      0 bytes  " + empty + "\n" +    //
                           "2.0 KiB  2,000 bytes  " + sub + "\n" +  //
                           "2.1 KiB  2,100 bytes  " + top + "\n");
}

TEST_F(SizeCommand, SeveralItemsAreTotalledInTheOrderOfTheirPaths) {
  std::string b = makeFolder(files_ / "b");
  fillFolder(b, 250, 4096);  // reports after the 100th and the 200th file
  std::string a = makeFile(files_ / "a", 1500000);

  Outcome run = qxfile({"size", b, a, "--json"});
  ASSERT_EQ(run.status, 0) << run;
  Json totals = run.json();
  EXPECT_EQ(totals["paths"], Json::array({b, a})) << "as asked";
  EXPECT_EQ(totals["total"]["size"], 1500000 + 250 * 4096);
  ASSERT_EQ(totals["items"].size(), 2u);
  EXPECT_EQ(totals["items"][0]["path"], a);
  EXPECT_EQ(totals["items"][0]["indexPath"], Json::array({0}));
  EXPECT_EQ(totals["items"][0]["size"], 1500000);
  EXPECT_EQ(totals["items"][0]["folder"], false);
  EXPECT_EQ(itemAt(totals["items"], b)["size"], 250 * 4096);
  EXPECT_EQ(itemAt(totals["items"], b)["final"], true);

  Outcome human = qxfile({"size", b, a});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_EQ(human.out, "   1.4 MiB  1,500,000 bytes  " + a + "\n" +      //
                           "1000.0 KiB  1,024,000 bytes  " + b + "\n" +  //
                           "   2.4 MiB  2,524,000 bytes  total\n");
}

TEST_F(SizeCommand, MissingItemsFailWithTheServicesError) {
  Outcome run = qxfile({"size", files_ / "missing"});
  EXPECT_EQ(run.status, 1) << run;
  EXPECT_TRUE(run.out.empty()) << run;
  EXPECT_EQ(run.err,
            "qxfile: Error calculating file sizes\n  Couldn't get folder hierarchy item "
            "at path \"" +
                files_ / "missing" + "\". No such file or directory\n");

  Outcome json = qxfile({"size", files_ / "missing", "--json"});
  EXPECT_EQ(json.status, 1) << json;
  EXPECT_EQ(json.json()["error"]["code"], ENOENT);
  EXPECT_EQ(json.json()["error"]["path"], files_ / "missing");
}

TEST_F(SizeCommand, CtrlCStopsAtTheNextReportWithPartialTotals) {
  std::string folder = makeFolder(files_ / "many");
  fillFolder(folder, 1000, 10);
  std::string later = makeFolder(files_ / "zz");
  makeFile(later + "/file", 5);

  Outcome run = qxfile({"size", later, folder, "--json"}, interruptOnceReady);
  ASSERT_TRUE(run.exited) << run;
  EXPECT_EQ(run.status, 130) << run;
  Json totals = run.json();
  EXPECT_TRUE(totals["stopped"].get<bool>());
  // Stopped at the first report: the totals of the first hundred files.
  EXPECT_EQ(totals["total"]["size"], 1000);
  EXPECT_EQ(totals["total"]["final"], true);
  EXPECT_EQ(itemAt(totals["items"], folder)["size"], 1000);
  Json notReached = itemAt(totals["items"], later);
  EXPECT_TRUE(notReached["size"].is_null()) << notReached;
  EXPECT_EQ(notReached["final"], false);

  Outcome human = qxfile({"size", later, folder}, interruptOnceReady);
  EXPECT_EQ(human.status, 130) << human;
  EXPECT_EQ(human.out, "1,000 B  1,000 bytes  " + folder + "\n" +  //
                           "      -      -        " + later + "  (not reached)\n" +
                           "1,000 B  1,000 bytes  total\n" +
                           "Stopped with Ctrl-C: the totals are partial.\n");
}

TEST_F(SizeCommand, ProgressLineOnlyOnATerminal) {
  std::string folder = makeFolder(files_ / "many");
  fillFolder(folder, 300, 10);

  Outcome terminal = qxfileOnTerminal({"size", folder});
  ASSERT_EQ(terminal.status, 0) << terminal;
  EXPECT_NE(terminal.out.find("\r\033[KCounting..."), std::string::npos) << terminal.out;
  // The line is erased before the totals.
  EXPECT_NE(terminal.out.find("\r\033[K2.9 KiB  3,000 bytes  " + folder), std::string::npos)
      << terminal.out;

  Outcome json = qxfileOnTerminal({"size", folder, "--json"});
  ASSERT_EQ(json.status, 0) << json;
  EXPECT_EQ(json.out.find("Counting"), std::string::npos) << json.out;

  Outcome piped = qxfile({"size", folder});
  ASSERT_EQ(piped.status, 0) << piped;
  EXPECT_EQ(piped.out, "2.9 KiB  3,000 bytes  " + folder + "\n");
}

class ListCommand : public CommandLine {};

TEST_F(ListCommand, LevelsFollowThePositionsGiven) {
  std::string top = makeFolder(files_ / "top");
  makeFile(top + "/b");
  makeFile(top + "/A");
  makeFile(top + "/a");
  std::string sub = makeFolder(top + "/sub");
  makeFile(sub + "/inner");

  Outcome run = qxfile({"ls", top, "3", "--json"});
  ASSERT_EQ(run.status, 0) << run;
  Json listing = run.json();
  EXPECT_EQ(listing["indexPath"], Json::array({3}));
  ASSERT_EQ(listing["levels"].size(), 2u);
  Json first = listing["levels"][0];
  EXPECT_EQ(first["folder"], top);
  std::vector<std::string> paths;
  for (const auto& entry : first["entries"]) paths.push_back(entry["path"]);
  EXPECT_EQ(paths, (std::vector<std::string>{top + "/A", top + "/a", top + "/b", sub}));
  EXPECT_EQ(first["entries"][3]["folder"], true);
  EXPECT_EQ(first["entries"][0]["folder"], false);
  EXPECT_EQ(listing["levels"][1]["folder"], sub);
  EXPECT_EQ(listing["levels"][1]["entries"][0]["path"], sub + "/inner");

  Outcome human = qxfile({"ls", top, "3"});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_EQ(human.out, top + " (level 0, 4 entries)\n     0  " + top + "/A\n     1  " + top +
                           "/a\n     2  " + top + "/b\n     3  " + sub + "/\n\n" + sub +
                           " (level 1, 1 entry)\n     0  " + sub + "/inner\n");
}

TEST_F(ListCommand, PositionsPastTheEndFail) {
  std::string top = makeFolder(files_ / "top");
  makeFile(top + "/only");
  Outcome run = qxfile({"ls", top, "1"});
  EXPECT_EQ(run.status, 1) << run;
  EXPECT_EQ(run.err,
            "qxfile: Error retrieving folder's contents\n  Couldn't find item at position "
            "1 in folder at path \"" +
                top + "\". Invalid argument\n");
  Outcome word = qxfile({"ls", top, "first"});
  EXPECT_EQ(word.status, 2) << word;
}

class RenameCommand : public CommandLine {};

TEST_F(RenameCommand, PairsAreRenamedInPlace) {
  std::string one = makeFile(files_ / "one");
  std::string two = makeFile(files_ / "two");
  Outcome run = qxfile({"rename", one, "uno", two, "dos/tres", "--json"});
  ASSERT_EQ(run.status, 0) << run;
  Json result = run.json();
  EXPECT_EQ(result["requested"], 2);
  ASSERT_EQ(result["renamed"].size(), 2u);
  EXPECT_EQ(result["renamed"][0]["from"], one);
  EXPECT_EQ(result["renamed"][0]["to"], files_ / "uno");
  EXPECT_EQ(result["renamed"][0]["previousName"], "one");
  EXPECT_EQ(result["renamed"][1]["to"], files_ / "dos:tres") << "a slash becomes a colon";
  EXPECT_TRUE(std::filesystem::exists(files_ / "uno"));
  EXPECT_TRUE(std::filesystem::exists(files_ / "dos:tres"));

  std::string three = makeFile(files_ / "three");
  Outcome human = qxfile({"rename", three, "tres"});
  ASSERT_EQ(human.status, 0) << human;
  EXPECT_EQ(human.out, three + " -> " + files_ / "tres" + "\nRenamed 1 of 1 item.\n");
}

TEST_F(RenameCommand, ATakenNameEndsTheBatch) {
  std::string first = makeFile(files_ / "first");
  std::string second = makeFile(files_ / "second");
  std::string third = makeFile(files_ / "third");
  Outcome run = qxfile({"rename", first, "1st", second, "third", third, "3rd", "--json"});
  EXPECT_EQ(run.status, 1) << run;
  Json result = run.json();
  ASSERT_EQ(result["renamed"].size(), 1u);
  EXPECT_EQ(result["renamed"][0]["to"], files_ / "1st");
  EXPECT_EQ(result["error"]["code"], EEXIST);
  EXPECT_EQ(result["error"]["description"], "Error renaming files");
  EXPECT_EQ(run.err, "qxfile: Error renaming files\n  Couldn't rename file at path \"" + second +
                         "\". File exists\n");
  EXPECT_TRUE(std::filesystem::exists(second));
  EXPECT_TRUE(std::filesystem::exists(third));

  Outcome odd = qxfile({"rename", first, "a", second});
  EXPECT_EQ(odd.status, 2) << odd;
  EXPECT_NE(odd.err.find("rename takes pairs"), std::string::npos) << odd;
}

TEST_F(RenameCommand, CtrlCStopsAtTheFirstQuestion) {
  std::vector<std::string> args{"rename"};
  for (int i = 0; i < 100; ++i) {
    std::string name = "f" + std::to_string(i);
    args.push_back(makeFile(files_ / name));
    args.push_back("g" + std::to_string(i));
  }
  args.push_back("--json");
  Outcome run = qxfile(args, interruptOnceReady);
  ASSERT_TRUE(run.exited) << run;
  EXPECT_EQ(run.status, 130) << run;
  Json result = run.json();
  EXPECT_TRUE(result["stopped"].get<bool>());
  // The service asks after the 31st rename and stops on the answer.
  EXPECT_EQ(result["renamed"].size(), 31u);
  EXPECT_TRUE(std::filesystem::exists(files_ / "g30"));
  EXPECT_TRUE(std::filesystem::exists(files_ / "f31"));
}

}  // namespace
}  // namespace qxclitest
