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
  std::vector<Entry> pairs;
  pairs.reserve(entries.size());
  for (const auto& [key, value] : entries) pairs.emplace_back(str(std::string(key)), value);
  return make(std::move(pairs));
}

std::optional<std::vector<Dictionary::Entry>> Dictionary::decodeEntries(KeyedUnarchiver& coder) {
  auto keys = coder.decodeArrayOfObjectsForKey("NS.keys");
  auto objects = coder.decodeArrayOfObjectsForKey("NS.objects");
  if (!keys || !objects) return std::nullopt;
  if (keys->size() != objects->size()) {
    coder.failWithError("NS.keys and NS.objects of a dictionary differ in length");
    return std::nullopt;
  }
  std::vector<Dictionary::Entry> entries;
  entries.reserve(keys->size());
  for (std::size_t i = 0; i < keys->size(); ++i) {
    entries.emplace_back(std::move((*keys)[i]), std::move((*objects)[i]));
  }
  return entries;
}

ObjectPtr Dictionary::initWithCoder(KeyedUnarchiver& coder) {
  auto entries = decodeEntries(coder);
  if (!entries) return nullptr;
  return make(std::move(*entries));
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
  std::vector<ObjectPtr> keys;
  std::vector<ObjectPtr> objects;
  keys.reserve(entries_.size());
  objects.reserve(entries_.size());
  for (const auto& [k, v] : entries_) {
    keys.push_back(k);
    objects.push_back(v);
  }
  coder.encodeArrayOfObjects(keys, "NS.keys");
  coder.encodeArrayOfObjects(objects, "NS.objects");
}

}  // namespace qx
