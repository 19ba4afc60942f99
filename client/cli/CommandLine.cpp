#include "client/cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <functional>

#include "client/cli/AccessCommand.h"
#include "client/cli/AclCommand.h"
#include "client/cli/ExitCode.h"
#include "client/cli/ListCommand.h"
#include "client/cli/Output.h"
#include "client/cli/PropagateCommand.h"
#include "client/cli/RenameCommand.h"
#include "client/cli/SizeCommand.h"
#include "client/cli/UsageError.h"

#ifndef QXFILE_VERSION
#define QXFILE_VERSION "unknown"
#endif

namespace qxcli {

namespace {

constexpr const char* kDescription =
    "qxfile: access control lists, sizes, listings and renames through the per-user qxfile "
    "service (started on demand).";

constexpr const char* kFooter =
    "Identities: user:NAME, group:NAME, uid:N, gid:N or a UUID.\n"
    "Exit status: 0 done, 1 the operation failed, 2 the command line was wrong,\n"
    "130 stopped with Ctrl-C (size and rename report what was done).\n"
    "Run 'qxfile COMMAND --help' for the arguments of a command.";

// The subcommand that ran, set by its callback once the line is parsed.
using Action = std::function<int()>;

void addJson(CLI::App& command, bool& json) {
  command.add_flag("--json", json, "Print the result as JSON on standard output");
}

void addAclCommands(CLI::App& app, AclCommand::Options& acl, bool& json, Action& action) {
  auto* group = app.add_subcommand("acl", "Show or change an item's ACL, owner, group and mode");
  group->require_subcommand(1);

  auto* show = group->add_subcommand("show", "Show the ACL entries, owner, group and mode");
  show->add_option("path", acl.path, "The file or folder")->required();
  addJson(*show, json);
  show->callback([&] { action = [&] { return AclCommand::show(acl); }; });

  auto* add = group->add_subcommand("add", "Insert an ACL entry");
  add->add_option("path", acl.path, "The file or folder")->required();
  add->add_option("tag", acl.tag, "allow or deny")
      ->required()
      ->check(CLI::IsMember({"allow", "deny"}));
  add->add_option("identity", acl.identity, "user:NAME, group:NAME, uid:N or gid:N")->required();
  add->add_option("permissions", acl.rights,
                  "Comma-separated names: \"Read Data\", read-data, list_directory, ...; the "
                  "groups read, write, administration; all")
      ->required();
  add->add_option("--inherit", acl.inherit,
                  "Folders: comma-separated file, dir, limit, only (what the entry applies to "
                  "below the folder; only: not the folder itself)");
  add->add_option("--at", acl.at, "Position of the new entry (default: after the others)");
  addJson(*add, json);
  add->callback([&] { action = [&] { return AclCommand::add(acl); }; });

  auto* remove = group->add_subcommand("remove", "Remove ACL entries by position or identity");
  remove->add_option("path", acl.path, "The file or folder")->required();
  remove
      ->add_option("entry", acl.value,
                   "The position shown by 'acl show', or an identity (all its entries)")
      ->required();
  addJson(*remove, json);
  remove->callback([&] { action = [&] { return AclCommand::remove(acl); }; });

  auto* owner = group->add_subcommand("owner", "Change the owner");
  owner->add_option("path", acl.path, "The file or folder")->required();
  owner->add_option("user", acl.value, "NAME, user:NAME or uid:N")->required();
  addJson(*owner, json);
  owner->callback([&] { action = [&] { return AclCommand::owner(acl); }; });

  auto* groupCommand = group->add_subcommand("group", "Change the group");
  groupCommand->add_option("path", acl.path, "The file or folder")->required();
  groupCommand->add_option("group", acl.value, "NAME, group:NAME or gid:N")->required();
  addJson(*groupCommand, json);
  groupCommand->callback([&] { action = [&] { return AclCommand::group(acl); }; });

  auto* mode = group->add_subcommand("mode", "Change the permission bits");
  mode->add_option("path", acl.path, "The file or folder")->required();
  mode->add_option("mode", acl.value, "Octal, 000 to 777")->required();
  addJson(*mode, json);
  mode->callback([&] { action = [&] { return AclCommand::mode(acl); }; });
}

}  // namespace

int CommandLine::run(int argc, char** argv) {
  CLI::App app(kDescription, "qxfile");
  app.footer(kFooter);
  app.set_version_flag("--version", "qxfile " QXFILE_VERSION);
  app.require_subcommand(1);

  bool json = false;
  Action action;
  addJson(app, json);

  AclCommand::Options acl;
  addAclCommands(app, acl, json, action);

  AccessCommand::Options access;
  auto* accessCommand =
      app.add_subcommand("access", "Show the effective access of a user or group to an item");
  accessCommand->add_option("path", access.path, "The file or folder")->required();
  accessCommand->add_option("identity", access.identity, "NAME, user:NAME, group:NAME, ...")
      ->required();
  addJson(*accessCommand, json);
  accessCommand->callback([&] { action = [&] { return AccessCommand::run(access); }; });

  PropagateCommand::Options propagate;
  auto* propagateCommand = app.add_subcommand(
      "propagate", "Give everything below a folder the folder's ACL, owner, group and mode");
  propagateCommand->add_option("folder", propagate.path, "The folder")->required();
  addJson(*propagateCommand, json);
  propagateCommand->callback([&] { action = [&] { return PropagateCommand::run(propagate); }; });

  SizeCommand::Options size;
  auto* sizeCommand = app.add_subcommand("size", "Total the sizes of files and folders");
  sizeCommand->add_option("paths", size.paths, "Files and folders")->required();
  sizeCommand->add_flag("--all,-a", size.all, "Also show every folder below, as du does");
  addJson(*sizeCommand, json);
  sizeCommand->callback([&] { action = [&] { return SizeCommand::run(size); }; });

  ListCommand::Options list;
  auto* listCommand = app.add_subcommand(
      "ls", "List a folder and, following positions, the folders below it, one level each");
  listCommand->add_option("folder", list.path, "The folder")->required();
  listCommand->add_option("indexes", list.indexes,
                          "Positions of the folder to open at each level (from 0)");
  addJson(*listCommand, json);
  listCommand->callback([&] { action = [&] { return ListCommand::run(list); }; });

  RenameCommand::Options rename;
  auto* renameCommand =
      app.add_subcommand("rename", "Rename items in their folders, never over another item");
  renameCommand->add_option("pairs", rename.pairs, "PATH NEWNAME [PATH NEWNAME ...]")->required();
  addJson(*renameCommand, json);
  renameCommand->callback([&] { action = [&] { return RenameCommand::run(rename); }; });

  if (argc <= 1) {
    std::fputs(app.help().c_str(), stdout);
    return kExitOk;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForAllHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForVersion& version) {
    return app.exit(version);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return kExitUsage;
  }
  acl.json = access.json = propagate.json = size.json = list.json = rename.json = json;
  try {
    return action ? action() : kExitUsage;
  } catch (const UsageError& error) {
    Output::printProblem(error.what());
    return kExitUsage;
  }
}

}  // namespace qxcli
