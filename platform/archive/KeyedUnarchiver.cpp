#include "platform/archive/KeyedUnarchiver.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>
#include <string>
#include <utility>

#include "platform/archive/BinaryPlist.h"
#include "platform/archive/DirectArchiveReader.h"
#include "platform/archive/KeyText.h"
#include "platform/archive/ScratchPool.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/ClassRegistry.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/MutableDictionary.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/ObjectArena.h"
#include "platform/foundation/String.h"

namespace qx {
namespace {

using Ref = BinaryPlist::Ref;
using Type = BinaryPlist::Type;

// Objects being decoded are counted across the archives nested in each other
// (an initWithCoder may unarchive a child archive). Each unarchiver keeps its
// own count and starts from that of the unarchiver active on the thread, so
// the thread-local is touched once per archive, not once per object.
thread_local int* tActiveDepth = nullptr;
// Bytes that archives nested in the outermost one may still bring. Nested
// archives are carried inside their parents, so a legitimate tree of depth d
// decodes at most d times the outer bytes; one blob named by many UIDs of a
// child list would otherwise be decoded again for every name.
thread_local uint64_t tNestedBytesLeft = 0;
// Set while a KeyedUnarchiver::GeneralPathOnly lives.
thread_local bool tGeneralPathOnly = false;

class ActiveDepth {
 public:
  ActiveDepth(int& depth, std::size_t bytes) : outer_(tActiveDepth) {
    depth = outer_ ? *outer_ : 0;
    tActiveDepth = &depth;
    if (!outer_) {
      tNestedBytesLeft = (uint64_t(bytes) + 4096) * (kMaxArchiveDepth + 1);
    } else if (bytes > tNestedBytesLeft) {
      withinBudget_ = false;
    } else {
      tNestedBytesLeft -= bytes;
    }
  }
  ~ActiveDepth() {
    tActiveDepth = outer_;
    if (!outer_) tNestedBytesLeft = 0;
  }
  ActiveDepth(const ActiveDepth&) = delete;
  ActiveDepth& operator=(const ActiveDepth&) = delete;

  // False for a nested archive beyond what the outermost one justifies.
  bool withinBudget() const { return withinBudget_; }

 private:
  int* outer_;
  bool withinBudget_ = true;
};

class DepthScope {
 public:
  explicit DepthScope(int& depth) : depth_(depth) { ++depth_; }
  ~DepthScope() { --depth_; }
  DepthScope(const DepthScope&) = delete;
  DepthScope& operator=(const DepthScope&) = delete;

 private:
  int& depth_;
};

const char* typeName(Type type) {
  switch (type) {
    case Type::Null:
      return "a null";
    case Type::Bool:
      return "a boolean";
    case Type::Integer:
      return "an integer";
    case Type::Real:
      return "a real";
    case Type::Date:
      return "a date";
    case Type::Data:
      return "data";
    case Type::String:
      return "a string";
    case Type::Array:
      return "an array";
    case Type::Dictionary:
      return "a dictionary";
    case Type::Uid:
      return "a UID";
  }
  return "an unknown value";
}

std::string quoted(std::string_view key) {
  return "\"" + std::string(key) + "\"";
}

}  // namespace

struct KeyedUnarchiver::State {
  // The classes allowed for an object: a set, a single class, or (when the
  // unarchiver is unrestricted) anything.
  struct Allowed {
    const ClassSet* set = nullptr;
    const ClassInfo* single = nullptr;

    bool allows(const ClassInfo& cls) const {
      if (single) return cls.isSubclassOf(*single);
      return set != nullptr && set->allows(cls);
    }
    std::string description() const {
      if (single) return std::string(single->name());
      return set ? set->description() : std::string();
    }
  };

  // The object whose initWithCoder is running.
  struct Frame {
    Ref dictionary = 0;
    Allowed allowed;  // for its plain nested decodes
    std::string_view key = "root";
    std::string_view className;
  };

  enum class Status : uint8_t { New, Decoding, Done };
  struct Slot {
    ObjectPtr object;
    const ClassRegistry::Entry* entry = nullptr;  // for class dictionaries
    Status status = Status::New;
    uint32_t summary = 0;  // 1 + index in `contents` once a collection is summarised
  };

  // A class found inside a collection, directly or through the collections
  // nested in it, with the key it was found under.
  struct Content {
    const ClassInfo* cls = nullptr;
    const char* key = nullptr;
  };
  static constexpr uint32_t kSummarising = std::numeric_limits<uint32_t>::max();

