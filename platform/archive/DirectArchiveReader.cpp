#include "platform/archive/DirectArchiveReader.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

#include "platform/archive/KeyedUnarchiver.h"
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

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
// Containers nest at most this deep in the archives taken (an archive needs
// four: the top dictionary, $objects, an object's dictionary, an inline
// array).
constexpr uint8_t kMostLevels = 16;
// Distinct key texts of one archive; a key id is a bit of a 64-bit mask.
constexpr std::size_t kMostKeys = 64;
// Objects nested in each other, well below KeyedUnarchiver's limit.
constexpr int kMostDepth = 128;

enum Kind : uint8_t { kBool, kInteger, kReal, kData, kString, kUid, kArray, kDictionary };

enum Status : uint8_t { kNew, kDecoding, kDone };

uint64_t readBigEndian(const uint8_t* p, unsigned width) {
  uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = (value << 8) | p[i];
  return value;
}

bool isAscii(const uint8_t* p, std::size_t length) {
  uint64_t seen = 0;
  std::size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    uint64_t word;
    std::memcpy(&word, p + i, 8);
    seen |= word;
  }
  for (; i < length; ++i) seen |= p[i];
  return (seen & 0x8080808080808080ULL) == 0;
}

bool isCollectionFactory(DecodeFactory factory) {
  return factory == &Array::initWithCoder || factory == &MutableArray::initWithCoder ||
         factory == &Dictionary::initWithCoder || factory == &MutableDictionary::initWithCoder;
}

}  // namespace

struct DirectArchiveReader::Value {
  uint8_t type = 0;
  uint8_t level = 0;   // containers nested inside
  int16_t keyId = -1;  // of a string used as a dictionary key
  uint32_t length = 0;  // bytes of a string or data, elements, pairs
  uint32_t slot = 0;    // 1 + index in slots_
  union {
    int64_t integer = 0;  // integers, booleans, UIDs
    double real;
    const uint8_t* bytes;  // strings and data; a container's references
  };

  std::string_view text() const { return {reinterpret_cast<const char*>(bytes), length}; }
};

struct DirectArchiveReader::Slot {
  ObjectPtr object;
  const ClassRegistry::Entry* entry = nullptr;  // of a class dictionary
  Status status = kNew;
};

struct DirectArchiveReader::Flat {
  const Value* object = nullptr;
  bool failed = false;
  bool unsupported = false;
};

DirectArchiveReader::DirectArchiveReader() : flat_(new Flat) {}

DirectArchiveReader::~DirectArchiveReader() {
  delete flat_;
}

inline uint64_t DirectArchiveReader::offsetOf(Ref ref) const {
  const uint8_t* p = bytes_ + tableOffset_ + uint64_t(ref) * offsetSize_;
  switch (offsetSize_) {
    case 1:
      return p[0];
    case 2:
      return uint64_t(p[0]) << 8 | p[1];
    default:
      return readBigEndian(p, offsetSize_);
  }
}

template <unsigned Width>
inline DirectArchiveReader::Ref DirectArchiveReader::readRef(const uint8_t* refs, std::size_t index) {
  if constexpr (Width == 1) {
    return refs[index];
  } else {
    return Ref(refs[2 * index]) << 8 | refs[2 * index + 1];
  }
}

