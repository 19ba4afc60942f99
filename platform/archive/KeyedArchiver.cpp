#include "platform/archive/KeyedArchiver.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "platform/archive/BinaryPlist.h"
#include "platform/archive/KeyText.h"
#include "platform/archive/ScratchPool.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/String.h"

namespace qx {
namespace {

using Ref = BinaryPlist::Ref;

// Object identity -> UID. Open addressing on the object's address: archives
// hold a few hundred objects and a node-based map would cost more than the
// rest of the encoding. Slots carry the number of the archive that filled
// them, so emptying the table for the next archive touches none of them.
class IdentityTable {
 public:
  static constexpr uint32_t kAbsent = 0xffffffffU;

  uint32_t find(const Object* object) const {
    if (slots_.empty()) return kAbsent;
    for (std::size_t i = indexOf(object);; i = (i + 1) & mask()) {
      if (slots_[i].epoch != epoch_) return kAbsent;
      if (slots_[i].object == object) return slots_[i].uid;
    }
  }

  // Empties the table; false when it has grown too large to keep.
  bool clear() {
    if (count_ > 0 && ++epoch_ == 0) {
      std::fill(slots_.begin(), slots_.end(), Slot{});
      epoch_ = 1;
    }
    count_ = 0;
    return slots_.size() <= kKeepSlots;
  }

  void insert(const Object* object, uint32_t uid) {
    if ((count_ + 1) * 4 > slots_.size() * 3) grow();
    std::size_t i = indexOf(object);
    while (slots_[i].epoch == epoch_) i = (i + 1) & mask();
    slots_[i] = {object, uid, epoch_};
    ++count_;
  }

 private:
  struct Slot {
    const Object* object = nullptr;
    uint32_t uid = 0;
    uint32_t epoch = 0;  // 0: never filled
  };

  static constexpr std::size_t kKeepSlots = 1 << 16;

  std::size_t mask() const { return slots_.size() - 1; }
  std::size_t indexOf(const Object* object) const {
    auto bits = reinterpret_cast<uintptr_t>(object);
    return static_cast<std::size_t>((bits >> 4) * 0x9E3779B97F4A7C15ULL >> 20) & mask();
  }

  void grow() {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(old.empty() ? 512 : old.size() * 2, Slot{});
    count_ = 0;
    for (const Slot& slot : old) {
      if (slot.epoch == epoch_) insert(slot.object, slot.uid);
    }
  }

  std::vector<Slot> slots_;
  std::size_t count_ = 0;
  uint32_t epoch_ = 1;
};

}  // namespace

struct KeyedArchiver::State {
  BinaryPlist plist;
  // $objects: the plist value of each UID. A slot is reserved (kNoValue) when
  // an object is met and filled once its keys are written.
  std::vector<Ref> objects;
  // Every archived object stays alive until the archive is written, so that a
  // temporary made inside an encodeWithCoder cannot free its address for the
  // next temporary, which would then alias the first one's UID.
  std::vector<ObjectPtr> kept;
  IdentityTable uids;
  std::vector<std::pair<const ClassInfo*, uint32_t>> classUids;
  // Objects shared by content (encodeSharedObjectOfClass): identity -> class
  // and UID.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
  };
  std::unordered_map<std::string, std::pair<const ClassInfo*, uint32_t>, TextHash, std::equal_to<>>
      shared;
  // One plist UID value per UID number, made on first use.
  std::vector<Ref> uidValues;
  // Alternating key and value Refs of the objects being encoded, innermost
  // last; also holds array elements while an array is being built.
  std::vector<Ref> stack;
  Ref classKey = 0;
  // Recently used keys by the address of their text, checked by content: keys
  // are nearly always literals, so this spares hashing them on every call.
  struct KeyCacheEntry {
    KeyText text;
    Ref value = 0;
  };
  KeyCacheEntry keyCache[64];
  static constexpr std::size_t kKeyProbes = 4;
  // Classes met recently and their UIDs, by the class's address: the
  // records of a report alternate between three classes.
  struct RecentClass {
    const ClassInfo* cls = nullptr;
    uint32_t uid = 0;
  };
  RecentClass recentClasses[8];
  static std::size_t recentSlot(const ClassInfo& cls) {
    return (reinterpret_cast<uintptr_t>(&cls) * 0x9E3779B97F4A7C15ULL) >> 61;
  }
  // The last inline array of UIDs written under each key (by the key's Ref):
  // the records of an array of dictionaries nearly always hold the same keys,
  // and an array equal to the one before it is shared instead of written
  // again (a plist value may be named by any number of containers).
  std::vector<std::pair<Ref, Ref>> lastArrays;

