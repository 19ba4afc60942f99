#include "client/cli/AccessCommand.h"

#include <cstdio>

#include "client/cli/ExitCode.h"
#include "client/cli/Identity.h"
#include "client/cli/LinuxView.h"
#include "client/cli/Session.h"
#include "model/QXAclPermission.h"
#include "platform/foundation/TreeNode.h"
#include "client/lib/QXFileClientSync.h"

namespace qxcli {

namespace {

QXAclPermissionPtr recordOf(const qx::ObjectPtr& node) {
  auto tree = qx::cast<qx::TreeNode>(node);
  return tree ? tree->representedObjectAs<QXAclPermission>() : nullptr;
}

std::string nameOf(const QXAclPermissionPtr& record) {
  return record && record->name() ? record->name()->str() : "?";
}

// The groups of the access tree with their leaves: {"group", "permissions":
// [{"name", "value", "granted"}]}.
Output::Json accessJson(const qx::ArrayPtr& groups, const LinuxView::Item& view,
                        const qx::UuidPtr& identity) {
  Output::Json json = Output::Json::array();
  for (const auto& object : *groups) {
    auto group = qx::cast<qx::TreeNode>(object);
    if (!group) continue;
    Output::Json leaves = Output::Json::array();
    for (const auto& child : group->childNodes()) {
      auto leaf = recordOf(child);
      if (!leaf) continue;
      const bool granted = leaf->state() == 1;
      const bool enforced =
          LinuxView::enforced(view, identity, static_cast<uint32_t>(leaf->permission()), granted);
      leaves.push_back({{"name", nameOf(leaf)},
                        {"value", leaf->permission()},
                        {"granted", granted},
                        {"enforced", enforced}});
    }
    json.push_back({{"group", nameOf(recordOf(group))}, {"permissions", leaves}});
  }
  return json;
}

}  // namespace

int AccessCommand::run(const Options& options) {
  Identity identity = Identity::parse(options.identity, Identity::Kind::User);
  auto url = Session::urlFor(options.path);
  Output::Json document;
  document["path"] = url->path();
  document["identity"] = identity.toJson();

  QXFileClient client;
  if (!Session::connect(client, options.json)) return kExitFailed;
  qx::ErrorPtr error;
  auto groups = QXFileClientSync(client).getAclAccessWithUrl(url, identity.uuid(), &error);
  if (!groups || error) return Session::fail(error, options.json, document);

  document["access"] = accessJson(groups, LinuxView::read(url->path()), identity.uuid());
  if (options.json) {
    Output::printJson(document);
    return kExitOk;
  }
  std::printf("Effective access of %s to %s\n", identity.label().c_str(), url->path().c_str());
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
