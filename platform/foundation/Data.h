#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/foundation/Object.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

// An immutable byte buffer (NSData).
class Data final : public Object {
  QX_DECLARE_CLASS()

 public:
  Data() = default;
  explicit Data(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  Data(const void* bytes, std::size_t length)
      : bytes_(static_cast<const uint8_t*>(bytes), static_cast<const uint8_t*>(bytes) + length) {}

  static std::shared_ptr<Data> make(std::vector<uint8_t> bytes) {
    return ObjectArena::make<Data>(std::move(bytes));
  }

  const std::vector<uint8_t>& bytes() const { return bytes_; }
  std::span<const uint8_t> span() const { return bytes_; }
  const uint8_t* data() const { return bytes_.data(); }
  std::size_t length() const { return bytes_.size(); }

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;
  std::string description() const override;

 private:
  std::vector<uint8_t> bytes_;
};

using DataPtr = std::shared_ptr<Data>;

}  // namespace qx
