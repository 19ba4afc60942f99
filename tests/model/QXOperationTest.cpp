// The errors the service hands out: a failing step, and a step's error wrapped under an
// operation's title. The ACL worker's tests check the wrapping of real steps (title,
// suggestion, URL); these the edge cases.
#include <gtest/gtest.h>

#include <cerrno>

#include "model/QXOperation.h"
#include "platform/foundation/MutableDictionary.h"
#include "platform/foundation/String.h"
#include "platform/foundation/Url.h"

namespace {

using qx::Error;
using qx::ErrorPtr;

std::string stringFor(const ErrorPtr& error, std::string_view key) {
  auto value = error->userInfo()->objectForKeyAs<qx::String>(key);
  return value ? value->str() : "<none>";
}

ErrorPtr cocoaError(int64_t code, ErrorPtr underlying = nullptr) {
  auto info = qx::MutableDictionary::make();
  info->setObject(qx::str("The file couldn\u2019t be saved."), qx::kLocalizedDescriptionKey);
  if (underlying) info->setObject(underlying, qx::kUnderlyingErrorKey);
  return Error::errorWithDomain(qx::kCocoaErrorDomain, code, info);
}

ErrorPtr posix(int64_t code) {
  return Error::errorWithDomain(qx::kPOSIXErrorDomain, code);
}

TEST(QXOperationErrno, TheStepDescribesTheSystemTextSuggestsAndThePathBecomesAUrl) {
  const int unparsable = static_cast<int>(0x80000002u);  // a membership status, kept as the code
  // code, path, then the suggestion, the URL's path and the number of keys
  const std::tuple<int, const char*, std::string> cases[] = {
      {ENOENT, "/tmp/a b", "No such file or directory\n/tmp/a b, 3 keys"},
      {0, nullptr, "Success\n<none>, 2 keys"},  // zero is still an error
      {EACCES, "", "Permission denied\n<none>, 2 keys"},
      {EPERM, "/secret/path", "Operation not permitted\n/secret/path, 3 keys"},  // never in texts
      {EIO, "/tmp/caf\xe9", "Input/output error\n/tmp/caf\xe9, 3 keys"},  // not UTF-8: as bytes
      {unparsable, "/x", "Unknown error " + std::to_string(unparsable) + "\n/x, 3 keys"},
  };
  for (const auto& [code, path, expected] : cases) {
    ErrorPtr error = QXOperation::errorWithErrno(code, "Step failed.", path);
    ASSERT_TRUE(error);
    auto url = error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey);
    EXPECT_EQ(error->domain() + " " + std::to_string(error->code()) + " " +
                  error->localizedDescription() + "\n" +
                  error->localizedRecoverySuggestion().value_or("<none>") + "\n" +
                  (url ? url->path() : "<none>") + ", " +
                  std::to_string(error->userInfo()->count()) + " keys",
              std::string(qx::kPOSIXErrorDomain) + " " + std::to_string(code) + " Step failed.\n" +
                  expected);
  }
}

TEST(QXOperationWrap, TheTitleDescribesTheStepSuggestsAndOtherKeysStay) {
  ErrorPtr step = QXOperation::errorWithErrno(ENOENT, "Step.", "/tmp/x");
  ErrorPtr wrapped = QXOperation::errorWithError(step, "Title");
  EXPECT_FALSE(wrapped->underlyingError());  // the inner error is not attached
  EXPECT_EQ(step->localizedDescription(), "Step.");
  // Without an inner suggestion, no trailing space.
  EXPECT_EQ(QXOperation::errorWithError(cocoaError(4), "Title")->localizedRecoverySuggestion(),
            "The file couldn\u2019t be saved.");

  auto info = qx::MutableDictionary::make();
  info->setObject(qx::str("extra"), "QXSomethingElse");
  info->setObject(posix(EIO), qx::kUnderlyingErrorKey);
  info->setObject(qx::str("inner"), qx::kLocalizedDescriptionKey);
  ErrorPtr kept =
      QXOperation::errorWithError(Error::errorWithDomain(qx::kCocoaErrorDomain, 4, info), "Title");
  EXPECT_EQ(stringFor(kept, "QXSomethingElse"), "extra");
  ASSERT_TRUE(kept->underlyingError());
  EXPECT_EQ(kept->underlyingError()->code(), EIO);
  EXPECT_EQ(stringFor(kept, qx::kLocalizedDescriptionKey), "Title");
  EXPECT_EQ(stringFor(kept, qx::kLocalizedRecoverySuggestionErrorKey), "inner");
}

TEST(QXOperationWrap, PermissionFailuresBecomePosix13) {
  const std::string_view posixDomain = qx::kPOSIXErrorDomain, cocoa = qx::kCocoaErrorDomain;
  // clang-format off
  const std::tuple<const char*, ErrorPtr, std::string_view, int64_t> cases[] = {
      {"write no permission", cocoaError(513), posixDomain, EACCES},
      {"read no permission", cocoaError(257), posixDomain, EACCES},
      {"read no permission over POSIX 2", cocoaError(257, posix(ENOENT)), posixDomain, EACCES},
      {"write no permission over POSIX 1", cocoaError(513, posix(EPERM)), posixDomain, EACCES},
      {"cocoa 4 over POSIX 13", cocoaError(4, posix(EACCES)), posixDomain, EACCES},
      {"cocoa 4 over POSIX 2", cocoaError(4, posix(ENOENT)), cocoa, 4},
      {"cocoa 4 over POSIX 1", cocoaError(4, posix(EPERM)), cocoa, 4},
      {"cocoa 4 over a cocoa error", cocoaError(4, cocoaError(513)), cocoa, 4},
      {"cocoa 260 alone", cocoaError(260), cocoa, 260},
      {"POSIX 1 alone", posix(EPERM), posixDomain, EPERM},
      {"POSIX 2 alone", posix(ENOENT), posixDomain, ENOENT},
  };
  // clang-format on
  for (const auto& [what, inner, domain, code] : cases) {
    ErrorPtr wrapped = QXOperation::errorWithError(inner, "Title");
    EXPECT_EQ(wrapped->domain(), domain) << what;
    EXPECT_EQ(wrapped->code(), code) << what;
  }
}

}  // namespace
