#pragma once

#include <optional>
#include <string>

#include "client/cli/Output.h"
#include "qxfile/Client.h"

namespace qxcli {

// What every command does around its requests: naming items by absolute
// path, reaching the service, and reporting a failure in the chosen form.
class Session {
 public:
  // `path` made absolute from the current folder.
  static std::string absolute(const std::string& path);
  // Connects `client`, starting the service when needed; reports a failure
  // as `fail` does and answers false.
  static bool connect(qxfile::Client& client, bool json);
  // Prints the error (on standard error; with `json`, also `document` with
  // the error under "error" on standard output) and answers kExitFailed.
  static int fail(const std::optional<qxfile::Error>& error, bool json,
                  Output::Json document = Output::Json());
  // The same for a problem found by the command itself rather than the service.
  static int fail(const std::string& problem, bool json);
};

}  // namespace qxcli
