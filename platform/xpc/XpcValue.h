#pragma once

#include <memory>
#include <type_traits>

#include "platform/foundation/Number.h"
#include "platform/foundation/Object.h"

namespace qx {

// How one argument of a protocol method is declared: the class it is declared
// as (NSNumber for a BOOL), and whether it is a BOOL.
struct XpcArgumentKind {
  const ClassInfo* declaredClass = nullptr;
  bool isBool = false;
};

// Converts between the C++ parameter types of protocol methods and the objects
// that cross the connection: std::shared_ptr<T> of an archivable class T, and
// bool (a boolean NSNumber; nil reads as NO).
template <class T>
struct XpcValue;

template <class T>
struct XpcValue<std::shared_ptr<T>> {
  static_assert(std::is_base_of_v<Object, T>, "protocol arguments are objects or bool");
  static XpcArgumentKind kind() { return {&T::classInfo(), false}; }
  static ObjectPtr toObject(const std::shared_ptr<T>& value) { return value; }
  // False when `object` is not nil and not a T.
  static bool fromObject(const ObjectPtr& object, std::shared_ptr<T>& value) {
    value = std::dynamic_pointer_cast<T>(object);
    return value || !object;
  }
};

template <>
struct XpcValue<bool> {
  static XpcArgumentKind kind() { return {&Number::classInfo(), true}; }
  static ObjectPtr toObject(bool value) { return Number::numberWithBool(value); }
  static bool fromObject(const ObjectPtr& object, bool& value) {
    auto number = std::dynamic_pointer_cast<Number>(object);
    value = number && number->boolValue();
    return number || !object;
  }
};

}  // namespace qx
