#pragma once

#include <string>

#include "client/cli/Output.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/Url.h"
#include "client/lib/QXFileClient.h"

namespace qxcli {

// What every command does around its requests: naming items by file URL,
// reaching the service, and reporting a failure in the chosen form.
class Session {
 public:
  // The file URL of `path`, made absolute from the current folder.
  static qx::UrlPtr urlFor(const std::string& path);
  // Connects `client`, starting the service when needed; reports a failure
  // as `fail` does and answers false.
  static bool connect(QXFileClient& client, bool json);
  // Prints the error (on standard error; with `json`, also `document` with
  // the error under "error" on standard output) and answers kExitFailed.
  static int fail(const qx::ErrorPtr& error, bool json, Output::Json document = Output::Json());
  // The same for a problem found by the command itself rather than the service.
  static int fail(const std::string& problem, bool json);
};

}  // namespace qxcli
