#include "client/cli/PropagateCommand.h"

#include <cstdio>

#include "client/cli/EntryList.h"
#include "client/cli/ExitCode.h"
#include "client/cli/Identity.h"
#include "client/cli/Session.h"
#include "client/lib/QXFileClientSync.h"

namespace qxcli {

int PropagateCommand::run(const Options& options) {
  auto url = Session::urlFor(options.path);
  Output::Json document;
  document["path"] = url->path();

  QXFileClient client;
  if (!Session::connect(client, options.json)) return kExitFailed;
  QXFileClientSync sync(client);
  qx::ErrorPtr error;
  auto entries = sync.getAclEntriesWithUrl(url, &error);
  if (!entries || error) return Session::fail(error, options.json, document);
  std::string problem;
  auto list = EntryList::fromArray(entries, &problem);
  if (!list) return Session::fail(problem, options.json);
  if (!sync.propagateAclEntries(entries, url, &error)) {
    return Session::fail(error, options.json, document);
  }

  std::string owner = Identity::fromUuid(list->owner()->uuid()).label();
  std::string group = Identity::fromUuid(list->group()->uuid()).label();
  char mode[8];
  std::snprintf(mode, sizeof mode, "0%03o", list->mode());
  if (options.json) {
    document["aclEntries"] = list->acl().size();
    document["owner"] = Identity::fromUuid(list->owner()->uuid()).toJson();
    document["group"] = Identity::fromUuid(list->group()->uuid()).toJson();
    document["mode"] = mode;
    Output::printJson(document);
    return kExitOk;
  }
  std::printf("Propagated to everything below %s:\n", url->path().c_str());
  std::printf("  %zu ACL entr%s, owner %s, group %s, mode %s (%s)\n", list->acl().size(),
              list->acl().size() == 1 ? "y" : "ies", owner.c_str(), group.c_str(), mode,
              EntryList::modeString(list->mode()).c_str());
  return kExitOk;
}

}  // namespace qxcli
