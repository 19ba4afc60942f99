#include "client/cli/AccessCommand.h"

#include <cstdio>

#include "client/cli/ExitCode.h"
#include "client/cli/Identity.h"
#include "client/cli/LinuxView.h"
#include "client/cli/Session.h"
#include "qxfile/BlockingClient.h"

namespace qxcli {

namespace {

// The groups of the access tree with their leaves: {"group", "permissions":
// [{"name", "value", "granted"}]}.
Output::Json accessJson(const qxfile::EffectiveAccess& access, const LinuxView::Item& view,
                        const qx::UuidPtr& identity) {
  Output::Json json = Output::Json::array();
  for (const auto& group : access.groups) {
    Output::Json leaves = Output::Json::array();
    for (const auto& right : group.rights) {
      const bool enforced = LinuxView::enforced(view, identity, right.right, right.granted);
      leaves.push_back({{"name", right.name},
                        {"value", right.right},
                        {"granted", right.granted},
                        {"enforced", enforced}});
    }
    json.push_back({{"group", group.name}, {"permissions", leaves}});
  }
  return json;
}

}  // namespace

int AccessCommand::run(const Options& options) {
  Identity identity = Identity::parse(options.identity, Identity::Kind::User);
  const std::string path = Session::absolute(options.path);
  Output::Json document;
  document["path"] = path;
  document["identity"] = identity.toJson();

  qxfile::Client client;
  if (!Session::connect(client, options.json)) return kExitFailed;
  std::optional<qxfile::Error> error;
  auto access = qxfile::BlockingClient(client).getAccess(path, identity.record(), &error);
  if (error) return Session::fail(error, options.json, document);

  document["access"] = accessJson(access, LinuxView::read(path), identity.uuid());
  if (options.json) {
    Output::printJson(document);
    return kExitOk;
  }
  std::printf("Effective access of %s to %s\n", identity.label().c_str(), path.c_str());
  std::printf("(K: the kernel enforces this answer)\n");
  for (const auto& group : document["access"]) {
    std::printf("%s\n", group["group"].get<std::string>().c_str());
    for (const auto& leaf : group["permissions"]) {
      std::printf("  %-3s %s  %s\n", leaf["granted"].get<bool>() ? "yes" : "no",
                  leaf["enforced"].get<bool>() ? "K" : " ",
                  leaf["name"].get<std::string>().c_str());
    }
  }
  return kExitOk;
}

}  // namespace qxcli
