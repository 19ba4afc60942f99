#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "qxfile/Records.h"

namespace qxcli {

// What the command prints: JSON documents on standard output, and errors on
// standard error as the service wrote them, the description first and the
// recovery suggestion below it.
class Output {
 public:
  using Json = nlohmann::ordered_json;

  // "qxfile: DESCRIPTION" and, indented on the next line, the suggestion.
  static void printError(const qxfile::Error& error);
  // "qxfile: MESSAGE", for problems the command finds itself.
  static void printProblem(const std::string& message);
  // {"domain", "code", "description", "suggestion", "path"}; suggestion and
  // path are null when the error has none.
  static Json errorJson(const qxfile::Error& error);
  // Pretty-printed, with a line end.
  static void printJson(const Json& document);
};

}  // namespace qxcli
