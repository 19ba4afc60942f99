#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/foundation/Object.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

// An immutable string of bytes, UTF-8 by convention (file names are bytes on
// Linux, so a file-system representation always converts). At the wire,
// invalid UTF-8 sequences are written as U+FFFD.
class String final : public Object {
  QX_DECLARE_CLASS()

 public:
  explicit String(std::string value) : value_(std::move(value)) {}

  static std::shared_ptr<String> make(std::string value) {
    return ObjectArena::make<String>(std::move(value));
  }
  // `stringWithFileSystemRepresentation:length:`: never fails on Linux.
  static std::shared_ptr<String> withFileSystemRepresentation(const char* bytes,
                                                              std::size_t length);

  const std::string& str() const { return value_; }
  const char* UTF8String() const { return value_.c_str(); }
  std::size_t length() const { return value_.size(); }

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override { return std::hash<std::string>()(value_); }
  std::string description() const override { return value_; }

 private:
  std::string value_;
};

using StringPtr = std::shared_ptr<String>;

inline StringPtr str(std::string value) {
  return String::make(std::move(value));
}

}  // namespace qx