  BinaryPlist plist;
  Ref objects = 0;
  std::size_t objectCount = 0;
  bool restricted = false;
  // Decoded objects and resolved classes, per plist value: two UIDs naming one
  // value decode to one object, so no input decodes the same bytes twice.
  std::vector<uint32_t> slotOfValue;
  std::vector<Slot> slots;
  // The classes each collection holds, made the first time a decoded
  // collection is handed out again under a restricted set.
  std::vector<std::vector<Content>> contents;
  Frame frame;
  ErrorPtr error;
  KeyedUnarchiver* coder = nullptr;
  // Objects being decoded, counting those of the archives this one is nested in.
  int depth = 0;
  // Makes the next object decodeInstance meets instead of its factory.
  const DecodeFunction* customDecode = nullptr;

  // Messages are built out of line, so that the paths that decode carry no
  // string building: `build` makes the description only on failure.
  template <class Build>
  [[gnu::cold, gnu::noinline]] void failWith(Build&& build) {
    fail(build());
  }

  void fail(std::string description) {
    if (error) return;
    auto info = MutableDictionary::make();
    info->setObject(str(std::move(description)), kLocalizedDescriptionKey);
    error = Error::errorWithDomain(kCocoaErrorDomain, kCoderReadCorruptError, info);
  }

  // Where an error happened: the object being decoded and its key.
  std::string context() const {
    if (frame.className.empty()) return "";
    return " in " + std::string(frame.className) + " under key " + quoted(frame.key);
  }

  // Keys asked for, by the address of their text, with the key value that
  // matched: archives share one key value among all their dictionaries, so a
  // hit is a comparison of Refs (confirmed by content) instead of a scan of
  // key texts. Keys are nearly always literals: each is looked up by content
  // once per archive, and after that found by its address in one probe.
  struct KeyHint {
    KeyText text;
    Ref key = BinaryPlist::kNoRef;
  };
  static constexpr std::size_t kKeyHints = 64;
  static constexpr std::size_t kHintProbes = 4;
  KeyHint keyHints[kKeyHints];

  // (Refs with kNoRef rather than std::optional: these run for every key of
  // every object, and a returned optional travels through memory.)
  Ref lookup(std::string_view key) {
    if (!key.empty() && key.front() == '$') {
      return plist.lookup(frame.dictionary, "$" + std::string(key));
    }
    return hintedLookup(frame.dictionary, key);
  }

