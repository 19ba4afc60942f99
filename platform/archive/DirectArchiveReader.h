#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/foundation/ClassRegistry.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/DictionaryEntries.h"
#include "platform/foundation/Object.h"

namespace qx {

// Decodes the keyed archives that messages are nearly always made of straight
// from the bytes of their binary plist: plain strings, numbers and data,
// arrays and dictionaries, and objects whose initWithCoder reads only inline
// values and plain strings or data (index paths, size items). The report of
// 100 size records is the message a client receives most.
//
// Hand-written for speed: reading such a report into BinaryPlist's table and
// decoding it with KeyedUnarchiver looks every value up several times, makes a
// node for each of them and runs the general object machinery for each
// record; this reader checks each value once, in place, and builds the objects
// directly.
//
// It gives exactly what KeyedUnarchiver gives for the same archive and class
// set, or nothing: on anything it does not expect (a value type, a key, a
// class, a shared collection, a reference, a layout it does not take) it
// answers false and the caller decodes the archive with KeyedUnarchiver,
// which then gives its usual result or refusal. It never refuses on its own
// account, so it is never stricter or looser than the general decoder: it
// only accepts an archive after checking every value of the plist (offsets,
// lengths, counts and references against the buffer, dictionary keys,
// nesting and cycles) as BinaryPlist does. It takes the layout this project's
// writer makes: containers that name only values before them, offsets and
// references of one or two bytes, ASCII strings; anything else goes the
// general way.
class DirectArchiveReader {
 public:
  DirectArchiveReader();
  ~DirectArchiveReader();
  DirectArchiveReader(const DirectArchiveReader&) = delete;
  DirectArchiveReader& operator=(const DirectArchiveReader&) = delete;

  // Reads and checks the whole plist and the archive's top level. False when
  // this reader does not take the archive. The bytes must outlive the reader's
  // use of them.
  bool open(std::span<const uint8_t> bytes);
  // The root's UID ($top's "root").
  uint32_t rootUid() const { return root_; }

  // Decodes the object `uid` as KeyedUnarchiver's decode of a UID does with
  // `classes` in force (null: unrestricted). False when not handled.
  bool decode(uint32_t uid, const ClassSet* classes, ObjectPtr& object);

  // For reading a message envelope as KeyedUnarchiver::unarchiveRootWith
  // does: the archived object `uid` when it is an object dictionary of a
  // registered class, marked as being decoded (so that a reference to it
  // from inside is not handled).
  bool beginObject(uint32_t uid, const ClassRegistry::Entry*& entry);
  // The UIDs of the inline array under `key` of object `uid` (begun with
  // beginObject). False when absent or not an array of UIDs.
  bool uidsForKey(uint32_t uid, std::string_view key, std::vector<uint32_t>& uids);
  // The text of the plain string object `uid` (not "$null").
  bool plainString(uint32_t uid, std::string_view& text);
  // The value of the plain integer object `uid`.
  bool plainInteger(uint32_t uid, int64_t& value);

  // Forgets the archive: its objects are released.
  void close();
  // Empties the reader for the next archive of this thread (ScratchPool);
  // false when it holds too much memory to keep.
  bool recycle();

 private:
  using Ref = uint32_t;
  struct Value;
  struct Slot;
  // The object whose initWithCoder runs in flat mode, and how its reads went.
  struct Flat {
    const Value* object = nullptr;
    bool failed = false;
    bool unsupported = false;
    bool needsObjects = false;  // asked for objects: its class never reads flat
  };
  // A class set's answer for a class, remembered for the archive.
  struct Allowance {
    const ClassSet* classes = nullptr;
    const ClassInfo* cls = nullptr;
    bool allowed = false;
  };

