#include "client/cli/ListCommand.h"

#include <cstdio>
#include <filesystem>

#include "client/cli/ExitCode.h"
#include "client/cli/Session.h"
#include "qxfile/BlockingClient.h"

namespace qxcli {

namespace {

// {"folder", "entries": [{"index", "path", "folder"}]} for each level; a
// level's folder is the entry its predecessor's index chose.
Output::Json levelsJson(const std::string& top, const std::vector<uint64_t>& indexes,
                        const std::vector<std::vector<qxfile::FileRef>>& levels) {
  Output::Json json = Output::Json::array();
  Output::Json folder = top;
  for (std::size_t k = 0; k < levels.size(); ++k) {
    Output::Json entries = Output::Json::array();
    for (std::size_t i = 0; i < levels[k].size(); ++i) {
      std::string path = levels[k][i].presentPath();
      std::error_code unknown;
      bool isFolder = !path.empty() &&
                      std::filesystem::is_directory(std::filesystem::symlink_status(path, unknown));
      entries.push_back({{"index", i},
                         {"path", path.empty() ? Output::Json() : Output::Json(path)},
                         {"folder", isFolder}});
    }
    json.push_back({{"folder", folder}, {"entries", entries}});
    if (k < indexes.size() && indexes[k] < entries.size()) folder = entries[indexes[k]]["path"];
  }
  return json;
}

void print(const Output::Json& levels) {
  for (std::size_t k = 0; k < levels.size(); ++k) {
    const auto& level = levels[k];
    std::string folder = level["folder"].is_string() ? level["folder"].get<std::string>() : "?";
    std::printf("%s%s (level %zu, %zu entr%s)\n", k ? "\n" : "", folder.c_str(), k,
                level["entries"].size(), level["entries"].size() == 1 ? "y" : "ies");
    for (const auto& entry : level["entries"]) {
      std::string path =
          entry["path"].is_string() ? entry["path"].get<std::string>() : "(no longer there)";
      std::printf("  %4zu  %s%s\n", entry["index"].get<std::size_t>(), path.c_str(),
                  entry["folder"].get<bool>() ? "/" : "");
    }
  }
}

}  // namespace

int ListCommand::run(const Options& options) {
  const std::string path = Session::absolute(options.path);
  Output::Json document;
  document["path"] = path;
  document["indexPath"] = options.indexes;

  qxfile::Client client;
  if (!Session::connect(client, options.json)) return kExitFailed;
  std::optional<qxfile::Error> error;
  auto levels = qxfile::BlockingClient(client).listContents(path, options.indexes, &error);
  // A permission error comes beside the levels that could be read.
  if (error && levels.empty()) return Session::fail(error, options.json, document);

  document["levels"] = levelsJson(path, options.indexes, levels);
  if (!options.json) {
    if (levels.empty()) std::printf("%s: not a folder that can be listed\n", path.c_str());
    print(document["levels"]);
  }
  if (error) return Session::fail(error, options.json, document);
  if (options.json) Output::printJson(document);
  return kExitOk;
}

}  // namespace qxcli
