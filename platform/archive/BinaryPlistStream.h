#pragma once

#include <cstdint>
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

  Ref addString(std::string_view utf8);
  Ref addInteger(int64_t value);
  Ref addBool(bool value);
  Ref addUid(uint32_t value);
  Ref addData(std::span<const uint8_t> bytes);
  Ref addArray(std::span<const Ref> elements);
  // A dictionary of `keys` and `values`, then `lastKey` and `lastValue`
  // (a keyed archive's $class, after an object's own keys).
  Ref addDictionary(std::span<const Ref> keys, std::span<const Ref> values);
  Ref addDictionary(std::span<const Ref> keys, std::span<const Ref> values, Ref lastKey,
                    Ref lastValue);

  std::size_t count() const { return offsets_.size(); }

  // The plist with `top` as its root: the values, their offset table and the
  // trailer. The writer is empty afterwards.
  std::vector<uint8_t> finish(Ref top);

  // Bytes held, for deciding whether to keep this object.
  std::size_t memoryUse() const;

 private:
  // Room for `bytes` more bytes at the end of the output.
  uint8_t* room(std::size_t bytes) {
    if (out_.size() - used_ < bytes) grow(bytes);
    return out_.data() + used_;
  }
  void grow(std::size_t bytes);
  // Numbers the value that starts at the end of the output.
  Ref next() {
    offsets_.push_back(used_);
    return static_cast<Ref>(offsets_.size() - 1);
  }
  void advanceTo(const uint8_t* end) { used_ = static_cast<std::size_t>(end - out_.data()); }
  Ref findAscii(std::string_view text, std::size_t hash) const;
  struct SharedString {
    Ref ref = kNone;
    uint32_t length = 0;
    std::size_t at = 0;  // where its bytes lie in the output
    std::size_t hash = 0;
  };
  void remember(const SharedString& string);
  struct RecentInteger {
    int64_t value = 0;
    Ref ref = kNone;
  };
  static constexpr Ref kNone = 0xffffffffU;

  std::vector<uint8_t> out_;
  std::size_t used_ = 0;
  std::vector<std::size_t> offsets_;
  unsigned refWidth_ = 1;
  std::vector<SharedString> strings_;  // open addressing, at most half full
  std::size_t stringCount_ = 0;
  Ref bools_[2] = {kNone, kNone};
  RecentInteger integers_[plistbytes::kRecentIntegers];
};

}  // namespace qx
