#pragma once

#include "platform/foundation/Dictionary.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

// NSMutableDictionary.
class MutableDictionary final : public Dictionary {
  QX_DECLARE_CLASS()

 public:
  MutableDictionary() = default;
  explicit MutableDictionary(DictionaryEntries entries) : Dictionary(std::move(entries)) {}

  static std::shared_ptr<MutableDictionary> make() {
    return ObjectArena::make<MutableDictionary>();
  }
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  // Replaces the value of an equal key, else appends the pair.
  void setObject(ObjectPtr object, ObjectPtr key);
  void setObject(ObjectPtr object, std::string_view key);
  void removeObjectForKey(std::string_view key);
};

using MutableDictionaryPtr = std::shared_ptr<MutableDictionary>;

}  // namespace qx
