#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "platform/foundation/Object.h"

namespace qx {

// A set of allowed classes for restricted decoding. A decoded object is
// allowed when its class, or any class of its local class chain, is in the set:
// NSMutableArray passes where NSArray is allowed, not the reverse.
class ClassSet {
 public:
  ClassSet() = default;
  ClassSet(std::initializer_list<const ClassInfo*> classes);

  void add(const ClassInfo& cls);
  bool contains(const ClassInfo& cls) const;
  bool allows(const ClassInfo& cls) const;
  bool empty() const { return classes_.empty(); }
  // The class names, for error messages: "NSArray, NSString".
  std::string description() const;

 private:
  std::vector<const ClassInfo*> classes_;
};

}  // namespace qx
