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
  // The keys of a path of `indexes`, written without the object.
  static void encodeIndexes(KeyedArchiver& coder, std::span<const uint64_t> indexes);

 private:
  static constexpr std::size_t kInline = 4;

  const uint64_t* data() const { return length_ <= kInline ? inline_ : heap_.get(); }

  std::size_t length_ = 0;
  uint64_t inline_[kInline] = {};
  std::unique_ptr<uint64_t[]> heap_;
};

using IndexPathPtr = std::shared_ptr<IndexPath>;

}  // namespace qx
