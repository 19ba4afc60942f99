#pragma once

#include <string_view>

#include "platform/foundation/Object.h"

namespace qx {

// Makes an object of one class from the keyed unarchiver positioned on its
// archived dictionary. Returns nil when the object cannot be made; a factory
// that finds malformed input also marks the unarchiver failed.
using DecodeFactory = ObjectPtr (*)(KeyedUnarchiver& coder);

// Process-wide table of the classes that archives may name (name -> factory).
// Modules register their classes explicitly at start-up; registering the same
// class again is harmless. Lookups may run on any thread.
class ClassRegistry {
 public:
  struct Entry {
    const ClassInfo* cls;
    DecodeFactory factory;
  };

  static void registerClass(const ClassInfo& cls, DecodeFactory factory);
  // The entry for a wire class name, or nullptr for an unknown class.
  static const Entry* lookup(std::string_view name);
};

// Registers String, Number, Data, Array, MutableArray, Dictionary,
// MutableDictionary, Uuid, Url, IndexPath and Error. Idempotent and thread-safe.
void registerFoundationClasses();

}  // namespace qx