  static std::size_t hintIndex(std::string_view key) {
    // Literals lie a few bytes apart: the address is mixed before it picks a slot.
    auto bits = reinterpret_cast<uintptr_t>(key.data()) ^ key.size();
    return static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15ULL) >> 58);
  }

  // The value under the stored key `key` of `dictionary`, or kNoRef. Hints
  // are probed from the key's slot on, a few at most, so that keys whose
  // addresses meet in one slot do not push each other out.
  Ref hintedLookup(Ref dictionary, std::string_view key) {
    std::size_t first = hintIndex(key);
    KeyHint* free = nullptr;
    for (std::size_t probe = 0; probe < kHintProbes; ++probe) {
      KeyHint& hint = keyHints[(first + probe) % kKeyHints];
      if (hint.text.sameAddress(key)) {
        Ref value = plist.lookupByKeyRef(dictionary, hint.key);
        if (value != BinaryPlist::kNoRef && hint.text.sameDigest(key) &&
            (hint.text.complete() || plist.textEquals(hint.key, key))) {
          return value;
        }
        free = &hint;
        break;
      }
      if (hint.text.empty()) {
        free = &hint;
        break;
      }
    }
    Ref keyRef = BinaryPlist::kNoRef;
    Ref value = plist.lookup(dictionary, key, &keyRef);
    if (value == BinaryPlist::kNoRef) return value;
    if (!free) free = &keyHints[first];
    *free = {KeyText(key), keyRef};
    return value;
  }

  // The value under `key` of the current object when it has type `type`; a
  // value of another type fails the unarchiver.
  Ref typedValue(std::string_view key, Type type, const char* expected) {
    if (error || frame.className.empty()) return BinaryPlist::kNoRef;
    Ref value = lookup(key);
    if (value == BinaryPlist::kNoRef) return value;
    if (plist.type(value) != type) {
      failWith([&] {
        return "value for key " + quoted(key) + " of " + std::string(frame.className) + " is " +
               typeName(plist.type(value)) + ", not " + expected;
      });
      return BinaryPlist::kNoRef;
    }
    return value;
  }

  Slot& slotFor(Ref value) {
    uint32_t& index = slotOfValue[value];
    if (index == 0) {
      slots.emplace_back();
      index = static_cast<uint32_t>(slots.size());
    }
    return slots[index - 1];
  }

  // A state that held more than this is not kept for the next archive.
  static constexpr std::size_t kKeepBytes = 4 << 20;

  // Empties the state for the next archive of this thread (ScratchPool).
  bool recycle() {
    plist.clear();
    objects = 0;
    objectCount = 0;
    restricted = false;
    slotOfValue.clear();
    slots.clear();
    contents.clear();
    frame = Frame{};
    error.reset();
    coder = nullptr;
    depth = 0;
    customDecode = nullptr;
    std::fill(std::begin(keyHints), std::end(keyHints), KeyHint{});
    return plist.memoryUse() + slotOfValue.capacity() * sizeof(uint32_t) +
               slots.capacity() * sizeof(Slot) <=
           kKeepBytes;
  }

  bool open(std::span<const uint8_t> bytes) {
    std::string why;
    if (!plist.read(bytes, &why)) {
      failWith([&] { return "not a binary property list: " + why; });
      return false;
    }
    Ref top = plist.top();
    if (plist.type(top) != Type::Dictionary) return malformed("the top level is not a dictionary");
    auto archiver = plist.find(top, "$archiver");
    if (!archiver || plist.type(*archiver) != Type::String ||
        plist.string(*archiver) != "NSKeyedArchiver") {
      return malformed("$archiver is not \"NSKeyedArchiver\"");
    }
    auto version = plist.find(top, "$version");
    if (!version || plist.type(*version) != Type::Integer || plist.integer(*version) != 100000) {
      return malformed("$version is not 100000");
    }
    auto list = plist.find(top, "$objects");
    if (!list || plist.type(*list) != Type::Array || plist.count(*list) == 0) {
      return malformed("$objects is not a non-empty array");
    }
    objects = *list;
    objectCount = plist.count(objects);
    slotOfValue.assign(plist.size(), 0);
    slots.reserve(objectCount);
    return true;
  }

  bool malformed(const std::string& what) {
    failWith([&] { return "not a keyed archive: " + what; });
    return false;
  }

  ObjectPtr decodeRoot(const ClassSet* classes, const DecodeFunction* custom = nullptr) {
    Ref top = plist.top();
    auto tops = plist.find(top, "$top");
    if (!tops || plist.type(*tops) != Type::Dictionary) {
      malformed("$top is not a dictionary");
      return nullptr;
    }
    auto root = plist.find(*tops, "root");
    if (!root || plist.type(*root) != Type::Uid) {
      malformed("$top has no root UID");
      return nullptr;
    }
    Allowed allowed;
    allowed.set = classes;
    return decodeUidWith(plist.uid(*root), allowed, "root", custom);
  }

  ObjectPtr decodeUidWith(uint32_t uid, Allowed allowed, std::string_view key,
                          const DecodeFunction* custom) {
    customDecode = custom;
    ObjectPtr result = decodeUid(uid, allowed, key);
    customDecode = nullptr;
    return result;
  }

  // Element `index` of the inline array of UIDs under `key` of the current object.
  ObjectPtr decodeElement(std::string_view key, std::size_t index, Allowed allowed,
                          const DecodeFunction* custom) {
    Ref array = typedValue(key, Type::Array, "an array of UIDs");
    if (array == BinaryPlist::kNoRef) {
      if (!error) failWith([&] { return "no array under key " + quoted(key) + context(); });
      return nullptr;
    }
    if (index >= plist.count(array)) {
      failWith([&] {
        return "no element " + std::to_string(index) + " under key " + quoted(key) + context();
      });
      return nullptr;
    }
    Ref element = plist.element(array, index);
    if (plist.type(element) != Type::Uid) {
      failWith([&] {
        return "element " + std::to_string(index) + " under key " + quoted(key) + context() +
               " is not a UID";
      });
      return nullptr;
    }
    return decodeUidWith(plist.uid(element), allowed, key, custom);
  }

  // For reading an object's plain value in place: the archived value of the
  // UID under `key` when it is a plist value of `type` (the null string
  // excepted). Else kNoRef, with `uid` set for decodeUidOfClass, which refuses
  // it, decodes a subclass (kept alive in its slot) or answers nil.
  Ref plainObjectForKey(std::string_view key, Type type, uint32_t& uid) {
    uid = 0;
    Ref value = typedValue(key, Type::Uid, "a UID");
    if (value == BinaryPlist::kNoRef) return value;
    uid = plist.uid(value);
    if (uid == 0 || uid >= objectCount) return BinaryPlist::kNoRef;
    Ref object = plist.element(objects, uid);
    if (plist.type(object) != type) return BinaryPlist::kNoRef;
    if (type == Type::String && plist.string(object) == "$null") return BinaryPlist::kNoRef;
    return object;
  }

  ObjectPtr decodeUidOfClass(uint32_t uid, const ClassInfo& cls, std::string_view key) {
    Allowed allowed;
    allowed.single = &cls;
    return decodeUid(uid, allowed, key);
  }

  // The plain value of the object under `key`: read in place when it is
  // archived as a plist value of `type`, else taken from the decoded object
  // of class `Cls` (a subclass, which stays alive in its slot).
  template <class Cls, class Value, class FromPlist, class FromObject>
  bool readPlainObject(std::string_view key, Type type, Value& value, FromPlist&& fromPlist,
                       FromObject&& fromObject) {
    uint32_t uid = 0;
    Ref plain = plainObjectForKey(key, type, uid);
    if (plain != BinaryPlist::kNoRef) {
      value = fromPlist(plain);
      return true;
    }
    auto object = cast<Cls>(decodeUidOfClass(uid, Cls::classInfo(), key));
    if (!object) return false;
    value = fromObject(*object);
    return true;
  }

  // Decodes the value under `key` of the current object, which must be a UID.
  ObjectPtr decodeKey(std::string_view key, Allowed allowed) {
    Ref value = typedValue(key, Type::Uid, "a UID");
    if (value == BinaryPlist::kNoRef) return nullptr;
    return decodeUid(plist.uid(value), allowed, key);
  }

  bool checkAllowed(const ClassInfo& cls, const Allowed& allowed, std::string_view key) {
    if (!restricted || allowed.allows(cls)) return true;
    failWith([&] {
      return "value for key " + quoted(key) + context() + " is of class " +
             std::string(cls.name()) + ", which is not among the allowed classes (" +
             allowed.description() + ")";
    });
    return false;
  }

  ObjectPtr decodeUid(uint32_t uid, Allowed allowed, std::string_view key) {
    if (error || uid == 0) return nullptr;
    if (uid >= objectCount) {
      failWith([&] {
        return "UID " + std::to_string(uid) + " under key " + quoted(key) + context() +
               " is beyond the " + std::to_string(objectCount) + " archived objects";
      });
      return nullptr;
    }
    Ref value = plist.element(objects, uid);
    switch (plist.type(value)) {
      case Type::String:
        if (plist.string(value) == "$null") return nullptr;
        return decodePlain(value, String::classInfo(), allowed, key);
      case Type::Bool:
      case Type::Integer:
      case Type::Real:
        return decodePlain(value, Number::classInfo(), allowed, key);
      case Type::Data:
        return decodePlain(value, Data::classInfo(), allowed, key);
      case Type::Dictionary:
        return decodeInstance(value, allowed, key);
      default:
        failWith([&] {
          return "archived object " + std::to_string(uid) + " under key " + quoted(key) +
                 context() + " is " + typeName(plist.type(value)) + ", not an object";
        });
        return nullptr;
    }
  }

  ObjectPtr decodePlain(Ref value, const ClassInfo& cls, const Allowed& allowed,
                        std::string_view key) {
    if (!checkAllowed(cls, allowed, key)) return nullptr;
    Slot& slot = slotFor(value);
    if (slot.status == Status::Done) return slot.object;
    switch (plist.type(value)) {
      case Type::String:
        slot.object = String::make(std::string(plist.string(value)));
        break;
      case Type::Data: {
        auto bytes = plist.data(value);
        slot.object = Data::make(std::vector<uint8_t>(bytes.begin(), bytes.end()));
        break;
      }
      case Type::Bool:
        slot.object = Number::numberWithBool(plist.boolValue(value));
        break;
      case Type::Integer:
        slot.object = Number::numberWithInteger(plist.integer(value));
        break;
      default:
        slot.object = Number::numberWithDouble(plist.real(value));
        break;
    }
    slot.status = Status::Done;
    return slot.object;
  }

  // The registry entry of an object dictionary's $class.
  const ClassRegistry::Entry* classOf(Ref object, std::string_view key) {
    Ref classRef = hintedLookup(object, "$class");
    if (classRef == BinaryPlist::kNoRef) {
      failWith([&] { return "object under key " + quoted(key) + context() + " has no $class"; });
      return nullptr;
    }
    if (plist.type(classRef) != Type::Uid || plist.uid(classRef) >= objectCount) {
      failWith([&] {
        return "$class of the object under key " + quoted(key) + context() +
               " is not the UID of an archived object";
      });
      return nullptr;
    }
    Ref classValue = plist.element(objects, plist.uid(classRef));
    if (plist.type(classValue) != Type::Dictionary) {
      failWith([&] {
        return "$class of the object under key " + quoted(key) + context() +
               " is not a class dictionary";
      });
      return nullptr;
    }
    Slot& slot = slotFor(classValue);
    if (slot.entry) return slot.entry;
    auto name = plist.find(classValue, "$classname");
    if (!name || plist.type(*name) != Type::String) {
      failWith([&] {
        return "class dictionary of the object under key " + quoted(key) + context() +
               " has no $classname string";
      });
      return nullptr;
    }
    const ClassRegistry::Entry* entry = ClassRegistry::lookup(plist.string(*name));
    if (!entry) {
      failWith([&] {
        return "unknown class " + std::string(plist.string(*name)) + " under key " + quoted(key) +
               context();
      });
      return nullptr;
    }
    slotFor(classValue).entry = entry;
    return entry;
  }

  // The classes whose instances decode their contents with plain nested
  // decodes, so that the set in force reaches the contents.
  static bool isCollection(const ClassInfo& cls) {
    return &cls == &Array::classInfo() || &cls == &MutableArray::classInfo() ||
           &cls == &Dictionary::classInfo() || &cls == &MutableDictionary::classInfo();
  }

  // A collection decoded before is handed out again. Its contents were
  // checked against the set in force at its first decode; this reference may
  // be under another set, which plain nested decodes would have applied to
  // them, so they are checked against it here.
  bool contentsAllowed(Ref collection, const ClassInfo& cls, const Allowed& allowed,
                       std::string_view key) {
    uint32_t summary = summarise(collection, 0);
    if (summary == 0) return false;
    for (const Content& content : contents[summary - 1]) {
      if (allowed.allows(*content.cls)) continue;
      failWith([&] {
        return "value for key " + quoted(content.key) + " inside the " + std::string(cls.name()) +
               " under key " + quoted(key) + context() + " is of class " +
               std::string(content.cls->name()) + ", which is not among the allowed classes (" +
               allowed.description() + ")";
      });
      return false;
    }
    return true;
  }

  // The distinct classes of a collection's keys and values, through its
  // nested collections, as 1 + an index in `contents`; 0 when the unarchiver
  // failed. Each collection is summarised once per archive, so handing out a
  // large collection many times costs a pass over its classes, not over its
  // elements.
  uint32_t summarise(Ref collection, int level) {
    uint32_t slot = slotIndex(collection);
    if (slots[slot].summary == kSummarising) {
      failWith([&] {
        return "a collection under key " + quoted(frame.key) + context() + " contains itself";
      });
      return 0;
    }
    if (slots[slot].summary != 0) return slots[slot].summary;
    if (level > kMaxArchiveDepth) {
      failWith([&] {
        return "collections nested deeper than " + std::to_string(kMaxArchiveDepth) + " levels" +
               context();
      });
      return 0;
    }
    slots[slot].summary = kSummarising;
    std::vector<Content> found;
    for (const char* key : {"NS.keys", "NS.objects"}) {
      if (!summariseArray(collection, key, level, found)) return 0;
    }
    contents.push_back(std::move(found));
    slots[slot].summary = static_cast<uint32_t>(contents.size());
    return slots[slot].summary;
  }

  bool summariseArray(Ref collection, const char* key, int level, std::vector<Content>& found) {
    Ref array = hintedLookup(collection, key);
    if (array == BinaryPlist::kNoRef) return true;
    if (plist.type(array) != Type::Array) return malformedContents(key);
    for (std::size_t i = 0, count = plist.count(array); i < count; ++i) {
      Ref element = plist.element(array, i);
      if (plist.type(element) != Type::Uid || plist.uid(element) >= objectCount) {
        return malformedContents(key);
      }
      if (plist.uid(element) == 0) continue;
      Ref value = plist.element(objects, plist.uid(element));
      const ClassInfo* cls = nullptr;
      switch (plist.type(value)) {
        case Type::String:
          if (plist.string(value) == "$null") continue;
          cls = &String::classInfo();
          break;
        case Type::Bool:
        case Type::Integer:
        case Type::Real:
          cls = &Number::classInfo();
          break;
        case Type::Data:
          cls = &Data::classInfo();
          break;
        case Type::Dictionary: {
          const ClassRegistry::Entry* entry = classOf(value, key);
          if (!entry) return false;
          cls = entry->cls;
          if (isCollection(*cls)) {
            uint32_t nested = summarise(value, level + 1);
            if (nested == 0) return false;
            for (const Content& content : contents[nested - 1]) addContent(found, content);
          }
          break;
        }
        default:
          return malformedContents(key);
      }
      addContent(found, Content{cls, key});
    }
    return true;
  }

  static void addContent(std::vector<Content>& found, const Content& content) {
    for (const Content& known : found) {
      if (known.cls == content.cls) return;
    }
    found.push_back(content);
  }

  bool malformedContents(std::string_view key) {
    failWith([&] {
      return "the collection contents under key " + quoted(key) + context() + " are malformed";
    });
    return false;
  }

  uint32_t slotIndex(Ref value) {
    slotFor(value);
    return slotOfValue[value] - 1;
  }

  ObjectPtr decodeInstance(Ref object, const Allowed& allowed, std::string_view key) {
    const DecodeFunction* custom = std::exchange(customDecode, nullptr);
    const ClassRegistry::Entry* entry = classOf(object, key);
    if (!entry) return nullptr;
    // The local class, never the archive's $classes, decides what is allowed.
    if (!checkAllowed(*entry->cls, allowed, key)) return nullptr;
    uint32_t index = slotOfValue[object];
    if (index == 0) {
      slotFor(object);
      index = slotOfValue[object];
    }
    if (slots[index - 1].status == Status::Done) {
      if (restricted && isCollection(*entry->cls) &&
          !contentsAllowed(object, *entry->cls, allowed, key)) {
        return nullptr;
      }
      return slots[index - 1].object;
    }
    if (slots[index - 1].status == Status::Decoding) {
      failWith([&] {
        return "the " + std::string(entry->cls->name()) + " under key " + quoted(key) + context() +
               " contains itself";
      });
      return nullptr;
    }
    DepthScope level(depth);
    if (depth > kMaxArchiveDepth) {
      failWith([&] {
        return "objects nested deeper than " + std::to_string(kMaxArchiveDepth) +
               " levels at key " + quoted(key) + context();
      });
      return nullptr;
    }
    slots[index - 1].status = Status::Decoding;
    Frame outer = frame;
    frame = Frame{object, allowed, key, entry->cls->name()};
    ObjectPtr result = custom ? (*custom)(*coder) : entry->factory(*coder);
    frame = outer;
    if (error) return nullptr;
    slots[index - 1].object = result;
    slots[index - 1].status = Status::Done;
    return result;
  }
};