  Ref refAt(const uint8_t* refs, std::size_t index) const;
  template <unsigned Width>
  static Ref readRef(const uint8_t* refs, std::size_t index);
  template <unsigned OffsetWidth, unsigned RefWidth>
  bool scan();
  bool namesUsableClass(const Value& dictionary) const;
  template <unsigned RefWidth>
  int keyIdAt(const uint8_t* refs, std::size_t index, Ref ref);
  template <unsigned RefWidth>
  bool scanDictionary(Ref ref, Value& value);
  template <unsigned RefWidth>
  bool scanArray(Ref ref, Value& value);
  bool internKey(Value& key);
  int keyIdOf(std::string_view text) const;
  const Value* valueForKey(const Value& dictionary, int keyId) const;
  const Value* objectValue(uint32_t uid) const;
  struct KnownClass;
  KnownClass* classOf(const Value& object);
  std::size_t slotOf(const Value& value);
  static bool allowed(const ClassSet* classes, const ClassInfo& cls, Allowance& last);
  int hintedKeyId(std::string_view key);
  struct KeyHint;
  int missedKeyId(std::string_view key, KeyHint& hint);
  bool elementsFor(const Value& object, int keyId, const Value*& array) const;
  static std::size_t count(const Value* array);
  bool decodeElement(const Value& array, std::size_t index, const ClassSet* classes,
                     ObjectPtr& out);
  bool decodeValue(uint32_t uid, const ClassSet* classes, ObjectPtr& object);
  bool decodeInstance(const Value& object, const ClassSet* classes, ObjectPtr& result);
  bool decodeElements(const Value& object, int keyId, const ClassSet* classes,
                      std::vector<ObjectPtr>& out);
  bool decodeKeys(const Value* keys, const ClassSet* classes, DictionaryEntries& entries);

  // KeyedUnarchiver's flat mode: the reads of an initWithCoder on the
  // object in flat_, answered as the general path answers them. A read that
  // needs more than the object's own values marks the decode unsupported.
  friend class KeyedUnarchiver;
  const Value* flatValue(std::string_view key);
  bool flatPlain(std::string_view key, uint8_t type, const Value*& found);
  bool flatFailed() const;
  void flatFail();
  void flatUnsupported();
  void flatNeedsObjects();
  bool flatContains(std::string_view key);
  int64_t flatInteger(std::string_view key);
  bool flatBool(std::string_view key);
  double flatDouble(std::string_view key);
  std::optional<std::vector<uint8_t>> flatBytes(std::string_view key);
  bool flatData(std::string_view key, std::span<const uint8_t>& bytes);
  bool flatString(std::string_view key, std::string_view& text);

  const uint8_t* bytes_ = nullptr;
  std::size_t size_ = 0;
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  uint64_t count_ = 0;
  uint64_t tableOffset_ = 0;
  std::vector<Value> values_;
  std::vector<Slot> slots_;
  // The distinct key texts of the archive, by id.
  std::vector<std::string_view> keys_;
  const Value* objects_ = nullptr;  // $objects
  uint32_t objectCount_ = 0;
  uint32_t root_ = 0;
  int nsKeys_ = -1;
  int nsObjects_ = -1;
  int classKey_ = -1;
  int depth_ = 0;
  bool checkClasses_ = false;  // some classes are known to need the general path
  // The last answers for plain values, by their type.
  Allowance plainAllowances_[8];
  struct KeyHint {
    const char* text = nullptr;
    int id = -1;
  };
  KeyHint keyHints_[64];
  // The classes met, by the UID of their class dictionary, and where the
  // last ones are in that list (1 + index, by UID).
  struct KnownClass {
    uint32_t uid = 0;
    const ClassRegistry::Entry* entry = nullptr;
    Allowance allowance;
  };
  std::vector<KnownClass> classes_;
  uint32_t classHints_[8] = {};
  // The plain keys of the last dictionary, by their array and class set.
  struct SharedKeys {
    const Value* array = nullptr;
    const ClassSet* classes = nullptr;
    ObjectPtr objects[4];
  };
  SharedKeys sharedKeys_;
  Flat flat_;
};

}  // namespace qx
