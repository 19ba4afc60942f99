// What qxfile says about its own command line, and its exit statuses.
#include "tests/client/cli/CliTestSupport.h"

namespace qxclitest {
namespace {

class Usage : public CommandLine {};

TEST_F(Usage, WithoutArgumentsItPrintsHelp) {
  Outcome run = qxfile({});
  EXPECT_EQ(run.status, 0) << run;
  for (const char* command : {"acl", "access", "propagate", "size", "ls", "rename"}) {
    EXPECT_NE(run.out.find(std::string("\n  ") + command + " "), std::string::npos)
        << command << "\n"
        << run.out;
  }
  Outcome help = qxfile({"--help"});
  EXPECT_EQ(help.status, 0) << help;
  EXPECT_EQ(help.out, run.out);
  Outcome aclHelp = qxfile({"acl", "--help"});
  EXPECT_EQ(aclHelp.status, 0) << aclHelp;
  for (const char* command : {"show", "add", "remove", "owner", "group", "mode"}) {
    EXPECT_NE(aclHelp.out.find(std::string("\n  ") + command + " "), std::string::npos)
        << command << "\n"
        << aclHelp.out;
  }
  Outcome version = qxfile({"--version"});
  EXPECT_EQ(version.status, 0) << version;
  EXPECT_EQ(version.out.rfind("qxfile ", 0), 0u) << version;
}

TEST_F(Usage, EverySubcommandTakesJson) {
  for (std::vector<std::string> command : {std::vector<std::string>{"acl", "show"},
                                           {"acl", "add"},
                                           {"acl", "remove"},
                                           {"acl", "owner"},
                                           {"acl", "group"},
                                           {"acl", "mode"},
                                           {"access"},
                                           {"propagate"},
                                           {"size"},
                                           {"ls"},
                                           {"rename"}}) {
    command.push_back("--help");
    Outcome help = qxfile(command);
    EXPECT_EQ(help.status, 0) << help;
    EXPECT_NE(help.out.find("--json"), std::string::npos) << command[0] << "\n" << help.out;
  }
}

TEST_F(Usage, WrongCommandLinesExitWithTwoBeforeAnythingIsDone) {
  std::string file = makeFile(files_ / "item", 0, 0644);
  const std::vector<std::vector<std::string>> wrong = {
      {"bogus"},
      {"acl"},
      {"acl", "show"},
      {"acl", "frobnicate", file},
      {"acl", "add", file, "maybe", "user:qxalice", "read"},
      {"acl", "add", file, "allow", "user:nosuchuser", "read"},
      {"acl", "add", file, "allow", "someone:qxalice", "read"},
      {"acl", "add", file, "allow", "user:qxalice", "read,fly"},
      {"acl", "add", file, "allow", "user:qxalice", "read", "--inherit", "sideways"},
      {"acl", "add", file, "allow", "user:qxalice", "read", "--at", "-1"},
      {"acl", "mode", file, "8"},
      {"access", file},
      {"access", file, "uid:many"},
      {"size"},
      {"size", file, "--bogus"},
      {"rename"},
  };
  for (const auto& args : wrong) {
    Outcome run = qxfile(args);
    std::string line;
    for (const auto& arg : args) line += arg + " ";
    EXPECT_TRUE(run.exited) << line;
    EXPECT_EQ(run.status, 2) << line << "\n" << run;
    EXPECT_FALSE(run.err.empty()) << line;
  }
  EXPECT_EQ(modeOf(file), 0644u);
  EXPECT_TRUE(servicesFor(std::getenv("QXFILE_SOCKET_DIR")).empty())
      << "a wrong command line never needs the service";

  Outcome unknownUser = qxfile({"access", file, "nosuchuser"});
  EXPECT_EQ(unknownUser.err, "qxfile: unknown user \"nosuchuser\"\n");
  Outcome unknownPermission = qxfile({"acl", "add", file, "allow", "qxalice", "read,fly"});
  EXPECT_EQ(unknownPermission.err, "qxfile: unknown permission \"fly\"\n");
}

TEST_F(Usage, OperationErrorsExitWithOneAndPrintDescriptionAndSuggestion) {
  std::string missing = files_ / "missing";
  Outcome run = qxfile({"acl", "show", missing});
  EXPECT_EQ(run.status, 1) << run;
  EXPECT_TRUE(run.out.empty()) << run;
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
  EXPECT_NE(document["error"]["suggestion"].get<std::string>().find(missing), std::string::npos);
  EXPECT_NE(json.err.find("qxfile: Error retrieving effective file access permissions\n  "),
            std::string::npos)
      << json;

  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"acl", "mode", missing, "600"},
        {"propagate", missing},
        {"rename", missing, "other"}}) {
    Outcome failed = qxfile(args);
    EXPECT_EQ(failed.status, 1) << args[0] << "\n" << failed;
    EXPECT_NE(failed.err.find("\n  "), std::string::npos) << "a suggestion line\n" << failed;
  }
}

TEST_F(Usage, AServiceThatCannotStartIsAnOperationError) {
  ::setenv("QXFILE_SERVICE_PATH", "/nonexistent/qxfile-service", 1);
  Outcome run = qxfile({"acl", "show", files_.path()});
  ::unsetenv("QXFILE_SERVICE_PATH");
  EXPECT_EQ(run.status, 1) << run;
  EXPECT_EQ(run.err.rfind("qxfile: ", 0), 0u) << run;
}

}  // namespace
}  // namespace qxclitest
