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

TEST(QXOperationErrno, DescribesTheStepAndTheSystemText) {
  ErrorPtr error = QXOperation::errorWithErrno(ENOENT, "Couldn't do it.", "/tmp/a b");
  EXPECT_EQ(error->domain(), qx::kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(error->localizedDescription(), "Couldn't do it.");
  EXPECT_EQ(error->localizedRecoverySuggestion(), "No such file or directory");
  auto url = error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), "/tmp/a b");
  EXPECT_EQ(error->userInfo()->count(), 3u);
}

TEST(QXOperationErrno, ZeroIsStillAnError) {
  ErrorPtr error = QXOperation::errorWithErrno(0, "Nothing wrong.", nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 0);
  EXPECT_EQ(error->localizedRecoverySuggestion(), "Success");
}

TEST(QXOperationErrno, EmptyOrMissingPathAddsNoUrl) {
  for (const char* path : {static_cast<const char*>(nullptr), ""}) {
    ErrorPtr error = QXOperation::errorWithErrno(EACCES, "Denied.", path);
    EXPECT_FALSE(error->userInfo()->objectForKey(qx::kURLErrorKey));
    EXPECT_EQ(error->userInfo()->count(), 2u);
  }
}

TEST(QXOperationErrno, PathIsNeverInsertedIntoTheTexts) {
  ErrorPtr error = QXOperation::errorWithErrno(EPERM, "Step failed.", "/secret/path");
  EXPECT_EQ(error->localizedDescription(), "Step failed.");
  EXPECT_EQ(error->localizedRecoverySuggestion(), "Operation not permitted");
}

TEST(QXOperationErrno, NonUtf8PathKeepsItsBytes) {
  const char path[] = "/tmp/caf\xe9";
  ErrorPtr error = QXOperation::errorWithErrno(EIO, "Step failed.", path);
  auto url = error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), path);
}

TEST(QXOperationErrno, MembershipStatusAndFixedNumbersAreKeptAsCodes) {
  const int unparsable = static_cast<int>(0x80000002u);
  ErrorPtr error =
      QXOperation::errorWithErrno(unparsable, "Couldn't retrieve selected user identifier.", "/x");
  EXPECT_EQ(error->code(), unparsable);
  EXPECT_EQ(error->localizedRecoverySuggestion(), "Unknown error " + std::to_string(unparsable));
}

TEST(QXOperationWrap, TitleBecomesDescriptionAndStepMovesToSuggestion) {
  ErrorPtr step = QXOperation::errorWithErrno(
      ENOENT, "Couldn't retrieve file stat for file at path \"/tmp/x\".", "/tmp/x");
  ErrorPtr wrapped =
      QXOperation::errorWithError(step, "Error retrieving file Access Control List entries");
  EXPECT_EQ(wrapped->domain(), qx::kPOSIXErrorDomain);
  EXPECT_EQ(wrapped->code(), ENOENT);
  EXPECT_EQ(wrapped->localizedDescription(), "Error retrieving file Access Control List entries");
  EXPECT_EQ(wrapped->localizedRecoverySuggestion(),
            "Couldn't retrieve file stat for file at path \"/tmp/x\". No such file or directory");
  auto url = wrapped->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), "/tmp/x");
  // The inner error is not attached as an underlying error.
  EXPECT_FALSE(wrapped->underlyingError());
  // The inner error is left as it was.
  EXPECT_EQ(step->localizedDescription(),
            "Couldn't retrieve file stat for file at path \"/tmp/x\".");
}

TEST(QXOperationWrap, NoInnerSuggestionMeansNoTrailingSpace) {
  ErrorPtr wrapped = QXOperation::errorWithError(cocoaError(4), "Title");
  EXPECT_EQ(wrapped->localizedRecoverySuggestion(), "The file couldn\u2019t be saved.");
}

TEST(QXOperationWrap, KeepsEveryOtherInnerKey) {
  auto info = qx::MutableDictionary::make();
  info->setObject(qx::str("extra"), "QXSomethingElse");
  info->setObject(posix(EIO), qx::kUnderlyingErrorKey);
  info->setObject(qx::str("inner"), qx::kLocalizedDescriptionKey);
  ErrorPtr wrapped =
      QXOperation::errorWithError(Error::errorWithDomain(qx::kCocoaErrorDomain, 4, info), "Title");
  EXPECT_EQ(stringFor(wrapped, "QXSomethingElse"), "extra");
  ASSERT_TRUE(wrapped->underlyingError());
  EXPECT_EQ(wrapped->underlyingError()->code(), EIO);
  EXPECT_EQ(stringFor(wrapped, qx::kLocalizedDescriptionKey), "Title");
  EXPECT_EQ(stringFor(wrapped, qx::kLocalizedRecoverySuggestionErrorKey), "inner");
}

struct Mapping {
  const char* what;
  ErrorPtr inner;
  std::string_view domain;
  int64_t code;
};

TEST(QXOperationWrap, MapsPermissionFailuresToPosix13) {
  const Mapping cases[] = {
      {"write no permission", cocoaError(513), qx::kPOSIXErrorDomain, EACCES},
      {"read no permission", cocoaError(257), qx::kPOSIXErrorDomain, EACCES},
      {"read no permission over POSIX 2", cocoaError(257, posix(ENOENT)), qx::kPOSIXErrorDomain,
       EACCES},
      {"write no permission over POSIX 1", cocoaError(513, posix(EPERM)), qx::kPOSIXErrorDomain,
       EACCES},
      {"cocoa 4 over POSIX 13", cocoaError(4, posix(EACCES)), qx::kPOSIXErrorDomain, EACCES},
      {"cocoa 4 over POSIX 2", cocoaError(4, posix(ENOENT)), qx::kCocoaErrorDomain, 4},
      {"cocoa 4 over POSIX 1", cocoaError(4, posix(EPERM)), qx::kCocoaErrorDomain, 4},
      {"cocoa 4 over a cocoa error", cocoaError(4, cocoaError(513)), qx::kCocoaErrorDomain, 4},
      {"cocoa 260 alone", cocoaError(260), qx::kCocoaErrorDomain, 260},
      {"POSIX 1 alone", posix(EPERM), qx::kPOSIXErrorDomain, EPERM},
      {"POSIX 2 alone", posix(ENOENT), qx::kPOSIXErrorDomain, ENOENT},
  };
  for (const Mapping& m : cases) {
    ErrorPtr wrapped = QXOperation::errorWithError(m.inner, "Title");
    EXPECT_EQ(wrapped->domain(), m.domain) << m.what;
    EXPECT_EQ(wrapped->code(), m.code) << m.what;
  }
}

}  // namespace
