#include "platform/foundation/ClassSet.h"

#include <algorithm>

namespace qx {

ClassSet::ClassSet(std::initializer_list<const ClassInfo*> classes) {
  for (const ClassInfo* cls : classes) add(*cls);
}

void ClassSet::add(const ClassInfo& cls) {
  if (!contains(cls)) classes_.push_back(&cls);
}

bool ClassSet::contains(const ClassInfo& cls) const {
  return std::find(classes_.begin(), classes_.end(), &cls) != classes_.end();
}

bool ClassSet::allows(const ClassInfo& cls) const {
  for (const ClassInfo* c = &cls; c != nullptr; c = c->superclass()) {
    if (contains(*c)) return true;
  }
  return false;
}

std::string ClassSet::description() const {
  std::string text;
  for (const ClassInfo* cls : classes_) {
    if (!text.empty()) text += ", ";
    text += cls->name();
  }
  return text;
}

}  // namespace qx
