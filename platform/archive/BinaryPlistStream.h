#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "platform/archive/PlistBytes.h"

namespace qx {

// A binary property list written as its values are added: each value's bytes
// go straight to the output, and only its offset is kept for the table at
// the end. Values are numbered in the order they are added, and shared as
// BinaryPlist's builder shares them (equal ASCII strings, equal booleans,
// equal integers added close together), so the same calls make the same
// bytes as building a BinaryPlist and writing it.
//
// Hand-written for speed: it is the writer of the message the service sends
// most (a report of size records), and it skips the builder's table of
// values and the second pass that lays them out.
//
// The width of an object reference depends on how many values there are in
// the end, so it is chosen before the first value: when refWidthFor(count())
// differs from it in the end, the output is not a valid plist and the caller
// writes everything again with that width.
class BinaryPlistStream {
 public:
  using Ref = uint32_t;

  // The reference width of a plist of `count` values.
  static unsigned refWidthFor(std::size_t count) {
    return plistbytes::tableWidthFor(count == 0 ? 0 : count - 1);
  }

  // Forgets every value and starts a plist whose references take `refWidth`
  // bytes (1 to 4), with room for about `expectedBytes` bytes.
  void start(unsigned refWidth, std::size_t expectedBytes);

  // The values written most (several per record of a report) are written
  // here, inline.
  Ref addString(std::string_view utf8);
  Ref addInteger(int64_t value) {
    RecentInteger& recent = integers_[plistbytes::recentIntegerSlot(value)];
    if (recent.ref != kNone && recent.value == value) return recent.ref;
    uint8_t* p = room(9);
    Ref ref = next();
    advanceTo(plistbytes::writeInteger(p, value));
    recent = {value, ref};
    return ref;
  }
  Ref addBool(bool value) {
    Ref& shared = bools_[value ? 1 : 0];
    if (shared == kNone) {
      uint8_t* p = room(1);
      shared = next();
      *p = value ? 0x09 : 0x08;
      ++used_;
    }
    return shared;
  }
  // A double, never shared (BinaryPlist does not share them either).
  Ref addReal(double value) {
    uint8_t* p = room(9);
    Ref ref = next();
    *p = 0x23;
    uint64_t bits;
    std::memcpy(&bits, &value, 8);
    advanceTo(plistbytes::writeBigEndian(p + 1, bits, 8));
    return ref;
  }
  Ref addUid(uint32_t value) {
    uint8_t* p = room(5);
    Ref ref = next();
    advanceTo(plistbytes::writeUid(p, value));
    return ref;
  }
  Ref addData(std::span<const uint8_t> bytes) {
    uint8_t* p = room(plistbytes::lengthHeaderSize(bytes.size()) + bytes.size());
    Ref ref = next();
    p = plistbytes::writeMarker(p, 0x4, bytes.size());
    if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
    advanceTo(p + bytes.size());
    return ref;
  }
  // An array of `count` elements, the i-th being `refAt(i)`.
  template <class RefAt>
  Ref addArray(std::size_t count, RefAt&& refAt) {
    uint8_t* p = room(plistbytes::lengthHeaderSize(count) + count * refWidth_);
    Ref ref = next();
    p = plistbytes::writeMarker(p, 0xA, count);
    References refs(*this);
    for (std::size_t i = 0; i < count; ++i) p = refs.write(p, refAt(i));
    advanceTo(p);
    return ref;
  }
  Ref addArray(std::span<const Ref> elements) {
    return addArray(elements.size(), [&](std::size_t i) { return elements[i]; });
  }
  // A dictionary of `keys` and `values`.
  Ref addDictionary(std::span<const Ref> keys, std::span<const Ref> values) {
    uint8_t* p = room(plistbytes::lengthHeaderSize(keys.size()) + 2 * keys.size() * refWidth_);
    Ref ref = next();
    p = plistbytes::writeMarker(p, 0xD, keys.size());
    References refs(*this);
    advanceTo(refs.write(refs.write(p, keys), values));
    return ref;
  }
  // The same followed by `lastKey` and `lastValue` (a keyed archive's
  // $class, after an object's own keys).
  Ref addDictionary(std::span<const Ref> keys, std::span<const Ref> values, Ref lastKey,
                    Ref lastValue) {
    std::size_t pairs = keys.size() + 1;
    uint8_t* p = room(plistbytes::lengthHeaderSize(pairs) + 2 * pairs * refWidth_);
    Ref ref = next();
    p = plistbytes::writeMarker(p, 0xD, pairs);
    References refs(*this);
    if (keys.size() == 2 && values.size() == 2) {
      // The usual object (a record, an index path, a size item), unrolled.
      p = refs.write(refs.write(refs.write(p, keys[0]), keys[1]), lastKey);
      advanceTo(refs.write(refs.write(refs.write(p, values[0]), values[1]), lastValue));
      return ref;
    }
    p = refs.write(refs.write(p, keys), lastKey);
    advanceTo(refs.write(refs.write(p, values), lastValue));
    return ref;
  }

