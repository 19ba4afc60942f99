#include "platform/archive/DirectArchiveReader.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <limits>

#include "platform/archive/KeyedUnarchiver.h"
#include "platform/archive/PlistBytes.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/MutableDictionary.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/ObjectArena.h"
#include "platform/foundation/String.h"

namespace qx {
namespace {

using namespace plistbytes;

// Containers nest at most this deep in the archives taken (an archive needs
// four: the top dictionary, $objects, an object's dictionary, an inline
// array).
constexpr uint8_t kMostLevels = 16;
constexpr uint32_t kUnpacked = 0xffffffff;
// Distinct key texts of one archive; a key id is a bit of a 64-bit mask.
constexpr std::size_t kMostKeys = 64;
// Objects nested in each other, well below KeyedUnarchiver's limit.
constexpr int kMostDepth = 128;

enum Kind : uint8_t { kBool, kInteger, kReal, kData, kString, kUid, kArray, kDictionary };

enum Status : uint8_t { kNew, kDecoding, kDone };

// "$classname" is key id 0 of every archive.
constexpr int kClassNameKey = 0;

// Classes whose initWithCoder asked for objects, which flat mode never
// answers, learned on this thread: an archive that describes one of them goes the general way as
// soon as its class dictionary is checked, without checking the rest first.
struct GeneralClasses {
  static constexpr std::size_t kMost = 16;
  std::string_view names[kMost];
  std::size_t count = 0;

  bool contains(std::string_view name) const {
    for (std::size_t i = 0; i < count; ++i) {
      if (names[i] == name) return true;
    }
    return false;
  }
  void add(std::string_view name) {
    if (count < kMost && !contains(name)) names[count++] = name;
  }
};
constinit thread_local GeneralClasses tGeneralClasses;

// Equality of two texts, without a library call for the short keys that
// archives are made of.
bool sameText(std::string_view a, std::string_view b) {
  std::size_t n = a.size();
  if (n != b.size()) return false;
  const char* x = a.data();
  const char* y = b.data();
  if (n >= 8) {
    if (n > 32) return std::memcmp(x, y, n) == 0;
    if (n > 16) {
      return load64(x) == load64(y) && load64(x + 8) == load64(y + 8) &&
             load64(x + n - 16) == load64(y + n - 16) && load64(x + n - 8) == load64(y + n - 8);
    }
    return load64(x) == load64(y) && load64(x + n - 8) == load64(y + n - 8);
  }
  if (n >= 4) return load32(x) == load32(y) && load32(x + n - 4) == load32(y + n - 4);
  for (std::size_t i = 0; i < n; ++i) {
    if (x[i] != y[i]) return false;
  }
  return true;
}

bool isCollectionFactory(DecodeFactory factory) {
  return factory == &Array::initWithCoder || factory == &MutableArray::initWithCoder ||
         factory == &Dictionary::initWithCoder || factory == &MutableDictionary::initWithCoder;
}

}  // namespace

struct DirectArchiveReader::Value {
  uint8_t type = 0;
  uint8_t level = 0;    // containers nested inside
  int16_t keyId = -1;   // of a string used as a dictionary key
  uint32_t length = 0;  // bytes of a string or data, elements, pairs
  uint32_t slot = 0;    // 1 + index in slots_
  uint32_t keys = 0;    // a dictionary's key ids, a byte each, for up to 4 pairs
  union {
    int64_t integer = 0;  // integers, booleans, UIDs
    double real;
    const uint8_t* bytes;  // strings and data; a container's references
  };

