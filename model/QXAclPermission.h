#pragma once

#include <cstdint>
#include <memory>

#include "platform/foundation/Object.h"
#include "platform/foundation/String.h"

// One node of a permission tree: a table row (leaf), a group ("Read", "Write",
// "Administration", permission 2) or the "Applies to" node (permission 0x2000).
// State: 1 on, 0 off, -1 mixed; leaves hold only 0 or 1.
class QXAclPermission final : public qx::Object {
  QX_DECLARE_CLASS()

 public:
  // A nameless "read" node that is off.
  QXAclPermission() : QXAclPermission(nullptr, 2, 0) {}
  QXAclPermission(qx::StringPtr name, int32_t permission, int64_t state)
      : permission_(permission), name_(std::move(name)), state_(state) {}

  static std::shared_ptr<QXAclPermission> make(qx::StringPtr name, int32_t permission,
                                               int64_t state) {
    return std::make_shared<QXAclPermission>(std::move(name), permission, state);
  }
  static std::shared_ptr<QXAclPermission> make(const char* name, uint32_t permission,
                                               int64_t state) {
    return make(name ? qx::str(name) : nullptr, static_cast<int32_t>(permission), state);
  }
  static constexpr bool supportsSecureCoding() { return true; }
  static qx::ObjectPtr initWithCoder(qx::KeyedUnarchiver& coder);
  void encodeWithCoder(qx::KeyedArchiver& coder) const override;

  const qx::StringPtr& name() const { return name_; }
  void setName(qx::StringPtr name) { name_ = std::move(name); }
  int32_t permission() const { return permission_; }
  void setPermission(int32_t permission) { permission_ = permission; }
  int64_t state() const { return state_; }
  void setState(int64_t state) { state_ = state; }

  // Renames a folder row to the file row of the same bit (2 "Read Data",
  // 8 "Execute File", 4 "Write Data", 32 "Append Data"); other values stay.
  void convertToFilePermission();

  std::string description() const override;

 private:
  int32_t permission_;
  qx::StringPtr name_;
  int64_t state_;
};

using QXAclPermissionPtr = std::shared_ptr<QXAclPermission>;