bool KeyedUnarchiver::unsupported() {
  direct_->flatNeedsObjects();
  return false;
}

KeyedUnarchiver::GeneralPathOnly::GeneralPathOnly() : outer_(tGeneralPathOnly) {
  tGeneralPathOnly = true;
}

KeyedUnarchiver::GeneralPathOnly::~GeneralPathOnly() {
  tGeneralPathOnly = outer_;
}

bool KeyedUnarchiver::readDirectly(std::span<const uint8_t> data,
                                   const std::function<bool(DirectArchiveReader&)>& read) {
  if (tActiveDepth || tGeneralPathOnly) return false;
  try {
    ObjectArena::Scope arena;
    ScratchPool<DirectArchiveReader>::Lease lease;
    DirectArchiveReader& reader = *lease;
    ActiveDepth active(reader.depth_, data.size());
    bool done = reader.open(data) && read(reader);
    reader.close();
    return done;
  } catch (...) {
    return false;  // the general path decides
  }
}

ObjectPtr KeyedUnarchiver::unarchive(std::span<const uint8_t> data, const ClassSet* classes,
                                     ErrorPtr* error, const DecodeFunction* decode) {
  if (!decode) {
    ObjectPtr direct;
    if (readDirectly(data, [&](DirectArchiveReader& reader) {
          return reader.decode(reader.rootUid(), classes, direct);
        })) {
      if (error) *error = nullptr;
      return direct;
    }
  }
  try {
    // The decoded objects share one arena, which outlives the working state.
    ObjectArena::Scope arena;
    ScratchPool<State>::Lease lease;
    State& state = *lease;
    ActiveDepth active(state.depth, data.size());
    ObjectPtr result;
    try {
      KeyedUnarchiver coder(state);
      if (!active.withinBudget()) {
        state.fail("archives nested in each other add up to more than the outermost one carries");
      }
      state.coder = &coder;
      state.restricted = classes != nullptr;
      if (!state.error && state.open(data)) result = state.decodeRoot(classes, decode);
    } catch (const std::exception& e) {
      state.fail(std::string("decoding stopped: ") + e.what());
    } catch (...) {
      state.fail("decoding stopped by an exception");
    }
    if (state.error) result = nullptr;
    if (error) *error = state.error;
    return result;
  } catch (...) {
    // No memory even for the working state or the error.
    if (error) *error = nullptr;
    return nullptr;
  }
}

