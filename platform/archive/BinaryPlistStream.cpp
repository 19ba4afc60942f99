#include "platform/archive/BinaryPlistStream.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace qx {

using namespace plistbytes;

void BinaryPlistStream::start(unsigned refWidth, std::size_t expectedBytes) {
  refWidth_ = refWidth;
  offsets_.clear();
  if (stringCount_ > 0) std::fill(strings_.begin(), strings_.end(), SharedString{});
  stringCount_ = 0;
  bools_[0] = bools_[1] = kNone;
  std::fill(std::begin(integers_), std::end(integers_), RecentInteger{});
  // finish() hands the output away: this is usually a new buffer.
  if (out_.size() < expectedBytes) out_.resize(expectedBytes);
  std::memcpy(out_.data(), kMagic, sizeof kMagic);
  used_ = kHeaderSize;
}

void BinaryPlistStream::grow(std::size_t bytes) {
  out_.resize(std::max(used_ + bytes, std::max<std::size_t>(2 * out_.size(), 256)));
}

std::size_t BinaryPlistStream::memoryUse() const {
  return out_.capacity() + offsets_.capacity() * sizeof(std::size_t) +
         strings_.capacity() * sizeof(SharedString);
}

BinaryPlistStream::Ref BinaryPlistStream::findAscii(std::string_view text,
                                                    std::size_t hash) const {
  if (strings_.empty()) return kNone;
  std::size_t mask = strings_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const SharedString& known = strings_[i];
    if (known.ref == kNone) return kNone;
    if (known.hash == hash && known.length == text.size() &&
        std::memcmp(out_.data() + known.at, text.data(), text.size()) == 0) {
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

BinaryPlistStream::Ref BinaryPlistStream::addInteger(int64_t value) {
  RecentInteger& recent = integers_[recentIntegerSlot(value)];
  if (recent.ref != kNone && recent.value == value) return recent.ref;
  uint8_t* p = room(9);
  Ref ref = next();
  advanceTo(writeInteger(p, value));
  recent = {value, ref};
  return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addBool(bool value) {
  Ref& shared = bools_[value ? 1 : 0];
  if (shared == kNone) {
    uint8_t* p = room(1);
    shared = next();
    *p = value ? 0x09 : 0x08;
    ++used_;
  }
  return shared;
}

BinaryPlistStream::Ref BinaryPlistStream::addUid(uint32_t value) {
  uint8_t* p = room(5);
  Ref ref = next();
  advanceTo(writeUid(p, value));
  return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addData(std::span<const uint8_t> bytes) {
  uint8_t* p = room(lengthHeaderSize(bytes.size()) + bytes.size());
  Ref ref = next();
  p = writeMarker(p, 0x4, bytes.size());
  if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
  advanceTo(p + bytes.size());
  return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addArray(std::span<const Ref> elements) {
  uint8_t* p = room(lengthHeaderSize(elements.size()) + elements.size() * refWidth_);
  Ref ref = next();
  p = writeMarker(p, 0xA, elements.size());
  advanceTo(writeRefs(p, elements.data(), elements.size(), refWidth_));
  return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addDictionary(std::span<const Ref> keys,
                                                        std::span<const Ref> values) {
  uint8_t* p = room(lengthHeaderSize(keys.size()) + 2 * keys.size() * refWidth_);
  Ref ref = next();
  p = writeMarker(p, 0xD, keys.size());
  p = writeRefs(p, keys.data(), keys.size(), refWidth_);
  advanceTo(writeRefs(p, values.data(), values.size(), refWidth_));
  return ref;
}

BinaryPlistStream::Ref BinaryPlistStream::addDictionary(std::span<const Ref> keys,
                                                        std::span<const Ref> values, Ref lastKey,
                                                        Ref lastValue) {
  std::size_t pairs = keys.size() + 1;
  uint8_t* p = room(lengthHeaderSize(pairs) + 2 * pairs * refWidth_);
  Ref ref = next();
  p = writeMarker(p, 0xD, pairs);
  p = writeRefs(p, keys.data(), keys.size(), refWidth_);
  p = writeRefs(p, &lastKey, 1, refWidth_);
  p = writeRefs(p, values.data(), values.size(), refWidth_);
  advanceTo(writeRefs(p, &lastValue, 1, refWidth_));
  return ref;
}

std::vector<uint8_t> BinaryPlistStream::finish(Ref top) {
  std::size_t tableOffset = used_;
  unsigned offsetWidth = tableWidthFor(tableOffset);
  uint8_t* p = room(offsets_.size() * offsetWidth + kTrailerSize);
  for (std::size_t offset : offsets_) p = writeBigEndian(p, offset, offsetWidth);
  std::memset(p, 0, 6);
  p[6] = static_cast<uint8_t>(offsetWidth);
  p[7] = static_cast<uint8_t>(refWidth_);
  writeBigEndian(p + 8, offsets_.size(), 8);
  writeBigEndian(p + 16, top, 8);
  writeBigEndian(p + 24, tableOffset, 8);
  advanceTo(p + kTrailerSize);
  out_.resize(used_);
  std::vector<uint8_t> bytes = std::move(out_);
  out_.clear();
  used_ = 0;
  offsets_.clear();
  return bytes;
}

}  // namespace qx
