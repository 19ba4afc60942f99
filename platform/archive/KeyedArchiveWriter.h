#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/archive/BinaryPlistStream.h"
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
// (BinaryPlistStream), and the calls made for every record are inline.
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
  Value integerValue(int64_t value) { return state_.plist.addInteger(value); }
  Value boolValue(bool value) { return state_.plist.addBool(value); }
  // The UID value naming object `uid`. Forced inline, like newObject: the
  // record writer calls both several times a record, and left to itself the
  // compiler calls them out of line (3% of a report).
  [[gnu::always_inline]] Value uidValue(uint32_t uid) {
    Value& value = state_.objects[uid].uidValue;
    if (value == State::kNoValue) value = state_.plist.addUid(uid);
    return value;
  }
  // A new NSString, NSNumber (integer) or NSData object, as KeyedArchiver
  // writes one met for the first time; answers its UID.
  uint32_t stringObject(std::string_view text) { return newObject(state_.plist.addString(text)); }
  uint32_t integerObject(int64_t value) { return newObject(state_.plist.addInteger(value)); }
  // The same for an NSNumber holding a boolean or a double.
  uint32_t boolObject(bool value) { return newObject(state_.plist.addBool(value)); }
  uint32_t realObject(double value) { return newObject(state_.plist.addReal(value)); }
  uint32_t dataObject(std::span<const uint8_t> bytes) {
    return newObject(state_.plist.addData(bytes));
  }
  // A new object's UID, taken before its contents are written (its slot
  // among the objects comes before theirs)...
  uint32_t reserveObject() { return newObject(State::kNoValue); }
  // ...and its dictionary once they are: `keys[i]` holds `values[i]`, then
  // $class holds `classValue`...
  void fillObject(uint32_t uid, Value classValue, std::span<const Value> keys,
                  std::span<const Value> values) {
    state_.objects[uid].value =
        state_.plist.addDictionary(keys, values, state_.classKey, classValue);
  }
  // ...which names the class dictionary of `cls`, written the first time it
  // is asked for: ask for it when the first object of the class is filled
  // (after its contents), and keep it for the others.
  Value classValue(const ClassInfo& cls) { return uidValue(classUid(cls)); }
  // An inline array of UID values under the key value `key`, shared with
  // the last one written under that key when they are equal.
  Value arrayOfUids(Value key, std::span<const Value> uids);

  ~KeyedArchiveWriter();
  KeyedArchiveWriter(const KeyedArchiveWriter&) = delete;
  KeyedArchiveWriter& operator=(const KeyedArchiveWriter&) = delete;

  // The working state, kept per thread from one archive to the next.
  struct State {
    static constexpr Value kNoValue = 0xffffffffU;

    BinaryPlistStream plist;
    // $objects: the plist value of each UID (kNoValue while reserved), and
    // the UID value that names it (made on first use).
    struct Slot {
      Value value;
      Value uidValue;
    };
    std::vector<Slot> objects;
    std::vector<std::pair<const ClassInfo*, uint32_t>> classUids;
    // The class chain of each class met by this thread, kept from one
    // archive to the next: classes are few and live as long as the program.
    std::vector<std::pair<const ClassInfo*, std::vector<std::string_view>>> chains;
    Value classKey = 0;
    // The last inline array of UIDs written under each key, with its
    // elements: an array equal to the one before it under the same key is
    // shared, as KeyedArchiver shares it (the NS.keys of every record).
    struct LastArray {
      Value key = 0;
      Value array = 0;
      std::vector<Value> elements;
    };
    static constexpr std::size_t kSharedArrayKeys = 8;
    LastArray lastArrays[kSharedArrayKeys];
    std::size_t lastArrayCount = 0;
    // Guesses for the next archive of this thread: the reference width and
    // the size of the last one.
    unsigned refWidth = 2;
    std::size_t lastBytes = 4096;

    void reset();
    // Empties the state for the next archive of this thread (ScratchPool).
    bool recycle();
  };

 private:
  explicit KeyedArchiveWriter(State& state) : state_(state) {}
  // One attempt with references of `refWidth` bytes; empty when that width
  // turns out wrong (State::refWidth then holds the right one).
  static std::vector<uint8_t> attempt(
      State& state, unsigned refWidth,
      const std::function<uint32_t(KeyedArchiveWriter&)>& writeRoot);
  [[gnu::always_inline]] uint32_t newObject(Value value) {
    auto uid = static_cast<uint32_t>(state_.objects.size());
    state_.objects.push_back({value, State::kNoValue});
    return uid;
  }
  // The UID of the class dictionary of `cls`, appended when first needed.
  uint32_t classUid(const ClassInfo& cls);
  const std::vector<std::string_view>& chainOf(const ClassInfo& cls);
  std::vector<uint8_t> finish(uint32_t rootUid);

  State& state_;
};

}  // namespace qx
