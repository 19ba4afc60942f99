#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <utility>
#include <vector>

#include "platform/foundation/Object.h"

namespace qx {

// The key-value pairs of a dictionary, in insertion order. Nearly every
// dictionary that crosses a connection holds one or two pairs (each update
// record of a size report holds two), so up to two live in place and a
// dictionary costs one allocation instead of two; more move to a vector.
// Written here rather than taken from a library so that the client's public
// headers need nothing beyond the standard library.
class DictionaryEntries {
 public:
  using Entry = std::pair<ObjectPtr, ObjectPtr>;

  DictionaryEntries() = default;
  // `count` pairs of nil, to be filled in place.
  explicit DictionaryEntries(std::size_t count);
  DictionaryEntries(std::initializer_list<Entry> entries);
  DictionaryEntries(std::vector<Entry> entries);  // NOLINT: a vector converts
  DictionaryEntries(const DictionaryEntries& other);
  DictionaryEntries(DictionaryEntries&& other) noexcept;
  DictionaryEntries& operator=(DictionaryEntries other) noexcept;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  Entry* begin() { return data(); }
  Entry* end() { return data() + size_; }
  const Entry* begin() const { return data(); }
  const Entry* end() const { return data() + size_; }
  Entry& operator[](std::size_t i) { return data()[i]; }
  const Entry& operator[](std::size_t i) const { return data()[i]; }
  std::span<const Entry> span() const { return {data(), size_}; }

  void push_back(Entry entry) {
    if (size_ < kInPlace) {
      inPlace_[size_++] = std::move(entry);
    } else {
      pushSpilled(std::move(entry));
    }
  }
  // Removes the pairs for which `remove(pair)` is true, keeping the order.
  template <class Predicate>
  void eraseIf(Predicate&& remove) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < size_; ++i) {
      if (!remove(std::as_const(data()[i]))) {
        if (kept != i) data()[kept] = std::move(data()[i]);
        ++kept;
      }
    }
    truncate(kept);
  }

 private:
  static constexpr std::size_t kInPlace = 2;

  bool inPlace() const { return size_ <= kInPlace; }
  Entry* data() { return inPlace() ? inPlace_ : spilled_.data(); }
  const Entry* data() const { return inPlace() ? inPlace_ : spilled_.data(); }
  void pushSpilled(Entry entry);
  void truncate(std::size_t size);

  // The pairs when there are at most kInPlace, else all of them in spilled_.
  Entry inPlace_[kInPlace];
  std::vector<Entry> spilled_;
  std::size_t size_ = 0;
};

}  // namespace qx
