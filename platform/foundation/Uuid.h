#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/foundation/Object.h"

namespace qx {

// A 128-bit universally unique identifier (NSUUID), on libuuid.
class Uuid final : public Object {
  QX_DECLARE_CLASS()

 public:
  using Bytes = std::array<uint8_t, 16>;

  explicit Uuid(const Bytes& bytes) : bytes_(bytes) {}

  static std::shared_ptr<Uuid> make();  // a new random identifier
  static std::shared_ptr<Uuid> withBytes(const uint8_t bytes[16]);
  // Parses the canonical 36-character form; nil when it does not parse.
  static std::shared_ptr<Uuid> withString(std::string_view text);
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  const Bytes& bytes() const { return bytes_; }
  void getUUIDBytes(uint8_t out[16]) const;
  // Upper-case canonical form, e.g. "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5".
  std::string UUIDString() const;

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;
  std::string description() const override { return UUIDString(); }
  void encodeWithCoder(KeyedArchiver& coder) const override;

 private:
  Bytes bytes_;
};

using UuidPtr = std::shared_ptr<Uuid>;

}  // namespace qx
