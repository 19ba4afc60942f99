#include "model/QXAclPermission.h"

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"

QX_DEFINE_CLASS(QXAclPermission, "QXAclPermission", qx::Object)

qx::ObjectPtr QXAclPermission::initWithCoder(qx::KeyedUnarchiver& coder) {
  auto name =
      qx::cast<qx::String>(coder.decodeObjectOfClassForKey(qx::String::classInfo(), "name"));
  // The 32-bit value is read back bit for bit: a permission with the top bit
  // set survives the signed coding unchanged.
  auto permission = static_cast<uint32_t>(coder.decodeIntForKey("permission"));
  int64_t state = coder.decodeIntegerForKey("state");
  if (coder.hasFailed()) return nullptr;
  return make(std::move(name), static_cast<int32_t>(permission), state);
}

void QXAclPermission::encodeWithCoder(qx::KeyedArchiver& coder) const {
  coder.encodeObject(name_, "name");
  coder.encodeInt(static_cast<int32_t>(static_cast<uint32_t>(permission_)), "permission");
  coder.encodeInteger(state_, "state");
}

void QXAclPermission::convertToFilePermission() {
  const char* fileName = nullptr;
  if (permission_ == 2) {
    fileName = "Read Data";
  } else if (permission_ == 8) {
    fileName = "Execute File";
  } else if (permission_ == 4) {
    fileName = "Write Data";
  } else if (permission_ == 32) {
    fileName = "Append Data";
  }
  if (fileName == nullptr) return;
  name_ = qx::str(fileName);
}

std::string QXAclPermission::description() const {
  return "<QXAclPermission " + (name_ ? name_->str() : std::string("(nil)")) +
         " permission=" + std::to_string(permission_) + " state=" + std::to_string(state_) + ">";
}
