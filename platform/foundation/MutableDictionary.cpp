#include "platform/foundation/MutableDictionary.h"

#include <algorithm>

#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/String.h"

namespace qx {

QX_DEFINE_CLASS(MutableDictionary, "NSMutableDictionary", Dictionary)

ObjectPtr MutableDictionary::initWithCoder(KeyedUnarchiver& coder) {
  auto dictionary = make();
  if (!decodeEntries(coder, dictionary->entries_)) return nullptr;
  return dictionary;
}

void MutableDictionary::setObject(ObjectPtr object, ObjectPtr key) {
  for (auto& [k, v] : entries_) {
    if (qx::isEqual(k, key)) {
      v = std::move(object);
      return;
    }
  }
  entries_.push_back({std::move(key), std::move(object)});
}

void MutableDictionary::setObject(ObjectPtr object, std::string_view key) {
  setObject(std::move(object), str(std::string(key)));
}

void MutableDictionary::removeObjectForKey(std::string_view key) {
  entries_.eraseIf([&](const Entry& entry) {
    auto* string = dynamic_cast<const String*>(entry.first.get());
    return string != nullptr && string->str() == key;
  });
}

}  // namespace qx
