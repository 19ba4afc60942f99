#pragma once

#include <cstdint>
#include <memory>

#include "platform/foundation/Object.h"

namespace qx {

// A boxed boolean, signed integer or real number (NSNumber).
class Number final : public Object {
  QX_DECLARE_CLASS()

 public:
  enum class Kind { Bool, Integer, Real };

  static std::shared_ptr<Number> numberWithBool(bool value);
  static std::shared_ptr<Number> numberWithInteger(int64_t value);
  static std::shared_ptr<Number> numberWithUnsignedInt(uint32_t value) {
    return numberWithInteger(value);
  }
  static std::shared_ptr<Number> numberWithDouble(double value);

  Number(Kind kind, int64_t integer, double real) : kind_(kind), integer_(integer), real_(real) {}

  Kind kind() const { return kind_; }
  bool boolValue() const;
  int32_t intValue() const { return static_cast<int32_t>(integerValue()); }
  uint32_t unsignedIntValue() const { return static_cast<uint32_t>(integerValue()); }
  int64_t integerValue() const;
  double doubleValue() const;

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;
  std::string description() const override;

 private:
  Kind kind_;
  int64_t integer_;
  double real_;
};

using NumberPtr = std::shared_ptr<Number>;

}  // namespace qx