  std::string_view text() const { return {reinterpret_cast<const char*>(bytes), length}; }
};

struct DirectArchiveReader::Slot {
  ObjectPtr object;
  Value* value = nullptr;  // whose slot this is
  Status status = kNew;
};

DirectArchiveReader::DirectArchiveReader() = default;

DirectArchiveReader::~DirectArchiveReader() = default;

template <unsigned Width>
inline DirectArchiveReader::Ref DirectArchiveReader::readRef(const uint8_t* refs,
                                                             std::size_t index) {
  if constexpr (Width == 1) {
    return refs[index];
  } else if constexpr (std::endian::native == std::endian::little) {
    uint16_t big;
    std::memcpy(&big, refs + 2 * index, 2);
    return __builtin_bswap16(big);
  } else {
    return Ref(refs[2 * index]) << 8 | refs[2 * index + 1];
  }
}

inline DirectArchiveReader::Ref DirectArchiveReader::refAt(const uint8_t* refs,
                                                           std::size_t index) const {
  return refSize_ == 1 ? readRef<1>(refs, index) : readRef<2>(refs, index);
}

bool DirectArchiveReader::open(std::span<const uint8_t> bytes) {
  close();
  bytes_ = bytes.data();
  size_ = bytes.size();
  // The trailer, checked as BinaryPlist checks it.
  if (size_ < kHeaderSize + 1 + 1 + kTrailerSize) return false;
  if (std::memcmp(bytes_, "bplist00", 8) != 0) return false;
  const uint8_t* trailer = bytes_ + size_ - kTrailerSize;
  offsetSize_ = trailer[6];
  refSize_ = trailer[7];
  count_ = readBigEndian(trailer + 8, 8);
  uint64_t top = readBigEndian(trailer + 16, 8);
  tableOffset_ = readBigEndian(trailer + 24, 8);
  if (offsetSize_ < 1 || offsetSize_ > 4 || refSize_ < 1 || refSize_ > 4) return false;
  uint64_t tableEnd = size_ - kTrailerSize;
  if (tableOffset_ < kHeaderSize + 1 || tableOffset_ > tableEnd) return false;
  if (count_ == 0 || count_ > (tableEnd - tableOffset_) / offsetSize_) return false;
  if (count_ > tableOffset_ - kHeaderSize || top >= count_) return false;
  if (values_.size() < count_) values_.resize(count_);
  keys_.clear();
  keys_.push_back("$classname");  // kClassNameKey
  checkClasses_ = tGeneralClasses.count != 0;
  std::fill(std::begin(keyHints_), std::end(keyHints_), KeyHint{});
  bool scanned = false;
  switch (offsetSize_ * 4 + refSize_) {
    case 1 * 4 + 1:
      scanned = scan<1, 1>();
      break;
    case 2 * 4 + 1:
      scanned = scan<2, 1>();
      break;
    case 1 * 4 + 2:
      scanned = scan<1, 2>();
      break;
    case 2 * 4 + 2:
      scanned = scan<2, 2>();
      break;
    default:
      return false;
  }
  if (!scanned) return false;
  const Value* topValue = &values_[top];
  if (topValue->type != kDictionary) return false;
  nsKeys_ = keyIdOf("NS.keys");
  nsObjects_ = keyIdOf("NS.objects");
  classKey_ = keyIdOf("$class");
  const Value* archiver = valueForKey(*topValue, keyIdOf("$archiver"));
  const Value* version = valueForKey(*topValue, keyIdOf("$version"));
  const Value* objects = valueForKey(*topValue, keyIdOf("$objects"));
  const Value* tops = valueForKey(*topValue, keyIdOf("$top"));
  if (!archiver || archiver->type != kString || archiver->text() != "NSKeyedArchiver") return false;
  if (!version || version->type != kInteger || version->integer != 100000) return false;
  if (!objects || objects->type != kArray || objects->length == 0) return false;
  if (!tops || tops->type != kDictionary) return false;
  const Value* root = valueForKey(*tops, keyIdOf("root"));
  if (!root || root->type != kUid) return false;
  objects_ = objects;
  objectCount_ = objects->length;
  // A slot for each object at most.
  slots_.reserve(objectCount_);
  root_ = static_cast<uint32_t>(root->integer);
  return true;
}

void DirectArchiveReader::close() {
  for (Slot& slot : slots_) slot.value->slot = 0;
  slots_.clear();
  objects_ = nullptr;
  objectCount_ = 0;
  depth_ = 0;
  // Sets live only as long as their message: an address may name another set
  // next time.
  std::fill(std::begin(plainAllowances_), std::end(plainAllowances_), Allowance{});
  std::fill(std::begin(classHints_), std::end(classHints_), 0);
  classes_.clear();
  sharedKeys_ = SharedKeys{};
  flat_ = Flat{};
}

bool DirectArchiveReader::recycle() {
  close();
  return values_.capacity() * sizeof(Value) <= (4u << 20);
}

// Checks every value once, in table order, as BinaryPlist reads them. Only
// plists whose containers name values before them are taken (as this
// project's writer lays them out): nothing can then contain itself, and each
// container's keys and nesting are checked from values already read.
// `OffsetWidth` and `RefWidth` are the widths of the offset table's entries
// and of object references, 1 or 2 bytes.
template <unsigned OffsetWidth, unsigned RefWidth>
bool DirectArchiveReader::scan() {
  const uint8_t* const end = bytes_ + tableOffset_;
  const uint8_t* const table = end;
  const uint64_t area = tableOffset_ - kHeaderSize;
  uint64_t consumed = 0;
  Value* const values = values_.data();
  const auto count = static_cast<Ref>(count_);
  for (Ref ref = 0; ref < count; ++ref) {
    Value& value = values[ref];
    const uint64_t offset = readRef<OffsetWidth>(table, ref);
    // (An offset below the header wraps around and fails the same test.)
    if (offset - kHeaderSize >= area) return false;
    const uint8_t* const start = bytes_ + offset;
    const uint8_t marker = *start;
    const auto left = static_cast<uint64_t>(end - start - 1);
    value.level = 0;
    value.keyId = -1;
    switch (marker >> 4) {
      case 0x8: {
        unsigned width = (marker & 0x0F) + 1;
        if (left < width) return false;
        if (width == 1) {
          value.integer = start[1];
        } else if (width == 2) {
          value.integer = int64_t(start[1]) << 8 | start[2];
        } else {
          if (width > 8) return false;
          uint64_t uid = readBigEndian(start + 1, width);
          if (uid > 0xffffffffULL) return false;
          value.integer = static_cast<int64_t>(uid);
        }
        value.type = kUid;
        consumed += 1 + width;
        break;
      }
      case 0x0:
        if (marker != 0x08 && marker != 0x09) return false;
        value.type = kBool;
        value.integer = marker & 1;
        consumed += 1;
        break;
      case 0x1: {
        unsigned exponent = marker & 0x0F;
        if (exponent > 3) return false;
        unsigned width = 1u << exponent;
        if (left < width) return false;
        value.type = kInteger;
        // 1, 2 and 4 bytes are unsigned, 8 bytes are two's complement.
        value.integer =
            width == 1 ? start[1] : static_cast<int64_t>(readBigEndian(start + 1, width));
        consumed += 1 + width;
        break;
      }
      case 0x2: {
        if (marker != 0x22 && marker != 0x23) return false;
        unsigned width = marker == 0x22 ? 4 : 8;
        if (left < width) return false;
        uint64_t bits = readBigEndian(start + 1, width);
        if (width == 4) {
          uint32_t narrow = static_cast<uint32_t>(bits);
          float real;
          std::memcpy(&real, &narrow, 4);
          value.real = real;
        } else {
          std::memcpy(&value.real, &bits, 8);
        }
        value.type = kReal;
        consumed += 1 + width;
        break;
      }
      case 0x4:
      case 0x5:
      case 0xA:
      case 0xD: {
        const uint8_t* p = start + 1;
        uint64_t length = marker & 0x0F;
        if (length == 0x0F) {
          if (p >= end || (*p & 0xF0) != 0x10 || (*p & 0x0F) > 3) return false;
          unsigned width = 1u << (*p & 0x0F);
          if (static_cast<std::size_t>(end - p - 1) < width) return false;
          length = readBigEndian(p + 1, width);
          p += 1 + width;
        }
        const auto room = static_cast<uint64_t>(end - p);
        const unsigned kind = marker >> 4;
        uint64_t body = length;
        if (kind >= 0xA) {
          if (length > room) return false;
          body = length * (kind == 0xD ? 2 : 1) * RefWidth;
        }
        if (body > room || length > std::numeric_limits<uint32_t>::max()) return false;
        consumed += static_cast<uint64_t>(p - start) + body;
        value.length = static_cast<uint32_t>(length);
        value.bytes = p;
        if (kind == 0xD) {
          if (!scanDictionary<RefWidth>(ref, value)) return false;
        } else if (kind == 0xA) {
          if (!scanArray<RefWidth>(ref, value)) return false;
        } else if (kind == 0x4) {
          value.type = kData;
        } else {
          if (!isAscii(p, length)) return false;
          value.type = kString;
        }
        break;
      }
      default:
        return false;
    }
  }
  return consumed <= area;
}

// False for a class dictionary naming a class learned to need the general
// path.
inline bool DirectArchiveReader::namesUsableClass(const Value& dictionary) const {
  const Value* name = valueForKey(dictionary, kClassNameKey);
  return !name || name->type != kString || !tGeneralClasses.contains(name->text());
}

// The key id of key `index` of a dictionary being checked, or -1 when the
// key is not a string named before the dictionary (`ref`).
template <unsigned RefWidth>
[[gnu::always_inline]] inline int DirectArchiveReader::keyIdAt(const uint8_t* refs,
                                                               std::size_t index, Ref ref) {
  Ref key = readRef<RefWidth>(refs, index);
  if (key >= ref) return -1;
  Value& text = values_[key];
  if (text.keyId >= 0) return text.keyId;  // set only on strings
  if (text.type != kString || !internKey(text)) return -1;
  return text.keyId;
}

template <unsigned RefWidth>
[[gnu::always_inline]] inline bool DirectArchiveReader::scanDictionary(Ref ref, Value& value) {
  Value* const values = values_.data();
  const uint8_t* const refs = value.bytes;
  const std::size_t count = value.length;
  value.type = kDictionary;
  // Key ids, a byte each (0xff where there is none); two equal keys are refused.
  uint32_t packed = kUnpacked;
  if (count <= 4) {
    for (std::size_t i = 0; i < count; ++i) {
      int id = keyIdAt<RefWidth>(refs, i, ref);
      if (id < 0) return false;
      uint32_t x = packed ^ (uint32_t(id) * 0x01010101u);
      if ((x - 0x01010101u) & ~x & 0x80808080u) return false;
      packed ^= (uint32_t(id) ^ 0xffu) << (8 * i);
    }
  } else {
    uint64_t seen = 0;
    for (std::size_t i = 0; i < count; ++i) {
      int id = keyIdAt<RefWidth>(refs, i, ref);
      if (id < 0) return false;
      uint64_t bit = uint64_t(1) << id;
      if (seen & bit) return false;
      seen |= bit;
    }
  }
  value.keys = packed;
  uint8_t highest = 0;
  for (std::size_t i = count; i < 2 * count; ++i) {
    Ref element = readRef<RefWidth>(refs, i);
    if (element >= ref) return false;
    uint8_t level = values[element].level;
    highest = level > highest ? level : highest;
  }
  // (Once its values are known to come before it.)
  if (checkClasses_ && count <= 4 && !namesUsableClass(value)) return false;
  if (highest >= kMostLevels) return false;
  value.level = static_cast<uint8_t>(highest + 1);
  return true;
}

template <unsigned RefWidth>
[[gnu::always_inline]] inline bool DirectArchiveReader::scanArray(Ref ref, Value& value) {
  const Value* const values = values_.data();
  const uint8_t* const refs = value.bytes;
  const std::size_t count = value.length;
  value.type = kArray;
  uint8_t highest = 0;
  for (std::size_t i = 0; i < count; ++i) {
    Ref element = readRef<RefWidth>(refs, i);
    if (element >= ref) return false;
    uint8_t level = values[element].level;
    highest = level > highest ? level : highest;
  }
  if (highest >= kMostLevels) return false;
  value.level = static_cast<uint8_t>(highest + 1);
  return true;
}

inline int DirectArchiveReader::keyIdOf(std::string_view text) const {
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    if (keys_[i] == text) return static_cast<int>(i);
  }
  return -1;
}

