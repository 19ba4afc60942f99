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

  // An object of class `cls` shared by content: the first call with a given
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

  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  struct State;

 private:
  explicit KeyedArchiver(State& state) : state_(state) {}
  // The archive whose root is the object `writeRoot` writes, returning its
  // UID. Empty when memory runs out or `writeRoot` throws.
  static std::vector<uint8_t> archiveOfRoot(
      const std::function<uint32_t(KeyedArchiver&)>& writeRoot);
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
