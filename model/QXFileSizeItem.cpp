#include "model/QXFileSizeItem.h"

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/ObjectArena.h"

QX_DEFINE_CLASS(QXFileSizeItem, "QXFileSizeItem", qx::Object)

qx::ObjectPtr QXFileSizeItem::initWithCoder(qx::KeyedUnarchiver& coder) {
  // Made in the decoding's arena, as the objects around it are.
  auto item = qx::ObjectArena::make<QXFileSizeItem>(coder.decodeIntegerForKey("size"));
  // The decoded flag wins over the busy state of a fresh item.
  item->setBusy(coder.decodeBoolForKey("busy"));
  if (coder.hasFailed()) return nullptr;
  return item;
}

void QXFileSizeItem::encodeWithCoder(qx::KeyedArchiver& coder) const {
  encodeValues(coder, size_, busy_);
}

std::string QXFileSizeItem::description() const {
  return "<QXFileSizeItem size=" + std::to_string(size_) + (busy_ ? " busy" : "") + ">";
}
