#include "client/cli/Session.h"

#include <filesystem>

#include "client/cli/ExitCode.h"

namespace qxcli {

std::string Session::absolute(const std::string& path) {
  std::error_code ignored;
  std::filesystem::path absolute = std::filesystem::absolute(path, ignored);
  return absolute.empty() ? path : absolute.string();
}

bool Session::connect(qxfile::Client& client, bool json) {
  auto error = client.connect();
  if (!error) return true;
  fail(error, json);
  return false;
}

int Session::fail(const std::optional<qxfile::Error>& error, bool json, Output::Json document) {
  if (error) Output::printError(*error);
  if (json) {
    if (!document.is_object()) document = Output::Json::object();
    document["error"] = error ? Output::errorJson(*error) : Output::Json();
    Output::printJson(document);
  }
  return kExitFailed;
}

int Session::fail(const std::string& problem, bool json) {
  Output::printProblem(problem);
  if (json) {
    Output::Json document;
    document["error"] = {{"domain", "qxfile"},
                         {"code", 0},
                         {"description", problem},
                         {"suggestion", nullptr},
                         {"path", nullptr}};
    Output::printJson(document);
  }
  return kExitFailed;
}

}  // namespace qxcli