ObjectPtr KeyedUnarchiver::unarchiveRootWith(std::span<const uint8_t> data, const ClassSet& classes,
                                             const DecodeFunction& decode, ErrorPtr* error) {
  return unarchive(data, &classes, error, &decode);
}

KeyedUnarchiver::~KeyedUnarchiver() = default;

ObjectPtr KeyedUnarchiver::unarchiveObjectWithData(const Data& data, ErrorPtr* error) {
  return unarchive(data.span(), nullptr, error);
}

ObjectPtr KeyedUnarchiver::unarchiveObjectWithData(std::span<const uint8_t> data, ErrorPtr* error) {
  return unarchive(data, nullptr, error);
}

ObjectPtr KeyedUnarchiver::unarchivedObjectOfClasses(const ClassSet& classes, const Data& data,
                                                     ErrorPtr* error) {
  return unarchive(data.span(), &classes, error);
}

ObjectPtr KeyedUnarchiver::unarchivedObjectOfClasses(const ClassSet& classes,
                                                     std::span<const uint8_t> data,
                                                     ErrorPtr* error) {
  return unarchive(data, &classes, error);
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
  if (direct_) return direct_->flatContains(key);
  return !state_->frame.className.empty() && state_->lookup(key) != BinaryPlist::kNoRef;
}

