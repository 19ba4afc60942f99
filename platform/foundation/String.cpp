#include "platform/foundation/String.h"

namespace qx {

QX_DEFINE_CLASS(String, "NSString", Object)

std::shared_ptr<String> String::withFileSystemRepresentation(const char* bytes,
                                                            std::size_t length) {
  return make(std::string(bytes, length));
}

bool String::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const String*>(&other);
  return that != nullptr && that->value_ == value_;
}

}  // namespace qx
