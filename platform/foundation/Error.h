#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/Dictionary.h"
#include "platform/foundation/Object.h"

namespace qx {

inline constexpr std::string_view kPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view kLocalizedRecoverySuggestionErrorKey =
    "NSLocalizedRecoverySuggestion";
inline constexpr std::string_view kLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr std::string_view kURLErrorKey = "NSURL";
inline constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";

// The Cocoa codes that the service maps or produces.
inline constexpr int64_t kFileReadNoPermissionError = 257;
inline constexpr int64_t kFileWriteNoPermissionError = 513;
inline constexpr int64_t kCoderReadCorruptError = 4864;

// An error object (NSError): domain, code and user info.
class Error final : public Object {
  QX_DECLARE_CLASS()

 public:
  Error(std::string domain, int64_t code, DictionaryPtr userInfo)
      : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

  static std::shared_ptr<Error> errorWithDomain(std::string_view domain, int64_t code,
                                                DictionaryPtr userInfo = nullptr) {
    return std::make_shared<Error>(std::string(domain), code, std::move(userInfo));
  }
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  const std::string& domain() const { return domain_; }
  int64_t code() const { return code_; }
  // Never nil: an error made without user info answers an empty dictionary.
  DictionaryPtr userInfo() const;

  // The user info's description, else the platform's fallback sentence
  // ("The operation couldn’t be completed. ...").
  std::string localizedDescription() const;
  // The user info's recovery suggestion, or nullopt.
  std::optional<std::string> localizedRecoverySuggestion() const;
  std::shared_ptr<Error> underlyingError() const;

  bool isEqual(const Object& other) const override;
  std::string description() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;

 private:
  std::string domain_;
  int64_t code_;
  DictionaryPtr userInfo_;
};

using ErrorPtr = std::shared_ptr<Error>;

}  // namespace qx
