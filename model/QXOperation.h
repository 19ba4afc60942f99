#pragma once

#include <string>
#include <string_view>

#include "platform/foundation/Error.h"

// Builds every error the service hands to a client. A failing step makes one
// with errorWithErrno (its sentence as description, the system's text for the
// number as recovery suggestion); the operation then wraps it once with
// errorWithError under its title. Neither call fails.
class QXOperation {
 public:
  QXOperation() = delete;

  // Domain "NSPOSIXErrorDomain", code `errnum`. `path` (may be null) only fills
  // the NSURL key; callers put it into `description` themselves.
  static qx::ErrorPtr errorWithErrno(int errnum, const std::string& description, const char* path);

  // `description` becomes the description, the inner error's description and
  // suggestion become the recovery suggestion, every other inner key is kept,
  // and permission failures are mapped to POSIX 13.
  static qx::ErrorPtr errorWithError(const qx::ErrorPtr& error, const std::string& description);

  // A step's sentence: `format` with its first "%s" or "%@" replaced by
  // `path` (unchanged when it has neither).
  static std::string stepDescription(std::string_view format, std::string_view path);
};
