// A worker's error as one line, so that one literal states a whole failure.
#pragma once

#include <string.h>

#include <string>

#include "platform/foundation/Foundation.h"

namespace qx::test {

// "ENOENT: <description> | <recovery suggestion>", or "no error".
inline std::string errorText(const ErrorPtr& error) {
  if (!error) return "no error";
  const char* name = strerrorname_np(static_cast<int>(error->code()));
  return (name ? name : std::to_string(error->code())) + ": " + error->localizedDescription() +
         " | " + error->localizedRecoverySuggestion().value_or("-");
}

}  // namespace qx::test
