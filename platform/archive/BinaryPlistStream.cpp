#include "platform/archive/BinaryPlistStream.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace qx {

using namespace plistbytes;

void BinaryPlistStream::start(unsigned refWidth, std::size_t expectedBytes) {
  refWidth_ = refWidth;
  count_ = 0;
  if (stringCount_ > 0) std::fill(strings_.begin(), strings_.end(), SharedString{});
  stringCount_ = 0;
  bools_[0] = bools_[1] = kNone;
  std::fill(std::begin(integers_), std::end(integers_), RecentInteger{});
  used_ = 0;
  if (capacity_ < expectedBytes) grow(expectedBytes);
  std::memcpy(out_.get(), kMagic, sizeof kMagic);
  used_ = kHeaderSize;
}

void BinaryPlistStream::grow(std::size_t bytes) {
  std::size_t capacity = std::max(used_ + bytes, std::max<std::size_t>(2 * capacity_, 256));
  auto larger = std::make_unique_for_overwrite<uint8_t[]>(capacity);
  if (used_ > 0) std::memcpy(larger.get(), out_.get(), used_);
  out_ = std::move(larger);
  capacity_ = capacity;
}

void BinaryPlistStream::growOffsets() {
  offsets_.resize(std::max<std::size_t>(2 * offsets_.size(), 1024));
}

std::size_t BinaryPlistStream::memoryUse() const {
  return capacity_ + offsets_.capacity() * sizeof(std::size_t) +
         strings_.capacity() * sizeof(SharedString);
}

BinaryPlistStream::Ref BinaryPlistStream::findAscii(std::string_view text, std::size_t hash) const {
  if (strings_.empty()) return kNone;
  std::size_t mask = strings_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const SharedString& known = strings_[i];
    if (known.ref == kNone) return kNone;
    if (known.hash == hash && known.length == text.size() &&
        std::memcmp(out_.get() + known.at, text.data(), text.size()) == 0) {
      return known.ref;
    }
  }
}

void BinaryPlistStream::remember(const SharedString& string) {
  if ((stringCount_ + 1) * 2 > strings_.size()) {
    std::vector<SharedString> old = std::move(strings_);
    strings_.assign(old.empty() ? 64 : old.size() * 2, SharedString{});
    stringCount_ = 0;
    for (const SharedString& known : old) {
      if (known.ref != kNone) remember(known);
    }
  }
  std::size_t mask = strings_.size() - 1;
  std::size_t i = string.hash & mask;
  while (strings_[i].ref != kNone) i = (i + 1) & mask;
  strings_[i] = string;
  ++stringCount_;
}

BinaryPlistStream::Ref BinaryPlistStream::addString(std::string_view utf8) {
  bool ascii = isAscii(reinterpret_cast<const uint8_t*>(utf8.data()), utf8.size());
  std::size_t hash = 0;
  if (ascii) {
    hash = hashBytes(utf8);
    Ref found = findAscii(utf8, hash);
    if (found != kNone) return found;
  }
  uint8_t* p = room(stringSize(utf8, ascii));
  Ref ref = next();
  advanceTo(writeString(p, utf8, ascii));
  if (ascii) remember({ref, static_cast<uint32_t>(utf8.size()), used_ - utf8.size(), hash});
  return ref;
}

std::vector<uint8_t> BinaryPlistStream::finish(Ref top) {
  std::size_t tableOffset = used_;
  unsigned offsetWidth = tableWidthFor(tableOffset);
  uint8_t* p = room(count_ * offsetWidth + kTrailerSize);
  // Each offset as eight bytes, then the end moves by the width: the
  // trailer's room takes what runs past the last one.
  unsigned shift = 64 - 8 * offsetWidth;
  for (std::size_t i = 0; i < count_; ++i) {
    uint64_t bytes = __builtin_bswap64(uint64_t(offsets_[i]) << shift);
    std::memcpy(p, &bytes, 8);
    p += offsetWidth;
  }
  advanceTo(writeTrailer(p, offsetWidth, refWidth_, count_, top, tableOffset));
  std::vector<uint8_t> bytes(out_.get(), out_.get() + used_);
  used_ = 0;
  count_ = 0;
  return bytes;
}

}  // namespace qx