  static constexpr Ref kNoValue = 0xffffffffU;
  // A state that held more than this is not kept for the next archive.
  static constexpr std::size_t kKeepBytes = 4 << 20;

  // Empties the state for the next archive of this thread (ScratchPool).
  bool recycle() {
    plist.clear();
    objects.clear();
    kept.clear();
    classUids.clear();
    shared.clear();
    uidValues.clear();
    stack.clear();
    classKey = 0;
    std::fill(std::begin(recentClasses), std::end(recentClasses), RecentClass{});
    lastArrays.clear();
    std::fill(std::begin(keyCache), std::end(keyCache), KeyCacheEntry{});
    bool small = uids.clear();
    return small && plist.memoryUse() + objects.capacity() * sizeof(Ref) * 3 +
                            kept.capacity() * sizeof(ObjectPtr) <=
                        kKeepBytes;
  }
};

namespace {

Ref uidValueOf(KeyedArchiver::State& state, uint32_t uid) {
  // One entry per UID: uidFor and classUid grow it with `objects`.
  Ref& value = state.uidValues[uid];
  if (value == KeyedArchiver::State::kNoValue) value = state.plist.addUid(uid);
  return value;
}

// A key that begins with '$' gets one more '$', so that it cannot collide with
// the archive's own keys ($class, ...).
//
// Keys are interned once per archive: each key text is looked up by content
// the first time and found by its address after that. Keys are nearly always
// literals, which lie a few bytes apart, so the address is mixed before it
// picks a slot, and a few slots from there are probed so that two keys of one
// record that meet in a slot do not push each other out on every record.
Ref keyValueOf(KeyedArchiver::State& state, std::string_view key) {
  if (key.starts_with('$')) return state.plist.addString("$" + std::string(key));
  auto bits = reinterpret_cast<uintptr_t>(key.data()) ^ key.size();
  std::size_t first = (bits * 0x9E3779B97F4A7C15ULL) >> 58;
  KeyedArchiver::State::KeyCacheEntry* free = nullptr;
  for (std::size_t probe = 0; probe < KeyedArchiver::State::kKeyProbes; ++probe) {
    auto& cached = state.keyCache[(first + probe) % std::size(state.keyCache)];
    if (cached.text.sameAddress(key)) {
      if (cached.text.sameDigest(key) &&
          (cached.text.complete() || state.plist.textEquals(cached.value, key))) {
        return cached.value;
      }
      free = &cached;
      break;
    }
    if (cached.text.empty()) {
      free = &cached;
      break;
    }
  }
  Ref value = state.plist.addString(key);
  if (!free) free = &state.keyCache[first];
  *free = {KeyText(key), value};
  return value;
}

Ref plainValue(BinaryPlist& plist, const Object& object, const ClassInfo& cls) {
  if (&cls == &String::classInfo())
    return plist.addString(static_cast<const String&>(object).str());
  if (&cls == &Data::classInfo()) return plist.addData(static_cast<const Data&>(object).span());
  const auto& number = static_cast<const Number&>(object);
  switch (number.kind()) {
    case Number::Kind::Bool:
      return plist.addBool(number.boolValue());
    case Number::Kind::Integer:
      return plist.addInteger(number.integerValue());
    case Number::Kind::Real:
      return plist.addReal(number.doubleValue());
  }
  return plist.addInteger(number.integerValue());
}

// Element by element: the arrays compared are a record's few references,
// fewer than a call of memcmp costs.
bool sameRefs(std::span<const Ref> a, std::span<const Ref> b) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

bool isPlainClass(const ClassInfo& cls) {
  return &cls == &String::classInfo() || &cls == &Number::classInfo() || &cls == &Data::classInfo();
}

}  // namespace

KeyedArchiver::~KeyedArchiver() = default;