bool DirectArchiveReader::internKey(Value& key) {
  int id = keyIdOf(key.text());
  if (id < 0) {
    if (keys_.size() >= kMostKeys) return false;
    id = static_cast<int>(keys_.size());
    keys_.push_back(key.text());
  }
  key.keyId = static_cast<int16_t>(id);
  return true;
}

inline const DirectArchiveReader::Value* DirectArchiveReader::valueForKey(const Value& dictionary,
                                                                          int keyId) const {
  if (keyId < 0) return nullptr;
  if (dictionary.keys != kUnpacked) {
    // The byte equal to keyId, if any (unused bytes hold 0xff).
    uint32_t x = dictionary.keys ^ (uint32_t(keyId) * 0x01010101u);
    uint32_t zero = (x - 0x01010101u) & ~x & 0x80808080u;
    if (zero == 0) return nullptr;
    std::size_t i = static_cast<std::size_t>(__builtin_ctz(zero)) / 8;
    return &values_[refAt(dictionary.bytes, dictionary.length + i)];
  }
  for (std::size_t i = 0; i < dictionary.length; ++i) {
    if (values_[refAt(dictionary.bytes, i)].keyId == keyId) {
      return &values_[refAt(dictionary.bytes, dictionary.length + i)];
    }
  }
  return nullptr;
}

