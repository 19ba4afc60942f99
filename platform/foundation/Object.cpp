#include "platform/foundation/Object.h"

#include <cstdio>

namespace qx {

bool ClassInfo::isSubclassOf(const ClassInfo& other) const {
  for (const ClassInfo* cls = this; cls != nullptr; cls = cls->superclass_) {
    if (cls == &other) return true;
  }
  return false;
}

std::vector<std::string_view> ClassInfo::chain() const {
  std::vector<std::string_view> names;
  for (const ClassInfo* cls = this; cls != nullptr; cls = cls->superclass_) {
    names.push_back(cls->name_);
  }
  return names;
}

constinit const ClassInfo Object::qxClassInfo{"NSObject", nullptr};

std::size_t Object::hash() const {
  return std::hash<const void*>()(this);
}

std::string Object::description() const {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  return "<" + std::string(objectClass().name()) + ": " + address + ">";
}

void Object::encodeWithCoder(KeyedArchiver&) const {}

bool isEqual(const ObjectPtr& a, const ObjectPtr& b) {
  if (a == b) return true;
  if (!a || !b) return false;
  return a->isEqual(*b);
}

}  // namespace qx
