#include "platform/foundation/Number.h"

#include <cmath>
#include <functional>
#include <string>

#include "platform/foundation/ObjectArena.h"

namespace qx {

QX_DEFINE_CLASS(Number, "NSNumber", Object)

std::shared_ptr<Number> Number::numberWithBool(bool value) {
  return ObjectArena::make<Number>(Kind::Bool, value ? 1 : 0, value ? 1.0 : 0.0);
}

std::shared_ptr<Number> Number::numberWithInteger(int64_t value) {
  return ObjectArena::make<Number>(Kind::Integer, value, static_cast<double>(value));
}

std::shared_ptr<Number> Number::numberWithDouble(double value) {
  // Out-of-range and NaN conversions to an integer are undefined; clamp them.
  int64_t integer = 0;
  if (std::isfinite(value) && value > -9.2e18 && value < 9.2e18) {
    integer = static_cast<int64_t>(value);
  }
  return ObjectArena::make<Number>(Kind::Real, integer, value);
}

bool Number::boolValue() const {
  return kind_ == Kind::Real ? real_ != 0.0 : integer_ != 0;
}

int64_t Number::integerValue() const {
  return integer_;
}

double Number::doubleValue() const {
  return real_;
}

bool Number::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Number*>(&other);
  if (that == nullptr) return false;
  if (kind_ == Kind::Real || that->kind_ == Kind::Real) return real_ == that->real_;
  return integer_ == that->integer_;
}

std::size_t Number::hash() const {
  return std::hash<double>()(real_);
}

std::string Number::description() const {
  switch (kind_) {
    case Kind::Bool:
      return integer_ ? "1" : "0";
    case Kind::Integer:
      return std::to_string(integer_);
    case Kind::Real:
      return std::to_string(real_);
  }
  return {};
}

}  // namespace qx
