#include "client/cli/RenameCommand.h"

#include <atomic>
#include <cstdio>
#include <filesystem>

#include "client/cli/ExitCode.h"
#include "client/cli/Interrupt.h"
#include "client/cli/ProgressLine.h"
#include "client/cli/Session.h"
#include "client/cli/SizeFormat.h"
#include "client/cli/UsageError.h"
#include "qxfile/BlockingClient.h"

namespace qxcli {

namespace {

// The service asks whether to stop after every 31st rename.
constexpr std::size_t kRenamesPerQuestion = 31;

}  // namespace

int RenameCommand::run(const Options& options) {
  if (options.pairs.empty() || options.pairs.size() % 2 != 0) {
    throw UsageError("rename takes pairs: PATH NEWNAME [PATH NEWNAME ...]");
  }
  std::vector<std::filesystem::path> items;
  std::vector<std::string> names;
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < options.pairs.size(); i += 2) {
    if (options.pairs[i + 1].empty()) throw UsageError("an empty new name for " + options.pairs[i]);
    paths.push_back(Session::absolute(options.pairs[i]));
    items.push_back(paths.back());
    names.push_back(options.pairs[i + 1]);
  }
  const std::size_t requested = paths.size();

  ProgressLine progress(!options.json);
  std::atomic<std::size_t> asked{0};
  std::atomic<bool> stopped{false};
  qxfile::Client client;
  auto askStop = [&] {
    std::size_t done = ++asked * kRenamesPerQuestion;
    progress.show("Renaming... " + SizeFormat::grouped(int64_t(done)) + " of " +
                  SizeFormat::grouped(int64_t(requested)) + " (Ctrl-C stops)");
    bool stop = Interrupt::requested();
    if (stop) stopped = true;
    return stop;
  };
  Interrupt::catchFirst();
  progress.show("Renaming " + SizeFormat::grouped(int64_t(requested)) + " items...", true);
  if (!Session::connect(client, options.json)) return kExitFailed;
  std::optional<qxfile::Error> error;
  auto renamed = qxfile::BlockingClient(client).rename(items, names, askStop, &error);
  progress.clear();

  Output::Json document;
  document["requested"] = requested;
  document["renamed"] = Output::Json::array();
  std::size_t count = renamed.renamed.size();
  for (std::size_t i = 0; i < count && i < requested; ++i) {
    bool named = i < renamed.previousNames.size();
    document["renamed"].push_back({{"from", paths[i]},
                                   {"to", renamed.renamed[i].string()},
                                   {"previousName", named ? renamed.previousNames[i] : ""}});
  }
  document["stopped"] = stopped.load();

  if (!options.json) {
    for (const auto& item : document["renamed"]) {
      std::printf("%s -> %s\n", item["from"].get<std::string>().c_str(),
                  item["to"].get<std::string>().c_str());
    }
    std::printf("Renamed %zu of %zu item%s%s.\n", count, requested, requested == 1 ? "" : "s",
                stopped ? "; stopped with Ctrl-C" : "");
  }
  if (error) return Session::fail(error, options.json, document);
  if (options.json) Output::printJson(document);
  return stopped ? kExitInterrupted : kExitOk;
}

}  // namespace qxcli
