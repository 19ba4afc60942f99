#include "platform/foundation/Dictionary.h"

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/MutableDictionary.h"
#include "platform/foundation/String.h"

namespace qx {

QX_DEFINE_CLASS(Dictionary, "NSDictionary", Object)

namespace {

bool keyEquals(const ObjectPtr& key, std::string_view text) {
  auto* string = dynamic_cast<const String*>(key.get());
  return string != nullptr && string->str() == text;
}

}  // namespace

std::shared_ptr<Dictionary> Dictionary::withStringKeys(
    std::initializer_list<std::pair<std::string_view, ObjectPtr>> entries) {
  DictionaryEntries pairs;
  for (const auto& [key, value] : entries) pairs.push_back({str(std::string(key)), value});
  return make(std::move(pairs));
}

bool Dictionary::decodeEntries(KeyedUnarchiver& coder, DictionaryEntries& entries) {
  // Decoded straight into the pairs, each array looked up once: the keys make
  // the pairs, the values fill them in. An absent key counts as empty.
  std::size_t values = 0;
  bool decoded = coder.decodeArrayOfObjectsForKey("NS.keys", [&](std::size_t, ObjectPtr key) {
    entries.push_back({std::move(key), nullptr});
  }) && coder.decodeArrayOfObjectsForKey("NS.objects", [&](std::size_t i, ObjectPtr value) {
    if (i < entries.size()) entries[i].second = std::move(value);
    values = i + 1;
  });
  if (!decoded) return false;
  if (values != entries.size()) {
    coder.failWithError("NS.keys and NS.objects of a dictionary differ in length");
    return false;
  }
  return true;
}

ObjectPtr Dictionary::initWithCoder(KeyedUnarchiver& coder) {
  auto dictionary = make();
  if (!decodeEntries(coder, dictionary->entries_)) return nullptr;
  return dictionary;
}

std::shared_ptr<MutableDictionary> Dictionary::mutableCopy() const {
  return std::make_shared<MutableDictionary>(entries_);
}

ObjectPtr Dictionary::objectForKey(const Object& key) const {
  for (const auto& [k, v] : entries_) {
    if (k && k->isEqual(key)) return v;
  }
  return nullptr;
}

ObjectPtr Dictionary::objectForKey(std::string_view key) const {
  for (const auto& [k, v] : entries_) {
    if (keyEquals(k, key)) return v;
  }
  return nullptr;
}

bool Dictionary::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Dictionary*>(&other);
  if (that == nullptr || that->entries_.size() != entries_.size()) return false;
  for (const auto& [k, v] : entries_) {
    if (!k || !qx::isEqual(that->objectForKey(*k), v)) return false;
  }
  return true;
}

std::string Dictionary::description() const {
  std::string text = "{";
  for (const auto& [k, v] : entries_) {
    if (text.size() > 1) text += "; ";
    text += k ? k->description() : "nil";
    text += " = ";
    text += v ? v->description() : "nil";
  }
  return text + "}";
}

void Dictionary::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeArrayOfObjects(
      entries_.size(), [&](std::size_t i) -> const ObjectPtr& { return entries_[i].first; },
      "NS.keys");
  coder.encodeArrayOfObjects(
      entries_.size(), [&](std::size_t i) -> const ObjectPtr& { return entries_[i].second; },
      "NS.objects");
}

}  // namespace qx
