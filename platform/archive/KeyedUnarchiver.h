#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/Object.h"

namespace qx {

class DirectArchiveReader;

// Reads a keyed archive written by KeyedArchiver (or by any writer of the same
// layout). Decoding is safe on hostile input: every UID, offset, count and
// length is checked, nesting (objects in objects, archives in archives) is
// limited to 256 levels and cycles are refused. A malformed or refused object
// decodes as nil and marks the unarchiver failed with an error of domain
// "NSCocoaErrorDomain", code 4864; nothing is thrown.
//
// Restricted decoding: decodeObjectOfClasses applies its set to the object under
// that key and to everything decoded inside it through plain nested decodes,
// until a nested decodeObjectOfClass(es) names a set of its own. The set is
// checked against the local class chain of the archived $classname; plain plist
// values are checked as NSString, NSNumber and NSData.
class KeyedUnarchiver {
 public:
  // Unrestricted: any registered class may appear.
  static ObjectPtr unarchiveObjectWithData(const Data& data, ErrorPtr* error = nullptr);
  static ObjectPtr unarchiveObjectWithData(std::span<const uint8_t> data,
                                           ErrorPtr* error = nullptr);
  // Restricted to `classes` (and what nested decodes allow).
  static ObjectPtr unarchivedObjectOfClasses(const ClassSet& classes, const Data& data,
                                             ErrorPtr* error = nullptr);
  static ObjectPtr unarchivedObjectOfClasses(const ClassSet& classes, std::span<const uint8_t> data,
                                             ErrorPtr* error = nullptr);

  // Decoding an envelope whose values need different sets (the messages of a
  // connection): the root object, whose class must be in `classes`, is made by
  // `decode`, called with the unarchiver on the root's keyed dictionary,
  // instead of by its class's factory. Inside `decode`, the entries of the
  // root's inline arrays are read one by one with the two calls below.
  using DecodeFunction = std::function<ObjectPtr(KeyedUnarchiver&)>;
  // Runs `read` on a DirectArchiveReader opened on `data`, with the arena
  // and nesting accounting of a decode. False when the reader does not take
  // the archive or `read` answers false: the caller then decodes it with the
  // calls here. Archives nested in a decode are always left to those.
  static bool readDirectly(std::span<const uint8_t> data,
                           const std::function<bool(DirectArchiveReader&)>& read);
  // While one lives, readDirectly answers false on this thread: every decode
  // takes the general path, for checking the two paths against each other.
  class GeneralPathOnly {
   public:
    GeneralPathOnly();
    ~GeneralPathOnly();
    GeneralPathOnly(const GeneralPathOnly&) = delete;
    GeneralPathOnly& operator=(const GeneralPathOnly&) = delete;

   private:
    bool outer_;
  };
  static ObjectPtr unarchiveRootWith(std::span<const uint8_t> data, const ClassSet& classes,
                                     const DecodeFunction& decode, ErrorPtr* error = nullptr);
  // The length of the inline array under `key`; nullopt when the key is
  // absent, or when it holds something else (which fails the unarchiver).
  std::optional<std::size_t> countOfArrayForKey(std::string_view key) {
    std::size_t length = 0;
    if (!lengthOfArrayForKey(key, length)) return std::nullopt;
    return length;
  }
  // Element `index` of the inline array of UIDs under `key`, decoded with
  // `classes` as its own set. An index out of range or an element that is not
  // a UID fails the unarchiver.
  ObjectPtr decodeObjectOfClassesAtIndexForKey(const ClassSet& classes, std::string_view key,
                                               std::size_t index);
  // The same element, an object whose class must be in `classes`, made by
  // `decode` instead of its class's factory.
  ObjectPtr decodeObjectAtIndexForKeyWith(const ClassSet& classes, std::string_view key,
                                          std::size_t index, const DecodeFunction& decode);

