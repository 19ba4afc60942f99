#include "client/cli/Output.h"

#include <cstdio>

#include "platform/foundation/Url.h"

namespace qxcli {

namespace {

std::string errorPath(const qx::ErrorPtr& error) {
  auto url = error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey);
  return url ? url->path() : std::string();
}

}  // namespace

void Output::printError(const qx::ErrorPtr& error) {
  if (!error) return;
  std::fflush(stdout);  // what was printed before the error comes before it
  std::fprintf(stderr, "qxfile: %s\n", error->localizedDescription().c_str());
  if (auto suggestion = error->localizedRecoverySuggestion()) {
    std::fprintf(stderr, "  %s\n", suggestion->c_str());
  }
  std::fflush(stderr);
}

void Output::printProblem(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "qxfile: %s\n", message.c_str());
  std::fflush(stderr);
}

Output::Json Output::errorJson(const qx::ErrorPtr& error) {
  Json json;
  json["domain"] = error->domain();
  json["code"] = error->code();
  json["description"] = error->localizedDescription();
  auto suggestion = error->localizedRecoverySuggestion();
  json["suggestion"] = suggestion ? Json(*suggestion) : Json();
  std::string path = errorPath(error);
  json["path"] = path.empty() ? Json() : Json(path);
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
