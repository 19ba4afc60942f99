#include "model/QXOperation.h"

#include <cstring>

#include "platform/foundation/MutableDictionary.h"
#include "platform/foundation/String.h"
#include "platform/foundation/Url.h"

namespace {

struct DomainAndCode {
  std::string domain;
  int64_t code;
};

std::string errorText(int errnum) {
  char buffer[256];
  // GNU strerror_r: answers either the buffer or a static text.
  return strerror_r(errnum, buffer, sizeof buffer);
}

bool isPOSIX(const qx::ErrorPtr& error, int64_t code) {
  return error && error->domain() == qx::kPOSIXErrorDomain && error->code() == code;
}

// The first rule that applies decides.
DomainAndCode mappedDomainAndCode(const qx::Error& error) {
  const std::string& domain = error.domain();
  const int64_t code = error.code();
  const bool cocoa = domain == qx::kCocoaErrorDomain;
  if (cocoa &&
      (code == qx::kFileWriteNoPermissionError || code == qx::kFileReadNoPermissionError)) {
    return {std::string(qx::kPOSIXErrorDomain), EACCES};
  }
  qx::ErrorPtr underlying = error.underlyingError();
  if (underlying && underlying->domain() == qx::kPOSIXErrorDomain) {
    if (underlying->code() == EACCES) return {std::string(qx::kPOSIXErrorDomain), EACCES};
    return {domain, code};
  }
  // Kept as the operation has always tested it, although the rules above have
  // already taken both cases.
  if (cocoa && code == qx::kFileReadNoPermissionError) {
    return {std::string(qx::kPOSIXErrorDomain), EPERM};
  }
  if (isPOSIX(underlying, EPERM)) return {std::string(qx::kPOSIXErrorDomain), EPERM};
  return {domain, code};
}

}  // namespace

qx::ErrorPtr QXOperation::errorWithErrno(int errnum, const std::string& description,
                                         const char* path) {
  auto userInfo = qx::MutableDictionary::make();
  userInfo->setObject(qx::str(description), qx::kLocalizedDescriptionKey);
  userInfo->setObject(qx::str(errorText(errnum)), qx::kLocalizedRecoverySuggestionErrorKey);
  if (path != nullptr && path[0] != '\0') {
    auto string = qx::String::withFileSystemRepresentation(path, std::strlen(path));
    if (string && string->length() > 0) {
      userInfo->setObject(qx::Url::fileURLWithPath(string->str()), qx::kURLErrorKey);
    }
  }
  return qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, errnum, userInfo->copy());
}

qx::ErrorPtr QXOperation::errorWithError(const qx::ErrorPtr& error,
                                         const std::string& description) {
  if (!error) {
    // Nothing to wrap: the title alone, so that a caller's slip still yields an error.
    auto userInfo =
        qx::Dictionary::withStringKeys({{qx::kLocalizedDescriptionKey, qx::str(description)}});
    return qx::Error::errorWithDomain(qx::kPOSIXErrorDomain, 0, userInfo);
  }
  std::string suggestion = error->localizedDescription();
  if (auto inner = error->localizedRecoverySuggestion()) suggestion += " " + *inner;

  auto userInfo = error->userInfo()->mutableCopy();
  userInfo->setObject(qx::str(description), qx::kLocalizedDescriptionKey);
  userInfo->setObject(qx::str(suggestion), qx::kLocalizedRecoverySuggestionErrorKey);

  DomainAndCode mapped = mappedDomainAndCode(*error);
  return qx::Error::errorWithDomain(mapped.domain, mapped.code, userInfo->copy());
}

std::string QXOperation::stepDescription(std::string_view format, std::string_view path) {
  std::string text(format);
  std::size_t at = text.find('%');
  while (at != std::string::npos && at + 1 < text.size() && text[at + 1] != 's' &&
         text[at + 1] != '@')
    at = text.find('%', at + 1);
  if (at != std::string::npos && at + 1 < text.size()) text.replace(at, 2, path);
  return text;
}