uint32_t KeyedArchiver::classUid(const ClassInfo& cls) {
  State::RecentClass& recent = state_.recentClasses[State::recentSlot(cls)];
  if (recent.cls == &cls) return recent.uid;
  for (const auto& [known, uid] : state_.classUids) {
    if (known == &cls) {
      recent = {&cls, uid};
      return uid;
    }
  }
  BinaryPlist& plist = state_.plist;
  std::vector<Ref> names;
  for (std::string_view name : cls.chain()) names.push_back(plist.addString(name));
  Ref keys[] = {plist.addString("$classname"), plist.addString("$classes")};
  Ref values[] = {plist.addString(cls.name()), plist.addArray(names)};
  auto uid = static_cast<uint32_t>(state_.objects.size());
  state_.objects.push_back(plist.addDictionary(keys, values));
  state_.uidValues.push_back(State::kNoValue);
  state_.classUids.emplace_back(&cls, uid);
  recent = {&cls, uid};
  return uid;
}

uint32_t KeyedArchiver::uidFor(const ObjectPtr& object) {
  if (!object) return 0;
  uint32_t known = state_.uids.find(object.get());
  if (known != IdentityTable::kAbsent) return known;

  auto uid = static_cast<uint32_t>(state_.objects.size());
  state_.objects.push_back(State::kNoValue);
  state_.uidValues.push_back(State::kNoValue);
  state_.kept.push_back(object);
  state_.uids.insert(object.get(), uid);

  const ClassInfo& cls = object->objectClass();
  if (isPlainClass(cls)) {
    state_.objects[uid] = plainValue(state_.plist, *object, cls);
    return uid;
  }
  OpenObject open{uid, state_.stack.size()};
  object->encodeWithCoder(*this);
  closeObject(open, cls);
  return uid;
}

KeyedArchiver::OpenObject KeyedArchiver::openObject() {
  auto uid = static_cast<uint32_t>(state_.objects.size());
  state_.objects.push_back(State::kNoValue);
  state_.uidValues.push_back(State::kNoValue);
  return {uid, state_.stack.size()};
}

// The keys written since `open`, with $class, become the object's dictionary.
void KeyedArchiver::closeObject(const OpenObject& open, const ClassInfo& cls) {
  uint32_t classRef = classUid(cls);
  state_.stack.push_back(state_.classKey);
  state_.stack.push_back(uidValueOf(state_, classRef));
  std::span<const Ref> pairs(state_.stack.data() + open.start, state_.stack.size() - open.start);
  state_.objects[open.uid] = state_.plist.addDictionaryOfPairs(pairs);
  state_.stack.resize(open.start);
}

void KeyedArchiver::encodeUid(uint32_t uid, std::string_view key) {
  Ref k = keyValueOf(state_, key);
  state_.stack.push_back(k);
  state_.stack.push_back(uidValueOf(state_, uid));
}

uint32_t KeyedArchiver::sharedUid(const ClassInfo& cls, std::string_view identity) const {
  auto found = state_.shared.find(identity);
  if (found == state_.shared.end() || found->second.first != &cls) return 0;
  return found->second.second;
}

void KeyedArchiver::rememberShared(const ClassInfo& cls, std::string_view identity, uint32_t uid) {
  state_.shared.insert_or_assign(std::string(identity), std::make_pair(&cls, uid));
}

void KeyedArchiver::encodeObject(const ObjectPtr& object, std::string_view key) {
  encodeUid(uidFor(object), key);
}

void KeyedArchiver::encodeInt(int32_t value, std::string_view key) {
  encodeInteger(value, key);
}

void KeyedArchiver::encodeInteger(int64_t value, std::string_view key) {
  Ref k = keyValueOf(state_, key);
  state_.stack.push_back(k);
  state_.stack.push_back(state_.plist.addInteger(value));
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) {
  Ref k = keyValueOf(state_, key);
  state_.stack.push_back(k);
  state_.stack.push_back(state_.plist.addBool(value));
}

void KeyedArchiver::encodeDouble(double value, std::string_view key) {
  Ref k = keyValueOf(state_, key);
  state_.stack.push_back(k);
  state_.stack.push_back(state_.plist.addReal(value));
}

void KeyedArchiver::encodeBytes(std::span<const uint8_t> bytes, std::string_view key) {
  Ref k = keyValueOf(state_, key);
  state_.stack.push_back(k);
  state_.stack.push_back(state_.plist.addData(bytes));
}

void KeyedArchiver::encodeDataObject(std::span<const uint8_t> bytes, std::string_view key) {
  encodeNewObject(state_.plist.addData(bytes), key);
}

