#include "platform/foundation/Error.h"

#include <cstring>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/String.h"
#include "platform/foundation/Url.h"
#include "platform/foundation/Uuid.h"

namespace qx {

QX_DEFINE_CLASS(Error, "NSError", Object)

namespace {

std::optional<std::string> stringValue(const DictionaryPtr& userInfo, std::string_view key) {
  if (!userInfo) return std::nullopt;
  auto value = userInfo->objectForKeyAs<String>(key);
  if (!value) return std::nullopt;
  return value->str();
}

// What a user info dictionary may hold when an error is decoded: property-list
// values plus the URLs, identifiers and nested errors that errors carry.
const ClassSet& userInfoClasses() {
  static const ClassSet classes{
      &Dictionary::classInfo(), &Array::classInfo(),     &String::classInfo(),
      &Number::classInfo(),     &Data::classInfo(),      &Url::classInfo(),
      &Uuid::classInfo(),       &IndexPath::classInfo(), &Error::classInfo()};
  return classes;
}

}  // namespace

ObjectPtr Error::initWithCoder(KeyedUnarchiver& coder) {
  auto domain = cast<String>(coder.decodeObjectOfClassForKey(String::classInfo(), "NSDomain"));
  int64_t code = coder.decodeIntegerForKey("NSCode");
  auto userInfo =
      cast<Dictionary>(coder.decodeObjectOfClassesForKey(userInfoClasses(), "NSUserInfo"));
  if (coder.hasFailed()) return nullptr;
  if (!domain) {
    coder.failWithError("NSError without a string under NSDomain");
    return nullptr;
  }
  return errorWithDomain(domain->str(), code, std::move(userInfo));
}

DictionaryPtr Error::userInfo() const {
  return userInfo_ ? userInfo_ : Dictionary::make();
}

std::string Error::localizedDescription() const {
  if (auto text = stringValue(userInfo_, kLocalizedDescriptionKey)) return *text;
  const std::string prefix = "The operation couldn\u2019t be completed.";
  if (auto reason = stringValue(userInfo_, kLocalizedFailureReasonErrorKey)) {
    return prefix + " " + *reason;
  }
  if (domain_ == kPOSIXErrorDomain && code_ > 0 && code_ < 4096) {
    return prefix + " " + std::strerror(static_cast<int>(code_));
  }
  return prefix + " (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::optional<std::string> Error::localizedRecoverySuggestion() const {
  return stringValue(userInfo_, kLocalizedRecoverySuggestionErrorKey);
}

std::shared_ptr<Error> Error::underlyingError() const {
  return userInfo_ ? userInfo_->objectForKeyAs<Error>(kUnderlyingErrorKey) : nullptr;
}

bool Error::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Error*>(&other);
  return that != nullptr && that->domain_ == domain_ && that->code_ == code_ &&
         qx::isEqual(that->userInfo_, userInfo_);
}

std::string Error::description() const {
  return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" +
         localizedDescription() + "\"";
}

void Error::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(str(domain_), "NSDomain");
  coder.encodeInteger(code_, "NSCode");
  coder.encodeObject(userInfo_, "NSUserInfo");
}

}  // namespace qx
