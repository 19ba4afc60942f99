#pragma once

#include "platform/foundation/Array.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

// NSMutableArray.
class MutableArray final : public Array {
  QX_DECLARE_CLASS()

 public:
  MutableArray() = default;
  explicit MutableArray(std::vector<ObjectPtr> objects) : Array(std::move(objects)) {}

  static std::shared_ptr<MutableArray> make(std::size_t capacity = 0) {
    auto array = ObjectArena::make<MutableArray>();
    array->objects_.reserve(capacity);
    return array;
  }
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  void addObject(ObjectPtr object) { objects_.push_back(std::move(object)); }
  void insertObject(ObjectPtr object, std::size_t index);
  void removeObjectAtIndex(std::size_t index);
  void removeAllObjects() { objects_.clear(); }
  void setObject(ObjectPtr object, std::size_t index) { objects_.at(index) = std::move(object); }
  std::vector<ObjectPtr>& mutableObjects() { return objects_; }
};

using MutableArrayPtr = std::shared_ptr<MutableArray>;

}  // namespace qx
