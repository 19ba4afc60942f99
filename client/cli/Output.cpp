#include "client/cli/Output.h"

#include <cstdio>

namespace qxcli {

void Output::printError(const qxfile::Error& error) {
  std::fflush(stdout);  // what was printed before the error comes before it
  std::fprintf(stderr, "qxfile: %s\n", error.description.c_str());
  if (error.recoverySuggestion) {
    std::fprintf(stderr, "  %s\n", error.recoverySuggestion->c_str());
  }
  std::fflush(stderr);
}

void Output::printProblem(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "qxfile: %s\n", message.c_str());
  std::fflush(stderr);
}

Output::Json Output::errorJson(const qxfile::Error& error) {
  Json json;
  json["domain"] = error.domain;
  json["code"] = error.code;
  json["description"] = error.description;
  json["suggestion"] = error.recoverySuggestion ? Json(*error.recoverySuggestion) : Json();
  json["path"] = error.path && !error.path->empty() ? Json(error.path->string()) : Json();
  return json;
}

void Output::printJson(const Json& document) {
  // Names are bytes: a name that is not UTF-8 is printed with U+FFFD in place
  // of the bytes that are not.
  std::string text = document.dump(2, ' ', false, Json::error_handler_t::replace);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace qxcli
