#include "client/cli/SizeCommand.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>

#include "client/cli/ExitCode.h"
#include "client/cli/Interrupt.h"
#include "client/cli/ProgressLine.h"
#include "client/cli/Session.h"
#include "client/cli/SizeFormat.h"
#include "client/cli/SizePaths.h"
#include "client/cli/SizeTotals.h"
#include "qxfile/BlockingClient.h"

namespace qxcli {

namespace {

// The service reports after every 100 files, links and other non-folders.
constexpr int64_t kItemsPerReport = 100;

struct Line {
  SizeTotals::IndexPath indexPath;
  std::optional<std::string> path;  // none for the sum of several items
  SizeTotals::Total total;
  bool folder = false;
};

// Folders after everything inside them and the sum last, as du prints them.
bool postorder(const Line& a, const Line& b) {
  std::size_t common = std::min(a.indexPath.size(), b.indexPath.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (a.indexPath[i] != b.indexPath[i]) return a.indexPath[i] < b.indexPath[i];
  }
  return a.indexPath.size() > b.indexPath.size();
}

// The root, the items asked for and, with `all`, every folder below them.
std::vector<Line> linesOf(const SizeTotals& totals, SizePaths& paths, bool all) {
  std::vector<Line> lines;
  for (const auto& [indexPath, total] : totals.all()) {
    Line line{indexPath, paths.pathAt(indexPath), total};
    line.folder = line.path && SizePaths::isFolder(*line.path);
    bool requested = indexPath.size() <= (paths.hasArtificialRoot() ? 1u : 0u);
    if (requested || (all && line.folder)) lines.push_back(std::move(line));
  }
  // Items asked for that the walk never reached (stopped before them).
  if (paths.hasArtificialRoot()) {
    for (uint64_t k = 0; k < paths.topItems().size(); ++k) {
      if (totals.at({k})) continue;
      const std::string& path = paths.topItems()[k];
      lines.push_back(Line{{k}, path, SizeTotals::Total{}, SizePaths::isFolder(path)});
    }
  }
  std::sort(lines.begin(), lines.end(), postorder);
  return lines;
}

std::string label(const Line& line) {
  if (line.path) return *line.path;
  if (line.indexPath.empty()) return "total";
  std::string text = "(item at";
  for (uint64_t index : line.indexPath) text += " " + std::to_string(index);
  return text + ")";
}

void print(const std::vector<Line>& lines) {
  std::size_t unitsWidth = 0;
  std::size_t bytesWidth = 0;
  for (const auto& line : lines) {
    if (line.total.size < 0) continue;
    unitsWidth = std::max(unitsWidth, SizeFormat::compact(line.total.size).size());
    bytesWidth = std::max(bytesWidth, SizeFormat::grouped(line.total.size).size());
  }
  for (const auto& line : lines) {
    if (line.total.size < 0) {
      std::printf("%*s  %*s        %s  (not reached)\n", static_cast<int>(unitsWidth), "-",
                  static_cast<int>(bytesWidth), "-", label(line).c_str());
      continue;
    }
    std::printf("%*s  %*s bytes  %s%s\n", static_cast<int>(unitsWidth),
                SizeFormat::compact(line.total.size).c_str(), static_cast<int>(bytesWidth),
                SizeFormat::grouped(line.total.size).c_str(), label(line).c_str(),
                line.total.busy ? "  (incomplete)" : "");
  }
}

Output::Json totalJson(const SizeTotals::Total& total) {
  return {{"size", total.size}, {"final", !total.busy}};
}

Output::Json linesJson(const std::vector<Line>& lines) {
  Output::Json json = Output::Json::array();
  for (const auto& line : lines) {
    if (!line.path && line.indexPath.empty()) continue;  // the sum is "total"
    Output::Json item;
    item["path"] = line.path ? Output::Json(*line.path) : Output::Json();
    item["indexPath"] = line.indexPath;
    item["size"] = line.total.size < 0 ? Output::Json() : Output::Json(line.total.size);
    item["final"] = !line.total.busy;
    item["folder"] = line.folder;
    json.push_back(std::move(item));
  }
  return json;
}

}  // namespace

int SizeCommand::run(const Options& options) {
  std::vector<std::string> requested;
  for (const auto& path : options.paths) requested.push_back(Session::absolute(path));
  Output::Json document;
  document["paths"] = requested;

  SizeTotals totals(options.all);
  ProgressLine progress(!options.json);
  std::atomic<int64_t> reports{0};
  std::atomic<bool> stopped{false};
  qxfile::Client client;
  auto onUpdate = [&](const std::vector<qxfile::SizeUpdate>& batch) {
    totals.add(batch);
    int64_t counted = ++reports * kItemsPerReport;
    auto root = totals.at({});
    progress.show("Counting... " + SizeFormat::withUnits(root ? root->size : 0) + " in " +
                  SizeFormat::grouped(counted) + " items so far (Ctrl-C stops)");
    bool goOn = !Interrupt::requested();
    if (!goOn) stopped = true;
    return goOn;
  };
  Interrupt::catchFirst();
  progress.show("Counting...", true);
  if (!Session::connect(client, options.json)) return kExitFailed;
  std::optional<qxfile::Error> error;
  std::vector<std::filesystem::path> items(requested.begin(), requested.end());
  auto last = qxfile::BlockingClient(client).getSizes(items, onUpdate, &error);
  progress.clear();
  // Without a result the error says why; a permission error comes beside the totals.
  if (error && last.empty() && reports == 0) return Session::fail(error, options.json, document);
  totals.add(last);

  SizePaths paths(requested);
  auto lines = linesOf(totals, paths, options.all);
  auto root = totals.at({});
  document["total"] = root ? totalJson(*root) : Output::Json();
  document["items"] = linesJson(lines);
  document["stopped"] = stopped.load();
  if (!options.json) {
    print(lines);
    if (stopped) std::printf("Stopped with Ctrl-C: the totals are partial.\n");
  }
  if (error) return Session::fail(error, options.json, document);
  if (options.json) Output::printJson(document);
  return stopped ? kExitInterrupted : kExitOk;
}

}  // namespace qxcli
