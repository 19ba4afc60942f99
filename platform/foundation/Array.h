#pragma once

#include <memory>
#include <vector>

#include "platform/foundation/Object.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

class MutableArray;

// An ordered list of objects (NSArray). Elements may be nil only where a
// protocol says so (the arguments of a message).
class Array : public Object {
  QX_DECLARE_CLASS()

 public:
  Array() = default;
  explicit Array(std::vector<ObjectPtr> objects) : objects_(std::move(objects)) {}

  static std::shared_ptr<Array> make(std::vector<ObjectPtr> objects = {}) {
    return ObjectArena::make<Array>(std::move(objects));
  }
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  std::size_t count() const { return objects_.size(); }
  bool empty() const { return objects_.empty(); }
  const ObjectPtr& objectAtIndex(std::size_t index) const { return objects_.at(index); }
  const ObjectPtr& operator[](std::size_t index) const { return objects_.at(index); }
  const std::vector<ObjectPtr>& objects() const { return objects_; }
  auto begin() const { return objects_.begin(); }
  auto end() const { return objects_.end(); }

  // The element at `index` as a T, or nil when absent or of another class.
  template <class T>
  std::shared_ptr<T> objectAs(std::size_t index) const {
    return index < objects_.size() ? std::dynamic_pointer_cast<T>(objects_[index]) : nullptr;
  }

  std::shared_ptr<Array> copy() const { return make(objects_); }
  std::shared_ptr<MutableArray> mutableCopy() const;

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override { return objects_.size(); }
  std::string description() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;

 protected:
  std::vector<ObjectPtr> objects_;
};

using ArrayPtr = std::shared_ptr<Array>;

}  // namespace qx
