#pragma once

#include <cerrno>
#include <utility>

#include "platform/xacl/xacl.h"

namespace qx::xacl {

// Owns one object of the ACL interface (an ACL, or a qualifier from acl_get_qualifier) and
// releases it with acl_free when it goes, ignoring the result and keeping errno. For code whose
// behaviour does not include a checked release; code that must report a failing release calls
// release() and then acl_free itself.
template <typename T>
class AclOwner {
 public:
  AclOwner() = default;
  explicit AclOwner(T* object) : object_(object) {}
  ~AclOwner() { reset(); }

  AclOwner(AclOwner&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  AclOwner& operator=(AclOwner&& other) noexcept {
    if (this != &other) reset(std::exchange(other.object_, nullptr));
    return *this;
  }
  AclOwner(const AclOwner&) = delete;
  AclOwner& operator=(const AclOwner&) = delete;

  T* get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

  // Gives up ownership without releasing.
  T* release() { return std::exchange(object_, nullptr); }

  void reset(T* object = nullptr) {
    T* old = std::exchange(object_, object);
    if (old == nullptr) return;
    // A release nobody checks must not disturb the errno a caller is about to read.
    int savedErrno = errno;
    acl_free(old);
    errno = savedErrno;
  }

 private:
  T* object_ = nullptr;
};

using AclHandle = AclOwner<Acl>;
using QualifierHandle = AclOwner<void>;

}  // namespace qx::xacl
