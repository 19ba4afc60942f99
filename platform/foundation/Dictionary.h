#pragma once

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/DictionaryEntries.h"
#include "platform/foundation/Object.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

class MutableDictionary;

// Key-value pairs (NSDictionary), kept in insertion order. Keys are compared
// with isEqual; the dictionaries that cross a connection are small (messages,
// user info, update records), so lookups scan.
class Dictionary : public Object {
  QX_DECLARE_CLASS()

 public:
  using Entry = DictionaryEntries::Entry;

  Dictionary() = default;
  explicit Dictionary(DictionaryEntries entries) : entries_(std::move(entries)) {}

  static std::shared_ptr<Dictionary> make() { return ObjectArena::make<Dictionary>(); }
  static std::shared_ptr<Dictionary> make(DictionaryEntries entries) {
    return ObjectArena::make<Dictionary>(std::move(entries));
  }
  // Builds from string keys: Dictionary::withStringKeys({{"a", value}, ...}).
  static std::shared_ptr<Dictionary> withStringKeys(
      std::initializer_list<std::pair<std::string_view, ObjectPtr>> entries);
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  std::size_t count() const { return entries_.size(); }
  const DictionaryEntries& entries() const { return entries_; }
  ObjectPtr objectForKey(const Object& key) const;
  ObjectPtr objectForKey(std::string_view key) const;
  template <class T>
  std::shared_ptr<T> objectForKeyAs(std::string_view key) const {
    return std::dynamic_pointer_cast<T>(objectForKey(key));
  }

  std::shared_ptr<Dictionary> copy() const { return make(entries_); }
  std::shared_ptr<MutableDictionary> mutableCopy() const;

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override { return entries_.size(); }
  std::string description() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;

 protected:
  // Reads NS.keys and NS.objects into `entries`; false (and a failed coder)
  // when they disagree.
  static bool decodeEntries(KeyedUnarchiver& coder, DictionaryEntries& entries);

  DictionaryEntries entries_;
};

using DictionaryPtr = std::shared_ptr<Dictionary>;

}  // namespace qx
