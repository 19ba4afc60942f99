#include "model/QXFileSizeItem.h"

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"

QX_DEFINE_CLASS(QXFileSizeItem, "QXFileSizeItem", qx::Object)

qx::ObjectPtr QXFileSizeItem::initWithCoder(qx::KeyedUnarchiver& coder) {
  auto item = make(coder.decodeIntegerForKey("size"));
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
