#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

class KeyedArchiver;
class KeyedUnarchiver;
class Object;
using ObjectPtr = std::shared_ptr<Object>;

// Runtime description of an archivable class: its wire name ($classname) and
// its superclass, from which the class chain ($classes) follows.
class ClassInfo {
 public:
  constexpr ClassInfo(std::string_view name, const ClassInfo* superclass)
      : name_(name), superclass_(superclass) {}
  ClassInfo(const ClassInfo&) = delete;
  ClassInfo& operator=(const ClassInfo&) = delete;

  std::string_view name() const { return name_; }
  const ClassInfo* superclass() const { return superclass_; }

  // True when this class is `other` or inherits from it.
  bool isSubclassOf(const ClassInfo& other) const;
  // This class's name followed by its superclasses' names, ending with NSObject.
  std::vector<std::string_view> chain() const;

 private:
  std::string_view name_;
  const ClassInfo* superclass_;
};

// The base of everything that can cross a connection. Objects have reference
// semantics through std::shared_ptr; an empty pointer is nil. An object is
// used by one thread at a time.
class Object {
 public:
  virtual ~Object() = default;

  // Class descriptions are constants: asking for one is a load, not a call.
  static const ClassInfo qxClassInfo;
  static const ClassInfo& classInfo() { return qxClassInfo; }
  virtual const ClassInfo& objectClass() const { return qxClassInfo; }
  bool isKindOfClass(const ClassInfo& cls) const { return objectClass().isSubclassOf(cls); }

  // Identity by default; value classes compare their contents.
  virtual bool isEqual(const Object& other) const { return this == &other; }
  virtual std::size_t hash() const;
  virtual std::string description() const;

  // Writes the object's keys. Plain values (String, Number, Data) are stored
  // inline by the archiver and never reach this.
  virtual void encodeWithCoder(KeyedArchiver& coder) const;

 protected:
  Object() = default;
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;
};

// Nil-safe equality of two object pointers.
bool isEqual(const ObjectPtr& a, const ObjectPtr& b);

// Checked downcast: nil when `object` is nil or of another class.
template <class T>
std::shared_ptr<T> cast(const ObjectPtr& object) {
  return std::dynamic_pointer_cast<T>(object);
}

}  // namespace qx

// Declares the class-info accessors inside an archivable class.
#define QX_DECLARE_CLASS()                              \
 public:                                                \
  static const ::qx::ClassInfo qxClassInfo;             \
  static const ::qx::ClassInfo& classInfo() {           \
    return qxClassInfo;                                 \
  }                                                     \
  const ::qx::ClassInfo& objectClass() const override { \
    return qxClassInfo;                                 \
  }

// Defines the class info of `Cls` with wire name `wireName` and superclass `Super`.
#define QX_DEFINE_CLASS(Cls, wireName, Super) \
  constinit const ::qx::ClassInfo Cls::qxClassInfo{wireName, &Super::qxClassInfo};