  std::size_t count() const { return count_; }

  // The plist with `top` as its root: the values, their offset table and the
  // trailer. The writer is empty afterwards.
  std::vector<uint8_t> finish(Ref top);

  // Bytes held, for deciding whether to keep this object.
  std::size_t memoryUse() const;

 private:
  // Every write may store up to this many bytes past its end (a reference
  // is stored as four bytes, then the end moves by the width).
  static constexpr std::size_t kSlack = 8;
  static constexpr Ref kNone = 0xffffffffU;

  // Writes object references: each as four big-endian bytes of which the
  // first `width` count (the rest is overwritten by what follows). The width
  // is held here, not reloaded from the object after every store.
  class References {
   public:
    explicit References(const BinaryPlistStream& plist)
        : width_(plist.refWidth_), shift_(32 - 8 * plist.refWidth_) {}
    uint8_t* write(uint8_t* p, Ref ref) const {
      uint32_t bytes = __builtin_bswap32(ref << shift_);
      std::memcpy(p, &bytes, 4);
      return p + width_;
    }
    uint8_t* write(uint8_t* p, std::span<const Ref> refs) const {
      for (Ref ref : refs) p = write(p, ref);
      return p;
    }

   private:
    unsigned width_;
    unsigned shift_;
  };

  // Room for `bytes` more bytes at the end of the output.
  uint8_t* room(std::size_t bytes) {
    if (capacity_ - used_ < bytes + kSlack) grow(bytes + kSlack);
    return out_.get() + used_;
  }
  void grow(std::size_t bytes);
  // Numbers the value that starts at the end of the output.
  Ref next() {
    if (count_ == offsets_.size()) growOffsets();
    offsets_[count_] = used_;
    return static_cast<Ref>(count_++);
  }
  void growOffsets();
  void advanceTo(const uint8_t* end) { used_ = static_cast<std::size_t>(end - out_.get()); }

  struct SharedString {
    Ref ref = kNone;
    uint32_t length = 0;
    std::size_t at = 0;  // where its bytes lie in the output
    std::size_t hash = 0;
  };
  Ref findAscii(std::string_view text, std::size_t hash) const;
  void remember(const SharedString& string);

  struct RecentInteger {
    int64_t value = 0;
    Ref ref = kNone;
  };

  // The output, not zero-filled, kept from one plist to the next.
  std::unique_ptr<uint8_t[]> out_;
  std::size_t capacity_ = 0;
  std::size_t used_ = 0;
  std::vector<std::size_t> offsets_;  // of values [0, count_)
  std::size_t count_ = 0;
  unsigned refWidth_ = 1;
  std::vector<SharedString> strings_;  // open addressing, at most half full
  std::size_t stringCount_ = 0;
  Ref bools_[2] = {kNone, kNone};
  RecentInteger integers_[plistbytes::kRecentIntegers];
};

}  // namespace qx