void KeyedArchiver::encodeStringObject(std::string_view text, std::string_view key) {
  encodeNewObject(state_.plist.addUnsharedString(text), key);
}

// A new UID every time: an object made for the call would be a new object,
// never one archived before.
void KeyedArchiver::encodeNewObject(uint32_t value, std::string_view key) {
  encodeUid(newObject(value), key);
}

uint32_t KeyedArchiver::newObject(uint32_t value) {
  auto uid = static_cast<uint32_t>(state_.objects.size());
  state_.objects.push_back(value);
  state_.uidValues.push_back(State::kNoValue);
  return uid;
}

// Array elements go on the stack above the current object's pairs; encoding
// an element pushes and pops its own pairs above them.
std::size_t KeyedArchiver::beginArray() {
  return state_.stack.size();
}

void KeyedArchiver::addArrayElement(const ObjectPtr& object) {
  addArrayUid(uidFor(object));
}

void KeyedArchiver::addArrayUid(uint32_t uid) {
  state_.stack.push_back(uidValueOf(state_, uid));
}

void KeyedArchiver::endArray(std::size_t start, std::string_view key) {
  std::span<const Ref> elements(state_.stack.data() + start, state_.stack.size() - start);
  Ref k = keyValueOf(state_, key);
  Ref array = sharedArray(k, elements);
  state_.stack.resize(start);
  state_.stack.push_back(k);
  state_.stack.push_back(array);
}

// The array of `elements` for key `k`: the last one written under that key
// when it holds the same elements, else a new one. (A shortcut a hand-written
// writer can take, and one reason it is hand-written: a report's records each
// name the same two keys, and sharing their key array spares a tenth of the
// values that the writer, the reader and the wire carry.)
BinaryPlist::Ref KeyedArchiver::sharedArray(Ref k, std::span<const Ref> elements) {
  BinaryPlist& plist = state_.plist;
  for (auto& [key, last] : state_.lastArrays) {
    if (key != k) continue;
    if (plist.count(last) == elements.size() && sameRefs(elements, plist.elements(last))) {
      return last;
    }
    last = plist.addArray(elements);
    return last;
  }
  Ref array = plist.addArray(elements);
  if (state_.lastArrays.size() < kSharedArrayKeys) state_.lastArrays.emplace_back(k, array);
  return array;
}

void KeyedArchiver::encodeArrayOfObjects(const std::vector<ObjectPtr>& objects,
                                         std::string_view key) {
  std::size_t start = beginArray();
  for (const ObjectPtr& object : objects) addArrayElement(object);
  endArray(start, key);
}

DataPtr KeyedArchiver::archivedDataWithRootObject(const ObjectPtr& root) {
  std::vector<uint8_t> bytes =
      archiveOfRoot([&](KeyedArchiver& coder) { return coder.uidFor(root); });
  if (bytes.empty()) return nullptr;
  try {
    return Data::make(std::move(bytes));
  } catch (...) {
    return nullptr;
  }
}

std::vector<uint8_t> KeyedArchiver::archiveOfRoot(
    const std::function<uint32_t(KeyedArchiver&)>& writeRoot) {
  try {
    ScratchPool<State>::Lease lease;
    State& state = *lease;
    KeyedArchiver coder(state);
    state.objects.push_back(state.plist.addString("$null"));
    state.uidValues.push_back(State::kNoValue);
    state.classKey = state.plist.addString("$class");
    return coder.finish(writeRoot(coder));
  } catch (...) {
    // Out of memory, or an encodeWithCoder that threw: no archive.
    return {};
  }
}

std::vector<uint8_t> KeyedArchiver::finish(uint32_t rootUid) {
  BinaryPlist& plist = state_.plist;
  Ref rootKey = plist.addString("root");
  Ref rootValue = uidValueOf(state_, rootUid);
  Ref keys[] = {plist.addString("$archiver"), plist.addString("$objects"), plist.addString("$top"),
                plist.addString("$version")};
  Ref values[] = {plist.addString("NSKeyedArchiver"), plist.addArray(state_.objects),
                  plist.addDictionary({&rootKey, 1}, {&rootValue, 1}), plist.addInteger(100000)};
  Ref top = plist.addDictionary(keys, values);
  return plist.write(top);
}

}  // namespace qx