inline const DirectArchiveReader::Value* DirectArchiveReader::objectValue(uint32_t uid) const {
  return &values_[refAt(objects_->bytes, uid)];
}

inline std::size_t DirectArchiveReader::count(const Value* array) {
  return array ? array->length : 0;
}

inline std::size_t DirectArchiveReader::slotOf(const Value& value) {
  auto& entry = const_cast<Value&>(value);
  if (entry.slot == 0) {
    slots_.emplace_back();
    slots_.back().value = &entry;
    entry.slot = static_cast<uint32_t>(slots_.size());
  }
  return entry.slot - 1;
}

// The class of an object dictionary, resolved once per class UID.
[[gnu::always_inline]] inline DirectArchiveReader::KnownClass* DirectArchiveReader::classOf(
    const Value& object) {
  const Value* classUid = valueForKey(object, classKey_);
  if (!classUid || classUid->type != kUid || classUid->integer >= objectCount_) return nullptr;
  const auto uid = static_cast<uint32_t>(classUid->integer);
  uint32_t& hint = classHints_[uid % std::size(classHints_)];
  if (hint != 0 && classes_[hint - 1].uid == uid) return &classes_[hint - 1];
  for (std::size_t i = 0; i < classes_.size(); ++i) {
    if (classes_[i].uid == uid) {
      hint = static_cast<uint32_t>(i + 1);
      return &classes_[i];
    }
  }
  const Value& description = *objectValue(uid);
  if (description.type != kDictionary) return nullptr;
  const Value* name = valueForKey(description, kClassNameKey);
  if (!name || name->type != kString) return nullptr;
  const ClassRegistry::Entry* entry = ClassRegistry::lookup(name->text());
  if (!entry) return nullptr;
  classes_.push_back({uid, entry, {}});
  hint = static_cast<uint32_t>(classes_.size());
  return &classes_.back();
}

