#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <vector>

#include "platform/foundation/Object.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

// NSNotFound: the largest signed 64-bit value.
inline constexpr uint64_t kNotFound = 0x7fffffffffffffffULL;

// A path of positions in a tree (NSIndexPath). Paths of up to four positions,
// nearly all of those a tree walk makes, are held in the object itself: a
// report of size records makes one path per record.
class IndexPath final : public Object {
  QX_DECLARE_CLASS()

 public:
  IndexPath() = default;
  explicit IndexPath(std::span<const uint64_t> indexes);

  static std::shared_ptr<IndexPath> make(std::span<const uint64_t> indexes = {}) {
    return ObjectArena::make<IndexPath>(indexes);
  }
  static std::shared_ptr<IndexPath> make(const std::vector<uint64_t>& indexes) {
    return make(std::span<const uint64_t>(indexes));
  }
  static std::shared_ptr<IndexPath> make(std::initializer_list<uint64_t> indexes) {
    return make(std::span<const uint64_t>(indexes.begin(), indexes.size()));
  }
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  std::size_t length() const { return length_; }
  // kNotFound past the end.
  uint64_t indexAtPosition(std::size_t position) const {
    return position < length_ ? data()[position] : kNotFound;
  }
  std::span<const uint64_t> span() const { return {data(), length_}; }
  std::vector<uint64_t> indexes() const { return {data(), data() + length_}; }
  std::shared_ptr<IndexPath> indexPathByAddingIndex(uint64_t index) const;

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;
  std::string description() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;
  // The keys of a path of `indexes`, written without the object by a coder
  // with KeyedArchiver's encodeInteger and encodeDataObject.
  template <class Coder>
  static void encodeIndexes(Coder& coder, std::span<const uint64_t> indexes) {
    coder.encodeInteger(static_cast<int64_t>(indexes.size()), "NSIndexPathLength");
    if (indexes.size() == 1) {
      coder.encodeInteger(static_cast<int64_t>(indexes[0]), "NSIndexPathValue");
    } else if (indexes.size() >= 2) {
      // Paths of a tree are short: their bytes are built on the stack.
      uint8_t local[kLocalBytes];
      std::vector<uint8_t> large;
      coder.encodeDataObject(archivedBytes(indexes, local, large), "NSIndexPathData");
    }
  }

 private:
  static constexpr std::size_t kInline = 4;
  static constexpr std::size_t kLocalBytes = 160;

  // The archived form of two or more indexes (NSIndexPathData), in `local`
  // when it fits, else in `large`.
  static std::span<const uint8_t> archivedBytes(std::span<const uint64_t> indexes,
                                                std::span<uint8_t, kLocalBytes> local,
                                                std::vector<uint8_t>& large);

  const uint64_t* data() const { return length_ <= kInline ? inline_ : heap_.get(); }

  std::size_t length_ = 0;
  uint64_t inline_[kInline] = {};
  std::unique_ptr<uint64_t[]> heap_;
};

using IndexPathPtr = std::shared_ptr<IndexPath>;

}  // namespace qx
