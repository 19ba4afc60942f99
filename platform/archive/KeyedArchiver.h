#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "platform/foundation/Data.h"
#include "platform/foundation/Object.h"

namespace qx {

// Writes a keyed archive: a binary property list in the layout of Foundation's
// keyed archiver ($archiver, $version, $top, $objects). Each object instance is
// written once and referenced by UID wherever it recurs; class dictionaries are
// shared within one archive.
//
// The encode calls are made from an object's encodeWithCoder and write the keys
// of the object currently being encoded.
class KeyedArchiver {
 public:
  // The archive of `root` (nil archives as UID 0). Nil only when memory runs
  // out or an encodeWithCoder throws; nothing is thrown from here.
  static DataPtr archivedDataWithRootObject(const ObjectPtr& root);

  void encodeObject(const ObjectPtr& object, std::string_view key);
  void encodeInt(int32_t value, std::string_view key);
  void encodeInteger(int64_t value, std::string_view key);
  void encodeBool(bool value, std::string_view key);
  void encodeDouble(double value, std::string_view key);
  // Bytes stored inline as a plist data value (NSUUID's NS.uuidbytes).
  void encodeBytes(std::span<const uint8_t> bytes, std::string_view key);
  // Bytes archived as an NSData object of their own under a UID, exactly as
  // encodeObject(Data::make(bytes), key) would, without making the object
  // (NSIndexPath's NSIndexPathData, written once per record of a report).
  void encodeDataObject(std::span<const uint8_t> bytes, std::string_view key);
  // The same for text archived as an NSString object of its own (a URL's
  // strings, written once per item of a listing); equal texts are not shared.
  void encodeStringObject(std::string_view text, std::string_view key);
  // An inline plist array of UIDs, one per object (NS.objects, NS.keys).
  void encodeArrayOfObjects(const std::vector<ObjectPtr>& objects, std::string_view key);
  // The same for `count` objects, the i-th given by `objectAt(i)`, without
  // gathering them in a vector first (a dictionary's keys and values).
  template <class ObjectAt>
  void encodeArrayOfObjects(std::size_t count, ObjectAt&& objectAt, std::string_view key) {
    std::size_t start = beginArray();
    for (std::size_t i = 0; i < count; ++i) addArrayElement(objectAt(i));
    endArray(start, key);
  }

  // An object of class `cls` written from its keys alone, with no instance
  // behind it: `encode(coder)` writes the keys, as an encodeWithCoder would.
  // A new UID every time.
  template <class Encode>
  void encodeObjectOfClass(const ClassInfo& cls, std::string_view key, Encode&& encode) {
    encodeUid(objectOfClass(cls, std::forward<Encode>(encode)), key);
  }

  // Writing without objects. The messages sent most (a report of size
  // records) are written straight from plain values: the calls below make
  // the same property list values, in the same order, as archiving objects
  // with these contents would, so the bytes are the same, without building
  // the objects or looking each one up by identity.
  //
  // The archive whose root is the object `writeRoot` writes, returning its
  // UID. Empty when memory runs out or `writeRoot` throws.
  static std::vector<uint8_t> archiveOfRoot(
      const std::function<uint32_t(KeyedArchiver&)>& writeRoot);
  // The UID of a new object of class `cls` whose keys `encode(coder)` writes.
  template <class Encode>
  uint32_t objectOfClass(const ClassInfo& cls, Encode&& encode) {
    OpenObject open = openObject();
    encode(*this);
    closeObject(open, cls);
    return open.uid;
  }
  // The UID of a new NSString or NSNumber (integer) object.
  uint32_t stringObject(std::string_view text);
  uint32_t integerObject(int64_t value);
  // An inline array of UIDs under `key`, the i-th UID given by `uidAt(i)`
  // (which may write the object first).
  template <class UidAt>
  void encodeArrayOfUids(std::size_t count, UidAt&& uidAt, std::string_view key) {
    std::size_t start = beginArray();
    for (std::size_t i = 0; i < count; ++i) addArrayUid(uidAt(i));
    endArray(start, key);
  }
  // The same for objects shared by content: the first call with a given
  // class and `identity` in an archive writes the object; later ones refer to
  // it by the same UID without calling `encode` (the folder of many file
  // references, written once).
  template <class Encode>
  void encodeSharedObjectOfClass(const ClassInfo& cls, std::string_view identity,
                                 std::string_view key, Encode&& encode) {
    uint32_t uid = sharedUid(cls, identity);
    if (uid == 0) {
      OpenObject open = openObject();
      rememberShared(cls, identity, open.uid);
      encode(*this);
      closeObject(open, cls);
      uid = open.uid;
    }
    encodeUid(uid, key);
  }

  // Writing by values, for objects written many times (the records of a
  // report): the same property list values, in the same order, as the encode
  // calls and the object's encodeWithCoder make, without gathering pairs on a
  // stack or looking a key up by its text on every call. A Value names a value
  // of this archive's property list; 0 is never a key.
  using Value = uint32_t;
  // The key value of `key`, as the encode calls use it.
  Value keyValue(std::string_view key);
  Value integerValue(int64_t value);
  Value boolValue(bool value);
  // The UID value naming object `uid`.
  Value uidValue(uint32_t uid);
  // A new NSData object of `bytes` (encodeDataObject without its key).
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

  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  struct State;

 private:
  explicit KeyedArchiver(State& state) : state_(state) {}
  std::size_t beginArray();
  void addArrayElement(const ObjectPtr& object);
  void addArrayUid(uint32_t uid);
  // The archive around the root object `rootUid`, once its objects are written.
  std::vector<uint8_t> finish(uint32_t rootUid);
  void endArray(std::size_t start, std::string_view key);
  uint32_t sharedArray(uint32_t key, std::span<const uint32_t> elements);
  // Keys whose last array is remembered for sharing (NS.keys, NS.objects, ...).
  static constexpr std::size_t kSharedArrayKeys = 8;
  // An object's slot, reserved before its keys are written, and where its
  // keys begin on the stack.
  struct OpenObject {
    uint32_t uid;
    std::size_t start;
  };
  OpenObject openObject();
  void closeObject(const OpenObject& open, const ClassInfo& cls);
  void encodeUid(uint32_t uid, std::string_view key);
  // The UID of the shared object of `cls` named `identity`, or 0.
  uint32_t sharedUid(const ClassInfo& cls, std::string_view identity) const;
  void rememberShared(const ClassInfo& cls, std::string_view identity, uint32_t uid);
  // The UID of `object`, encoding it first when it is met for the first time.
  uint32_t uidFor(const ObjectPtr& object);
  // Archives the plist value `value` as an object of its own under `key`.
  void encodeNewObject(uint32_t value, std::string_view key);
  // A new UID for the plist value `value`.
  uint32_t newObject(uint32_t value);
  // The UID of the class dictionary of `cls`, appended when first needed.
  uint32_t classUid(const ClassInfo& cls);

  State& state_;
};

}  // namespace qx