inline bool DirectArchiveReader::allowed(const ClassSet* classes, const ClassInfo& cls,
                                         Allowance& last) {
  if (!classes) return true;
  if (last.classes != classes || last.cls != &cls) last = {classes, &cls, classes->allows(cls)};
  return last.allowed;
}

bool DirectArchiveReader::decode(uint32_t uid, const ClassSet* classes, ObjectPtr& object) {
  object = nullptr;
  return decodeValue(uid, classes, object);
}

bool DirectArchiveReader::decodeValue(uint32_t uid, const ClassSet* classes, ObjectPtr& object) {
  if (uid == 0) return true;
  if (uid >= objectCount_) return false;
  const Value& value = *objectValue(uid);
  const ClassInfo* cls = nullptr;
  switch (value.type) {
    case kString:
      if (value.length == 5 && sameText(value.text(), "$null")) return true;
      cls = &String::classInfo();
      break;
    case kBool:
    case kInteger:
    case kReal:
      cls = &Number::classInfo();
      break;
    case kData:
      cls = &Data::classInfo();
      break;
    case kDictionary:
      return decodeInstance(value, classes, object);
    default:
      return false;
  }
  if (!allowed(classes, *cls, plainAllowances_[value.type])) return false;
  Slot& slot = slots_[slotOf(value)];
  if (!slot.object) {
    switch (value.type) {
      case kString:
        slot.object = String::make(std::string(value.text()));
        break;
      case kData:
        slot.object = Data::make(std::vector<uint8_t>(value.bytes, value.bytes + value.length));
        break;
      case kBool:
        slot.object = Number::numberWithBool(value.integer != 0);
        break;
      case kInteger:
        slot.object = Number::numberWithInteger(value.integer);
        break;
      default:
        slot.object = Number::numberWithDouble(value.real);
        break;
    }
  }
  object = slot.object;
  return true;
}