int32_t KeyedUnarchiver::decodeIntForKey(std::string_view key) {
  int64_t value = decodeIntegerForKey(key);
  if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max()) {
    if (direct_) return direct_->flatFail(), 0;
    state_->failWith([&] {
      return "value for key " + quoted(key) + " of " + std::string(state_->frame.className) +
             " does not fit 32 bits";
    });
    return 0;
  }
  return static_cast<int32_t>(value);
}

int64_t KeyedUnarchiver::decodeIntegerForKey(std::string_view key) {
  if (direct_) return direct_->flatInteger(key);
  Ref value = state_->typedValue(key, Type::Integer, "an integer");
  return value != BinaryPlist::kNoRef ? state_->plist.integer(value) : 0;
}

bool KeyedUnarchiver::decodeBoolForKey(std::string_view key) {
  if (direct_) return direct_->flatBool(key);
  Ref value = state_->typedValue(key, Type::Bool, "a boolean");
  return value != BinaryPlist::kNoRef && state_->plist.boolValue(value);
}

double KeyedUnarchiver::decodeDoubleForKey(std::string_view key) {
  if (direct_) return direct_->flatDouble(key);
  if (state_->error || state_->frame.className.empty()) return 0;
  Ref value = state_->lookup(key);
  if (value == BinaryPlist::kNoRef) return 0;
  switch (state_->plist.type(value)) {
    case Type::Real:
      return state_->plist.real(value);
    case Type::Integer:
      return static_cast<double>(state_->plist.integer(value));
    default:
      state_->failWith([&] {
        return "value for key " + quoted(key) + " of " + std::string(state_->frame.className) +
               " is " + typeName(state_->plist.type(value)) + ", not a number";
      });
      return 0;
  }
}

