#include "platform/foundation/MutableArray.h"

#include <stdexcept>

#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

QX_DEFINE_CLASS(MutableArray, "NSMutableArray", Array)

ObjectPtr MutableArray::initWithCoder(KeyedUnarchiver& coder) {
  auto objects = coder.decodeArrayOfObjectsForKey("NS.objects");
  if (!objects) return nullptr;
  return ObjectArena::make<MutableArray>(std::move(*objects));
}

void MutableArray::insertObject(ObjectPtr object, std::size_t index) {
  if (index > objects_.size()) throw std::out_of_range("MutableArray::insertObject");
  objects_.insert(objects_.begin() + static_cast<std::ptrdiff_t>(index), std::move(object));
}

void MutableArray::removeObjectAtIndex(std::size_t index) {
  if (index >= objects_.size()) throw std::out_of_range("MutableArray::removeObjectAtIndex");
  objects_.erase(objects_.begin() + static_cast<std::ptrdiff_t>(index));
}

}  // namespace qx