bool DirectArchiveReader::decodeInstance(const Value& object, const ClassSet* classes,
                                         ObjectPtr& result) {
  KnownClass* known = classOf(object);
  if (!known || !allowed(classes, *known->entry->cls, known->allowance)) return false;
  const ClassRegistry::Entry* entry = known->entry;
  // (slots_ never grows past its reserve: the references stay.)
  Slot& slot = slots_[slotOf(object)];
  const DecodeFactory factory = entry->factory;
  if (slot.status == kDone) {
    // A collection handed out again would need its contents checked against
    // this set: left to the general path.
    if (isCollectionFactory(factory)) return false;
    result = slot.object;
    return true;
  }
  if (slot.status == kDecoding || depth_ >= kMostDepth) return false;
  slot.status = kDecoding;
  ++depth_;
  bool done = false;
  if (factory == &Array::initWithCoder || factory == &MutableArray::initWithCoder) {
    std::vector<ObjectPtr> elements;
    done = decodeElements(object, nsObjects_, classes, elements);
    if (done) {
      result = factory == &Array::initWithCoder
                   ? Array::make(std::move(elements))
                   : ObjectArena::make<MutableArray>(std::move(elements));
    }
  } else if (factory == &Dictionary::initWithCoder ||
             factory == &MutableDictionary::initWithCoder) {
    const Value* keys = nullptr;
    const Value* values = nullptr;
    done = elementsFor(object, nsKeys_, keys) && elementsFor(object, nsObjects_, values) &&
           count(keys) == count(values);
    if (done) {
      std::shared_ptr<Dictionary> dictionary = factory == &Dictionary::initWithCoder
                                                   ? Dictionary::make()
                                                   : ObjectArena::make<MutableDictionary>();
      // Filled in place: the dictionary is new and not yet handed out.
      auto& entries = const_cast<DictionaryEntries&>(dictionary->entries());
      entries = DictionaryEntries(count(keys));
      done = decodeKeys(keys, classes, entries);
      for (std::size_t i = 0; done && i < entries.size(); ++i) {
        done = decodeElement(*values, i, classes, entries[i].second);
      }
      result = std::move(dictionary);
    }
  } else {
    flat_ = Flat{&object, false, false, false};
    KeyedUnarchiver coder(*this);
    result = factory(coder);
    done = result && !flat_.failed && !flat_.unsupported;
    if (flat_.needsObjects) tGeneralClasses.add(entry->cls->name());
    flat_ = Flat{};
  }
  --depth_;
  if (!done) return false;
  slot.object = result;
  slot.status = kDone;
  return true;
}