  // The keys of the object being decoded, read from inside an initWithCoder.
  bool containsValueForKey(std::string_view key) const;
  // Numeric and boolean reads: a missing key gives 0 / NO; a value of the wrong
  // type fails the unarchiver and gives 0 / NO.
  int32_t decodeIntForKey(std::string_view key);
  int64_t decodeIntegerForKey(std::string_view key);
  bool decodeBoolForKey(std::string_view key);
  double decodeDoubleForKey(std::string_view key);
  // Inline bytes (NSUUID's NS.uuidbytes); nullopt when missing or not data.
  std::optional<std::vector<uint8_t>> decodeBytesForKey(std::string_view key);
  // The bytes of the NSData object under `key`, as decodeObjectOfClassForKey
  // with NSData would decode it, read in place without making the object.
  // False when the key is absent, the object is nil or the unarchiver failed.
  // The bytes stay valid while the archive being decoded does.
  bool decodeDataObjectForKey(std::string_view key, std::span<const uint8_t>& bytes);
  // The same for the text of an NSString object (decodeObjectOfClassForKey
  // with NSString), valid while the archive is being decoded.
  bool decodeStringObjectForKey(std::string_view key, std::string_view& text);

  // Plain nested decode: the set in force for the enclosing object applies.
  ObjectPtr decodeObjectForKey(std::string_view key);
  ObjectPtr decodeObjectOfClassForKey(const ClassInfo& cls, std::string_view key);
  ObjectPtr decodeObjectOfClassesForKey(const ClassSet& classes, std::string_view key);
  // An inline array of UIDs decoded as plain nested decodes. UID 0 and "$null"
  // give nil elements. nullopt (and a failed unarchiver) when the key holds
  // something else or an element fails; an absent key gives an empty vector.
  std::optional<std::vector<ObjectPtr>> decodeArrayOfObjectsForKey(std::string_view key);
  // The same decodes, each element handed to `sink(index, object)` instead of
  // being gathered; false when the unarchiver failed.
  template <class Sink>
  bool decodeArrayOfObjectsForKey(std::string_view key, Sink&& sink) {
    if (direct_) return unsupported();
    ArrayOfUids array;
    if (!arrayForKey(key, array)) return false;
    for (std::size_t i = 0; i < array.count; ++i) {
      ObjectPtr element;
      if (!decodeArrayElement(array, i, key, element)) return false;
      sink(i, std::move(element));
    }
    return true;
  }

  // Marks the unarchiver failed with a description of what was wrong; the
  // first failure is kept.
  void failWithError(std::string description);
  bool hasFailed() const;
  ErrorPtr error() const;

  ~KeyedUnarchiver();
  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;

  struct State;

 private:
  explicit KeyedUnarchiver(State& state) : state_(&state) {}
  // Flat mode: the reads of one initWithCoder answered by `direct`.
  friend class DirectArchiveReader;
  explicit KeyedUnarchiver(DirectArchiveReader& direct) : direct_(&direct) {}
  // An inline array of UIDs under a key of the current object.
  struct ArrayOfUids {
    uint32_t value = 0;
    std::size_t count = 0;
  };
  // False (and a failed unarchiver) unless the key is absent (count 0) or
  // holds an array.
  bool arrayForKey(std::string_view key, ArrayOfUids& array);
  // countOfArrayForKey without an optional crossing a call.
  bool lengthOfArrayForKey(std::string_view key, std::size_t& length);
  // Decodes element `index`, which must be a UID; false when the unarchiver failed.
  bool decodeArrayElement(const ArrayOfUids& array, std::size_t index, std::string_view key,
                          ObjectPtr& element);

  // The one decoding path: unrestricted when `classes` is null; the root made
  // by `decode` instead of its class's factory when `decode` is given.
  static ObjectPtr unarchive(std::span<const uint8_t> data, const ClassSet* classes,
                             ErrorPtr* error, const DecodeFunction* decode = nullptr);

  // Marks a flat-mode decode as not handled (its class asks for objects);
  // answers false.
  bool unsupported();

  State* state_ = nullptr;
  DirectArchiveReader* direct_ = nullptr;
};

// The deepest nesting of objects, counting archives inside archives.
inline constexpr int kMaxArchiveDepth = 256;

}  // namespace qx
