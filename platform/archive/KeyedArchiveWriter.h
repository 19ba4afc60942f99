#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/foundation/Object.h"

namespace qx {

// Writes a keyed archive straight from plain values, for the messages sent
// most (a report of size records): the calls below add the same property
// list values, in the same order, as KeyedArchiver adds when it archives
// objects with these contents, so the bytes are the same, without building
// the objects, looking each one up by identity or holding the property list
// in a table before writing it.
//
// Hand-written for speed: the values go straight to their bytes
// (BinaryPlistStream), which makes a report of 100 records in about a third
// of the instructions of archiving its objects.
//
// A Value names a value of this archive's property list; 0 is never a key.
class KeyedArchiveWriter {
 public:
  using Value = uint32_t;

  // The archive whose root is the object `writeRoot` writes, returning its
  // UID. `writeRoot` may be called a second time, and must then write the
  // same values (the width of a reference is only known in the end). Empty
  // when memory runs out or `writeRoot` throws.
  static std::vector<uint8_t> archiveOfRoot(
      const std::function<uint32_t(KeyedArchiveWriter&)>& writeRoot);

  // The key value of `key`, as KeyedArchiver's encode calls use it.
  Value keyValue(std::string_view key);
  Value integerValue(int64_t value);
  Value boolValue(bool value);
  // The UID value naming object `uid`.
  Value uidValue(uint32_t uid);
  // A new NSString, NSNumber (integer) or NSData object, as KeyedArchiver
  // writes one met for the first time; answers its UID.
  uint32_t stringObject(std::string_view text);
  uint32_t integerObject(int64_t value);
  uint32_t dataObject(std::span<const uint8_t> bytes);
  // A new object's UID, taken before its contents are written (its slot
  // among the objects comes before theirs)...
  uint32_t reserveObject();
  // ...and its dictionary once they are: `keys[i]` holds `values[i]`, then
  // $class names `cls`.
  void fillObject(uint32_t uid, const ClassInfo& cls, std::span<const Value> keys,
                  std::span<const Value> values);
  // An inline array of UID values under the key value `key`, shared with
  // the last one written under that key when they are equal.
  Value arrayOfUids(Value key, std::span<const Value> uids);

  ~KeyedArchiveWriter();
  KeyedArchiveWriter(const KeyedArchiveWriter&) = delete;
  KeyedArchiveWriter& operator=(const KeyedArchiveWriter&) = delete;

  struct State;

 private:
  explicit KeyedArchiveWriter(State& state) : state_(state) {}
  // One attempt with references of `refWidth` bytes; empty when that width
  // turns out wrong (State::refWidth then holds the right one).
  static std::vector<uint8_t> attempt(State& state, unsigned refWidth,
                                      const std::function<uint32_t(KeyedArchiveWriter&)>& writeRoot);
  uint32_t newObject(Value value);
  // The UID of the class dictionary of `cls`, appended when first needed.
  uint32_t classUid(const ClassInfo& cls);
  std::vector<uint8_t> finish(uint32_t rootUid);

  State& state_;
};

}  // namespace qx