std::optional<std::vector<uint8_t>> KeyedUnarchiver::decodeBytesForKey(std::string_view key) {
  if (direct_) return direct_->flatBytes(key);
  if (state_->error || state_->frame.className.empty()) return std::nullopt;
  Ref value = state_->lookup(key);
  if (value == BinaryPlist::kNoRef || state_->plist.type(value) != Type::Data) return std::nullopt;
  auto bytes = state_->plist.data(value);
  return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

bool KeyedUnarchiver::decodeDataObjectForKey(std::string_view key,
                                             std::span<const uint8_t>& bytes) {
  if (direct_) return direct_->flatData(key, bytes);
  return state_->readPlainObject<Data>(
      key, Type::Data, bytes, [&](Ref plain) { return state_->plist.data(plain); },
      [](const Data& data) { return data.span(); });
}

bool KeyedUnarchiver::decodeStringObjectForKey(std::string_view key, std::string_view& text) {
  if (direct_) return direct_->flatString(key, text);
  return state_->readPlainObject<String>(
      key, Type::String, text, [&](Ref plain) { return state_->plist.string(plain); },
      [](const String& string) { return std::string_view(string.str()); });
}

ObjectPtr KeyedUnarchiver::decodeObjectForKey(std::string_view key) {
  if (direct_) {
    unsupported();
    return nullptr;
  }
  return state_->decodeKey(key, state_->frame.allowed);
}

ObjectPtr KeyedUnarchiver::decodeObjectOfClassForKey(const ClassInfo& cls, std::string_view key) {
  if (direct_) {
    unsupported();
    return nullptr;
  }
  State::Allowed allowed;
  allowed.single = &cls;
  return state_->decodeKey(key, allowed);
}

ObjectPtr KeyedUnarchiver::decodeObjectOfClassesForKey(const ClassSet& classes,
                                                       std::string_view key) {
  if (direct_) {
    unsupported();
    return nullptr;
  }
  State::Allowed allowed;
  allowed.set = &classes;
  return state_->decodeKey(key, allowed);
}

bool KeyedUnarchiver::arrayForKey(std::string_view key, ArrayOfUids& array) {
  if (direct_) return unsupported();
  array = ArrayOfUids{};
  if (state_->error || state_->frame.className.empty()) return false;
  Ref value = state_->lookup(key);
  if (value == BinaryPlist::kNoRef) return true;
  const BinaryPlist& plist = state_->plist;
  if (plist.type(value) != Type::Array) {
    state_->failWith([&] {
      return "value for key " + quoted(key) + " of " + std::string(state_->frame.className) +
             " is " + typeName(plist.type(value)) + ", not an array of UIDs";
    });
    return false;
  }
  array = ArrayOfUids{value, plist.count(value)};
  return true;
}

bool KeyedUnarchiver::decodeArrayElement(const ArrayOfUids& array, std::size_t index,
                                         std::string_view key, ObjectPtr& element) {
  const BinaryPlist& plist = state_->plist;
  Ref value = plist.element(array.value, index);
  if (plist.type(value) != Type::Uid) {
    state_->failWith([&] {
      return "element " + std::to_string(index) + " under key " + quoted(key) + " of " +
             std::string(state_->frame.className) + " is not a UID";
    });
    return false;
  }
  element = state_->decodeUid(plist.uid(value), state_->frame.allowed, key);
  return !state_->error;
}

std::optional<std::vector<ObjectPtr>> KeyedUnarchiver::decodeArrayOfObjectsForKey(
    std::string_view key) {
  if (direct_) {
    unsupported();
    return std::nullopt;
  }
  ArrayOfUids array;
  if (!arrayForKey(key, array)) return std::nullopt;
  std::vector<ObjectPtr> elements;
  elements.reserve(array.count);
  for (std::size_t i = 0; i < array.count; ++i) {
    if (!decodeArrayElement(array, i, key, elements.emplace_back())) return std::nullopt;
  }
  return elements;
}

bool KeyedUnarchiver::lengthOfArrayForKey(std::string_view key, std::size_t& length) {
  if (direct_) return unsupported();
  if (state_->error || state_->frame.className.empty()) return false;
  Ref value = state_->lookup(key);
  if (value == BinaryPlist::kNoRef) return false;
  if (state_->plist.type(value) != Type::Array) {
    state_->failWith([&] {
      return "value for key " + quoted(key) + " of " + std::string(state_->frame.className) +
             " is " + typeName(state_->plist.type(value)) + ", not an array";
    });
    return false;
  }
  length = state_->plist.count(value);
  return true;
}

ObjectPtr KeyedUnarchiver::decodeObjectOfClassesAtIndexForKey(const ClassSet& classes,
                                                              std::string_view key,
                                                              std::size_t index) {
  if (direct_) {
    unsupported();
    return nullptr;
  }
  State::Allowed allowed;
  allowed.set = &classes;
  return state_->decodeElement(key, index, allowed, nullptr);
}

ObjectPtr KeyedUnarchiver::decodeObjectAtIndexForKeyWith(const ClassSet& classes,
                                                         std::string_view key, std::size_t index,
                                                         const DecodeFunction& decode) {
  if (direct_) {
    unsupported();
    return nullptr;
  }
  State::Allowed allowed;
  allowed.set = &classes;
  return state_->decodeElement(key, index, allowed, &decode);
}

void KeyedUnarchiver::failWithError(std::string description) {
  if (direct_) return direct_->flatFail();
  state_->failWith([&] { return std::move(description) + state_->context(); });
}

bool KeyedUnarchiver::hasFailed() const {
  if (direct_) return direct_->flatFailed();
  return state_->error != nullptr;
}

ErrorPtr KeyedUnarchiver::error() const {
  if (direct_) return direct_->flatNeedsObjects(), nullptr;
  return state_->error;
}

}  // namespace qx
