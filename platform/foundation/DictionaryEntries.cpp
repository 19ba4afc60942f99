#include "platform/foundation/DictionaryEntries.h"

#include <algorithm>
#include <iterator>

namespace qx {

DictionaryEntries::DictionaryEntries(std::size_t count) : size_(count) {
  if (!inPlace()) spilled_.resize(count);
}

DictionaryEntries::DictionaryEntries(std::initializer_list<Entry> entries)
    : DictionaryEntries(entries.size()) {
  std::copy(entries.begin(), entries.end(), data());
}

DictionaryEntries::DictionaryEntries(std::vector<Entry> entries) : size_(entries.size()) {
  if (inPlace()) {
    std::move(entries.begin(), entries.end(), inPlace_);
  } else {
    spilled_ = std::move(entries);
  }
}

DictionaryEntries::DictionaryEntries(const DictionaryEntries& other) : size_(other.size_) {
  if (inPlace()) {
    std::copy(other.begin(), other.end(), inPlace_);
  } else {
    spilled_ = other.spilled_;
  }
}

DictionaryEntries::DictionaryEntries(DictionaryEntries&& other) noexcept
    : spilled_(std::move(other.spilled_)), size_(std::exchange(other.size_, 0)) {
  if (inPlace()) std::move(other.inPlace_, other.inPlace_ + size_, inPlace_);
}

DictionaryEntries& DictionaryEntries::operator=(DictionaryEntries other) noexcept {
  std::swap(inPlace_, other.inPlace_);
  std::swap(spilled_, other.spilled_);
  std::swap(size_, other.size_);
  return *this;
}

void DictionaryEntries::pushSpilled(Entry entry) {
  if (size_ == kInPlace) {
    spilled_.reserve(2 * kInPlace);
    std::move(std::begin(inPlace_), std::end(inPlace_), std::back_inserter(spilled_));
    for (Entry& moved : inPlace_) moved = {};
  }
  spilled_.push_back(std::move(entry));
  ++size_;
}

void DictionaryEntries::truncate(std::size_t size) {
  if (inPlace()) {
    for (std::size_t i = size; i < size_; ++i) inPlace_[i] = {};
  } else if (size <= kInPlace) {
    std::move(spilled_.begin(), spilled_.begin() + static_cast<std::ptrdiff_t>(size), inPlace_);
    spilled_.clear();
  } else {
    spilled_.resize(size);
  }
  size_ = size;
}

}  // namespace qx
