#include "client/cli/PropagateCommand.h"

#include <cstdio>

#include "client/cli/AclCommand.h"
#include "client/cli/ExitCode.h"
#include "client/cli/Identity.h"
#include "client/cli/Session.h"
#include "qxfile/BlockingClient.h"

namespace qxcli {

int PropagateCommand::run(const Options& options) {
  const std::string path = Session::absolute(options.path);
  Output::Json document;
  document["path"] = path;

  qxfile::Client client;
  if (!Session::connect(client, options.json)) return kExitFailed;
  qxfile::BlockingClient blocking(client);
  std::optional<qxfile::Error> error;
  auto listing = blocking.getAcl(path, &error);
  if (error) return Session::fail(error, options.json, document);
  if (!blocking.propagateAcl(path, listing, &error)) {
    return Session::fail(error, options.json, document);
  }

  Identity owner = Identity::fromRecord(listing.owner.identity);
  Identity group = Identity::fromRecord(listing.group.identity);
  char mode[8];
  std::snprintf(mode, sizeof mode, "0%03o", listing.mode());
  if (options.json) {
    document["aclEntries"] = listing.acl.size();
    document["owner"] = owner.toJson();
    document["group"] = group.toJson();
    document["mode"] = mode;
    Output::printJson(document);
    return kExitOk;
  }
  std::printf("Propagated to everything below %s:\n", path.c_str());
  std::printf("  %zu ACL entr%s, owner %s, group %s, mode %s (%s)\n", listing.acl.size(),
              listing.acl.size() == 1 ? "y" : "ies", owner.label().c_str(), group.label().c_str(),
              mode, AclCommand::modeString(listing.mode()).c_str());
  return kExitOk;
}

}  // namespace qxcli
