#include "platform/foundation/Data.h"

#include <string>
#include <string_view>

namespace qx {

QX_DEFINE_CLASS(Data, "NSData", Object)

bool Data::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Data*>(&other);
  return that != nullptr && that->bytes_ == bytes_;
}

std::size_t Data::hash() const {
  return std::hash<std::string_view>()(
      std::string_view(reinterpret_cast<const char*>(bytes_.data()), bytes_.size()));
}

std::string Data::description() const {
  static const char digits[] = "0123456789abcdef";
  std::string text = "<";
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i > 0 && i % 4 == 0) text += ' ';
    text += digits[bytes_[i] >> 4];
    text += digits[bytes_[i] & 15];
  }
  return text + ">";
}

}  // namespace qx