inline DirectArchiveReader::Ref DirectArchiveReader::refAt(const uint8_t* refs, std::size_t index) const {
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
  bool scanned = false;
  switch (refSize_) {
    case 1:
      scanned = scan<1>();
      break;
    case 2:
      scanned = scan<2>();
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
  classNameKey_ = keyIdOf("$classname");
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
  root_ = static_cast<uint32_t>(root->integer);
  return true;
}

void DirectArchiveReader::close() {
  slots_.clear();
  objects_ = nullptr;
  objectCount_ = 0;
  depth_ = 0;
  // Sets live only as long as their message: an address may name another set
  // next time.
  std::fill(std::begin(allowances_), std::end(allowances_), Allowance{});
  *flat_ = Flat{};
}

bool DirectArchiveReader::recycle() {
  close();
  return values_.capacity() * sizeof(Value) <= (4u << 20);
}

// Checks every value once, in table order, as BinaryPlist reads them. Only
// plists whose containers name values before them are taken (as this
// project's writer lays them out): nothing can then contain itself, and each
// container's keys and nesting are checked from values already read.
template <unsigned Width>
bool DirectArchiveReader::scan() {
  const uint8_t* end = bytes_ + tableOffset_;
  const uint64_t area = tableOffset_ - kHeaderSize;
  uint64_t consumed = 0;
  Value* values = values_.data();
  const auto count = static_cast<Ref>(count_);
  for (Ref ref = 0; ref < count; ++ref) {
    Value& value = values[ref];
    value.slot = 0;
    value.keyId = -1;
    value.level = 0;
    uint64_t offset = offsetOf(ref);
    if (offset < kHeaderSize || offset >= tableOffset_) return false;
    const uint8_t* start = bytes_ + offset;
    const uint8_t marker = *start;
    const auto left = static_cast<uint64_t>(end - start - 1);
    switch (marker >> 4) {
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
        value.integer = static_cast<int64_t>(readBigEndian(start + 1, width));
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
      case 0x8: {
        unsigned width = (marker & 0x0F) + 1;
        if (width > 8 || left < width) return false;
        uint64_t uid = readBigEndian(start + 1, width);
        if (uid > 0xffffffffULL) return false;
        value.type = kUid;
        value.integer = static_cast<int64_t>(uid);
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
        auto room = static_cast<uint64_t>(end - p);
        const unsigned kind = marker >> 4;
        uint64_t body = length;
        if (kind >= 0xA) {
          if (length > room) return false;
          body = length * (kind == 0xD ? 2 : 1) * Width;
        }
        if (body > room || length > std::numeric_limits<uint32_t>::max()) return false;
        consumed += static_cast<uint64_t>(p - start) + body;
        value.length = static_cast<uint32_t>(length);
        value.bytes = p;
        if (kind == 0x4) {
          value.type = kData;
        } else if (kind == 0x5) {
          if (!isAscii(p, length)) return false;
          value.type = kString;
        } else if (!scanContainer<Width>(ref, value, kind == 0xD)) {
          return false;
        }
        break;
      }
      default:
        return false;
    }
  }
  return consumed <= area;
}

template <unsigned Width>
bool DirectArchiveReader::scanContainer(Ref ref, Value& value, bool dictionary) {
  Value* values = values_.data();
  const uint8_t* refs = value.bytes;
  const std::size_t count = value.length;
  const std::size_t keys = dictionary ? count : 0;
  value.type = dictionary ? kDictionary : kArray;
  uint64_t seenKeys = 0;
  for (std::size_t i = 0; i < keys; ++i) {
    Ref key = readRef<Width>(refs, i);
    if (key >= ref) return false;
    Value& text = values[key];
    if (text.type != kString) return false;
    if (text.keyId < 0 && !internKey(text)) return false;
    uint64_t bit = uint64_t(1) << text.keyId;
    if (seenKeys & bit) return false;  // two equal keys
    seenKeys |= bit;
  }
  uint8_t highest = 0;
  for (std::size_t i = keys; i < keys + count; ++i) {
    Ref element = readRef<Width>(refs, i);
    if (element >= ref) return false;
    highest = std::max(highest, values[element].level);
  }
  if (highest >= kMostLevels) return false;
  value.level = static_cast<uint8_t>(highest + 1);
  return true;
}

int DirectArchiveReader::keyIdOf(std::string_view text) const {
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

const DirectArchiveReader::Value* DirectArchiveReader::valueForKey(const Value& dictionary,
                                                                   int keyId) const {
  if (keyId < 0) return nullptr;
  for (std::size_t i = 0; i < dictionary.length; ++i) {
    if (values_[refAt(dictionary.bytes, i)].keyId == keyId) {
      return &values_[refAt(dictionary.bytes, dictionary.length + i)];
    }
  }
  return nullptr;
}

const DirectArchiveReader::Value* DirectArchiveReader::objectValue(uint32_t uid) const {
  return &values_[refAt(objects_->bytes, uid)];
}

std::size_t DirectArchiveReader::slotOf(const Value& value) {
  auto& entry = const_cast<Value&>(value);
  if (entry.slot == 0) {
    slots_.emplace_back();
    entry.slot = static_cast<uint32_t>(slots_.size());
  }
  return entry.slot - 1;
}

bool DirectArchiveReader::classOf(const Value& object, const ClassRegistry::Entry*& entry) {
  const Value* classUid = valueForKey(object, classKey_);
  if (!classUid || classUid->type != kUid || classUid->integer >= objectCount_) return false;
  const Value& description = *objectValue(static_cast<uint32_t>(classUid->integer));
  if (description.type != kDictionary) return false;
  std::size_t slot = slotOf(description);
  if (slots_[slot].entry) {
    entry = slots_[slot].entry;
    return true;
  }
  const Value* name = valueForKey(description, classNameKey_);
  if (!name || name->type != kString) return false;
  entry = ClassRegistry::lookup(name->text());
  if (!entry) return false;
  slots_[slot].entry = entry;
  return true;
}

bool DirectArchiveReader::allowed(const ClassSet* classes, const ClassInfo& cls) {
  if (!classes) return true;
  for (Allowance& known : allowances_) {
    if (known.classes == classes && known.cls == &cls) return known.allowed;
  }
  bool allows = classes->allows(cls);
  allowances_[nextAllowance_++ % std::size(allowances_)] = {classes, &cls, allows};
  return allows;
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
      if (value.text() == "$null") return true;
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
  if (!allowed(classes, *cls)) return false;
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
  const ClassRegistry::Entry* entry = nullptr;
  if (!classOf(object, entry) || !allowed(classes, *entry->cls)) return false;
  std::size_t slot = slotOf(object);
  const DecodeFactory factory = entry->factory;
  if (slots_[slot].status == kDone) {
    // A collection handed out again would need its contents checked against
    // this set: left to the general path.
    if (isCollectionFactory(factory)) return false;
    result = slots_[slot].object;
    return true;
  }
  if (slots_[slot].status == kDecoding || depth_ >= kMostDepth) return false;
  slots_[slot].status = kDecoding;
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
  } else if (factory == &Dictionary::initWithCoder || factory == &MutableDictionary::initWithCoder) {
    std::vector<ObjectPtr> keys;
    std::vector<ObjectPtr> values;
    done = decodeElements(object, nsKeys_, classes, keys) &&
           decodeElements(object, nsObjects_, classes, values) && keys.size() == values.size();
    if (done) {
      DictionaryEntries entries(keys.size());
      for (std::size_t i = 0; i < keys.size(); ++i) {
        entries[i] = {std::move(keys[i]), std::move(values[i])};
      }
      result = factory == &Dictionary::initWithCoder
                   ? ObjectPtr(Dictionary::make(std::move(entries)))
                   : ObjectPtr(ObjectArena::make<MutableDictionary>(std::move(entries)));
    }
  } else {
    *flat_ = Flat{&object, false, false};
    KeyedUnarchiver coder(*this);
    result = factory(coder);
    done = result && !flat_->failed && !flat_->unsupported;
    *flat_ = Flat{};
  }
  --depth_;
  if (!done) return false;
  slots_[slot].object = result;
  slots_[slot].status = kDone;
  return true;
}

bool DirectArchiveReader::decodeElements(const Value& object, int keyId, const ClassSet* classes,
                                         std::vector<ObjectPtr>& out) {
  const Value* array = valueForKey(object, keyId);
  if (!array) return true;  // an absent key counts as empty
  if (array->type != kArray) return false;
  out.resize(array->length);
  for (std::size_t i = 0; i < array->length; ++i) {
    const Value& element = values_[refAt(array->bytes, i)];
    if (element.type != kUid) return false;
    if (!decodeValue(static_cast<uint32_t>(element.integer), classes, out[i])) return false;
  }
  return true;
}

bool DirectArchiveReader::beginObject(uint32_t uid, const ClassRegistry::Entry*& entry) {
  if (uid == 0 || uid >= objectCount_) return false;
  const Value& object = *objectValue(uid);
  if (object.type != kDictionary || !classOf(object, entry)) return false;
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

// KeyedUnarchiver's flat mode: the keys of flat_->object, read as the general
// path reads them. What it does not answer marks the decode unsupported.

const DirectArchiveReader::Value* DirectArchiveReader::flatValue(std::string_view key) {
  if (!key.empty() && key.front() == '$') {
    flat_->unsupported = true;  // an escaped key
    return nullptr;
  }
  return valueForKey(*flat_->object, keyIdOf(key));
}

bool DirectArchiveReader::flatPlain(std::string_view key, uint8_t type, const Value*& found) {
  found = nullptr;
  if (flat_->failed || flat_->unsupported) return false;
  const Value* value = flatValue(key);
  if (!value) return false;  // absent: no object, and no failure
  if (value->type != kUid || value->integer == 0 || value->integer >= objectCount_) {
    flat_->unsupported = true;
    return false;
  }
  const Value* object = objectValue(static_cast<uint32_t>(value->integer));
  if (object->type != type || (type == kString && object->text() == "$null")) {
    flat_->unsupported = true;
    return false;
  }
  found = object;
  return true;
}

bool DirectArchiveReader::flatFailed() const {
  return flat_->failed || flat_->unsupported;
}

void DirectArchiveReader::flatFail() {
  flat_->failed = true;
}

void DirectArchiveReader::flatUnsupported() {
  flat_->unsupported = true;
}

bool DirectArchiveReader::flatContains(std::string_view key) {
  return flatValue(key) != nullptr;
}

int64_t DirectArchiveReader::flatInteger(std::string_view key) {
  if (flatFailed()) return 0;
  const Value* value = flatValue(key);
  if (!value) return 0;
  if (value->type != kInteger) {
    flat_->failed = true;
    return 0;
  }
  return value->integer;
}

bool DirectArchiveReader::flatBool(std::string_view key) {
  if (flatFailed()) return false;
  const Value* value = flatValue(key);
  if (!value) return false;
  if (value->type != kBool) {
    flat_->failed = true;
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
  flat_->failed = true;
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
