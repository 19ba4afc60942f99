#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "platform/foundation/Object.h"

namespace qx {

// NSNotFound: the largest signed 64-bit value.
inline constexpr uint64_t kNotFound = 0x7fffffffffffffffULL;

// A path of positions in a tree (NSIndexPath).
class IndexPath final : public Object {
  QX_DECLARE_CLASS()

 public:
  IndexPath() = default;
  explicit IndexPath(std::vector<uint64_t> indexes) : indexes_(std::move(indexes)) {}

  static std::shared_ptr<IndexPath> make(std::vector<uint64_t> indexes = {}) {
    return std::make_shared<IndexPath>(std::move(indexes));
  }
  static std::shared_ptr<IndexPath> make(std::initializer_list<uint64_t> indexes) {
    return std::make_shared<IndexPath>(std::vector<uint64_t>(indexes));
  }
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  std::size_t length() const { return indexes_.size(); }
  // kNotFound past the end.
  uint64_t indexAtPosition(std::size_t position) const {
    return position < indexes_.size() ? indexes_[position] : kNotFound;
  }
  const std::vector<uint64_t>& indexes() const { return indexes_; }
  std::shared_ptr<IndexPath> indexPathByAddingIndex(uint64_t index) const;

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;
  std::string description() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;

 private:
  std::vector<uint64_t> indexes_;
};

using IndexPathPtr = std::shared_ptr<IndexPath>;

}  // namespace qx
