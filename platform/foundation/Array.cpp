#include "platform/foundation/Array.h"

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/MutableArray.h"

namespace qx {

QX_DEFINE_CLASS(Array, "NSArray", Object)

ObjectPtr Array::initWithCoder(KeyedUnarchiver& coder) {
  auto objects = coder.decodeArrayOfObjectsForKey("NS.objects");
  if (!objects) return nullptr;
  return make(std::move(*objects));
}

std::shared_ptr<MutableArray> Array::mutableCopy() const {
  return std::make_shared<MutableArray>(objects_);
}

bool Array::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Array*>(&other);
  if (that == nullptr || that->objects_.size() != objects_.size()) return false;
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    if (!qx::isEqual(objects_[i], that->objects_[i])) return false;
  }
  return true;
}

std::string Array::description() const {
  std::string text = "(";
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    if (i > 0) text += ", ";
    text += objects_[i] ? objects_[i]->description() : "nil";
  }
  return text + ")";
}

void Array::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeArrayOfObjects(objects_, "NS.objects");
}

}  // namespace qx
