#pragma once

#include <cstdint>
#include <memory>

#include "platform/foundation/Object.h"

// The running or final size total of one item of a size calculation. Every
// fresh item is busy; only its owner clears the flag once the total is final.
class QXFileSizeItem final : public qx::Object {
  QX_DECLARE_CLASS()

 public:
  // Size -1: not known yet.
  QXFileSizeItem() : QXFileSizeItem(-1) {}
  explicit QXFileSizeItem(int64_t size) : size_(size) {}

  static std::shared_ptr<QXFileSizeItem> make(int64_t size = -1) {
    return std::make_shared<QXFileSizeItem>(size);
  }
  static constexpr bool supportsSecureCoding() { return true; }
  static qx::ObjectPtr initWithCoder(qx::KeyedUnarchiver& coder);
  void encodeWithCoder(qx::KeyedArchiver& coder) const override;
  // The keys of an item of `size` and `busy`, written without the object by
  // a coder with KeyedArchiver's encodeInteger and encodeBool.
  template <class Coder>
  static void encodeValues(Coder& coder, int64_t size, bool busy) {
    coder.encodeInteger(size, "size");
    coder.encodeBool(busy, "busy");
  }

  int64_t size() const { return size_; }
  void setSize(int64_t size) { size_ = size; }
  bool busy() const { return busy_; }
  void setBusy(bool busy) { busy_ = busy; }

  std::string description() const override;

 private:
  bool busy_ = true;
  int64_t size_;
};

using QXFileSizeItemPtr = std::shared_ptr<QXFileSizeItem>;