inline bool DirectArchiveReader::elementsFor(const Value& object, int keyId,
                                             const Value*& array) const {
  array = valueForKey(object, keyId);
  return !array || array->type == kArray;  // an absent key counts as empty
}

inline bool DirectArchiveReader::decodeElement(const Value& array, std::size_t index,
                                               const ClassSet* classes, ObjectPtr& out) {
  const Value& element = values_[refAt(array.bytes, index)];
  return element.type == kUid && decodeValue(static_cast<uint32_t>(element.integer), classes, out);
}

// The keys of a dictionary. The records of an archive share one array of
// keys, whose plain values decode alike under one class set: they are
// decoded once.
bool DirectArchiveReader::decodeKeys(const Value* keys, const ClassSet* classes,
                                     DictionaryEntries& entries) {
  if (!keys) return true;
  SharedKeys& shared = sharedKeys_;
  if (keys == shared.array && classes == shared.classes) {
    for (std::size_t i = 0; i < entries.size(); ++i) entries[i].first = shared.objects[i];
    return true;
  }
  bool plain = entries.size() <= std::size(shared.objects);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!decodeElement(*keys, i, classes, entries[i].first)) return false;
    // (An element that decodeElement took is a UID of $objects.)
    const Value& element = values_[refAt(keys->bytes, i)];
    plain = plain && objectValue(static_cast<uint32_t>(element.integer))->type != kDictionary;
  }
  if (plain) {
    shared.array = keys;
    shared.classes = classes;
    for (std::size_t i = 0; i < entries.size(); ++i) shared.objects[i] = entries[i].first;
  }
  return true;
}

bool DirectArchiveReader::decodeElements(const Value& object, int keyId, const ClassSet* classes,
                                         std::vector<ObjectPtr>& out) {
  const Value* array = nullptr;
  if (!elementsFor(object, keyId, array)) return false;
  out.resize(count(array));
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (!decodeElement(*array, i, classes, out[i])) return false;
  }
  return true;
}

bool DirectArchiveReader::beginObject(uint32_t uid, const ClassRegistry::Entry*& entry) {
  if (uid == 0 || uid >= objectCount_) return false;
  const Value& object = *objectValue(uid);
  KnownClass* known = object.type == kDictionary ? classOf(object) : nullptr;
  if (!known) return false;
  entry = known->entry;
  std::size_t slot = slotOf(object);
  if (slots_[slot].status != kNew) return false;
  slots_[slot].status = kDecoding;
  ++depth_;
  return true;
}

bool DirectArchiveReader::uidsForKey(uint32_t uid, std::string_view key,
                                     std::vector<uint32_t>& uids) {
  if (uid == 0 || uid >= objectCount_) return false;
  const Value* array = valueForKey(*objectValue(uid), keyIdOf(key));
  if (!array || array->type != kArray) return false;
  uids.resize(array->length);
  for (std::size_t i = 0; i < array->length; ++i) {
    const Value& element = values_[refAt(array->bytes, i)];
    if (element.type != kUid) return false;
    uids[i] = static_cast<uint32_t>(element.integer);
  }
  return true;
}

bool DirectArchiveReader::plainString(uint32_t uid, std::string_view& text) {
  if (uid == 0 || uid >= objectCount_) return false;
  const Value& value = *objectValue(uid);
  if (value.type != kString || value.text() == "$null") return false;
  text = value.text();
  return true;
}

bool DirectArchiveReader::plainInteger(uint32_t uid, int64_t& integer) {
  if (uid == 0 || uid >= objectCount_) return false;
  const Value& value = *objectValue(uid);
  if (value.type != kInteger) return false;
  integer = value.integer;
  return true;
}

// KeyedUnarchiver's flat mode: the keys of flat_.object, read as the general
// path reads them. What it does not answer marks the decode unsupported.

inline const DirectArchiveReader::Value* DirectArchiveReader::flatValue(std::string_view key) {
  return valueForKey(*flat_.object, hintedKeyId(key));
}

// Keys are nearly always literals: the id of a key is remembered by the
// address of its text, and confirmed by its text. An escaped key (never
// remembered) marks the decode unsupported.
inline int DirectArchiveReader::hintedKeyId(std::string_view key) {
  auto bits = reinterpret_cast<uintptr_t>(key.data()) ^ key.size();
  KeyHint& hint = keyHints_[(bits * 0x9E3779B97F4A7C15ULL) >> 58];
  if (hint.text == key.data() && hint.id >= 0 && sameText(keys_[hint.id], key)) return hint.id;
  return missedKeyId(key, hint);
}

// Out of the way of the reads whose key is remembered.
[[gnu::noinline]] int DirectArchiveReader::missedKeyId(std::string_view key, KeyHint& hint) {
  if (!key.empty() && key.front() == '$') {
    flat_.unsupported = true;
    return -1;
  }
  int id = keyIdOf(key);
  if (id >= 0) hint = {key.data(), id};
  return id;
}

bool DirectArchiveReader::flatPlain(std::string_view key, uint8_t type, const Value*& found) {
  found = nullptr;
  if (flat_.failed || flat_.unsupported) return false;
  const Value* value = flatValue(key);
  if (!value) return false;  // absent: no object, and no failure
  if (value->type != kUid || value->integer == 0 || value->integer >= objectCount_) {
    flat_.unsupported = true;
    return false;
  }
  const Value* object = objectValue(static_cast<uint32_t>(value->integer));
  if (object->type != type || (type == kString && object->text() == "$null")) {
    flat_.unsupported = true;
    return false;
  }
  found = object;
  return true;
}

bool DirectArchiveReader::flatFailed() const {
  return flat_.failed || flat_.unsupported;
}

void DirectArchiveReader::flatFail() {
  flat_.failed = true;
}

void DirectArchiveReader::flatUnsupported() {
  flat_.unsupported = true;
}

void DirectArchiveReader::flatNeedsObjects() {
  flat_.unsupported = true;
  flat_.needsObjects = true;
}

bool DirectArchiveReader::flatContains(std::string_view key) {
  return flatValue(key) != nullptr;
}

int64_t DirectArchiveReader::flatInteger(std::string_view key) {
  if (flat_.failed || flat_.unsupported) return 0;
  const Value* value = flatValue(key);
  if (!value) return 0;
  if (value->type != kInteger) {
    flat_.failed = true;
    return 0;
  }
  return value->integer;
}

bool DirectArchiveReader::flatBool(std::string_view key) {
  if (flat_.failed || flat_.unsupported) return false;
  const Value* value = flatValue(key);
  if (!value) return false;
  if (value->type != kBool) {
    flat_.failed = true;
    return false;
  }
  return value->integer != 0;
}

double DirectArchiveReader::flatDouble(std::string_view key) {
  if (flatFailed()) return 0;
  const Value* value = flatValue(key);
  if (!value) return 0;
  if (value->type == kReal) return value->real;
  if (value->type == kInteger) return static_cast<double>(value->integer);
  flat_.failed = true;
  return 0;
}

std::optional<std::vector<uint8_t>> DirectArchiveReader::flatBytes(std::string_view key) {
  if (flatFailed()) return std::nullopt;
  const Value* value = flatValue(key);
  if (!value || value->type != kData) return std::nullopt;
  return std::vector<uint8_t>(value->bytes, value->bytes + value->length);
}

bool DirectArchiveReader::flatData(std::string_view key, std::span<const uint8_t>& bytes) {
  const Value* object = nullptr;
  if (!flatPlain(key, kData, object)) return false;
  bytes = {object->bytes, object->length};
  return true;
}

bool DirectArchiveReader::flatString(std::string_view key, std::string_view& text) {
  const Value* object = nullptr;
  if (!flatPlain(key, kString, object)) return false;
  text = object->text();
  return true;
}

}  // namespace qx
