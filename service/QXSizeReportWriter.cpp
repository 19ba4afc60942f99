#include "service/QXSizeReportWriter.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "platform/archive/KeyedArchiveWriter.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/MutableArray.h"
#include "platform/xpc/XpcMessage.h"
#include "protocol/QXFileResponse.h"

namespace {

// The UIDs of the objects written so far, by address: an item and its path
// may appear twice in one report (a folder reported when it opens and again
// when it closes), and the archive then names the object written first, as
// archiving the objects does.
class WrittenObjects {
 public:
  explicit WrittenObjects(std::size_t records)
      : slots_(std::bit_ceil(records * 4 + 4)), mask_(slots_.size() - 1) {}

  // The slot of `object`; its uid is 0 when it has not been written yet.
  uint32_t& uidOf(const void* object) {
    auto bits = reinterpret_cast<uintptr_t>(object);
    for (std::size_t i = (bits >> 4) * 0x9E3779B97F4A7C15ULL >> 40 & mask_;; i = (i + 1) & mask_) {
      Slot& slot = slots_[i];
      if (slot.object == object) return slot.uid;
      if (slot.object == nullptr) {
        slot.object = object;
        return slot.uid;
      }
    }
  }

 private:
  struct Slot {
    const void* object = nullptr;
    uint32_t uid = 0;
  };
  std::vector<Slot> slots_;
  std::size_t mask_;
};

// The keys and values of one object, written by value in the order its
// encode calls would write them. Its keys are interned once per archive: the
// i-th key of an object of one shape is the same literal every time, and is
// found by its address.
class ObjectValues {
 public:
  static constexpr std::size_t kMostKeys = 4;

  struct Keys {
    const char* texts[kMostKeys] = {};
    qx::KeyedArchiveWriter::Value values[kMostKeys] = {};
  };

  ObjectValues(qx::KeyedArchiveWriter& coder, Keys& keys) : coder_(coder), keys_(keys) {}

  void encodeInteger(int64_t value, std::string_view key) {
    qx::KeyedArchiveWriter::Value k = keyValue(key);
    add(k, coder_.integerValue(value));
  }
  void encodeBool(bool value, std::string_view key) {
    qx::KeyedArchiveWriter::Value k = keyValue(key);
    add(k, coder_.boolValue(value));
  }
  void encodeDataObject(std::span<const uint8_t> bytes, std::string_view key) {
    uint32_t uid = coder_.dataObject(bytes);
    qx::KeyedArchiveWriter::Value k = keyValue(key);
    add(k, coder_.uidValue(uid));
  }

  // `classValue` is kept for the next object of class `cls` (0 at first).
  void fill(uint32_t uid, qx::KeyedArchiveWriter::Value& classValue, const qx::ClassInfo& cls) {
    if (classValue == 0) classValue = coder_.classValue(cls);
    coder_.fillObject(uid, classValue, {keyRefs_, count_}, {values_, count_});
  }

 private:
  qx::KeyedArchiveWriter::Value keyValue(std::string_view key) {
    if (count_ >= kMostKeys) throw std::length_error("too many keys");
    if (keys_.texts[count_] != key.data()) {
      keys_.values[count_] = coder_.keyValue(key);
      keys_.texts[count_] = key.data();
    }
    return keys_.values[count_];
  }
  void add(qx::KeyedArchiveWriter::Value key, qx::KeyedArchiveWriter::Value value) {
    keyRefs_[count_] = key;
    values_[count_++] = value;
  }

  qx::KeyedArchiveWriter& coder_;
  Keys& keys_;
  qx::KeyedArchiveWriter::Value keyRefs_[kMostKeys];
  qx::KeyedArchiveWriter::Value values_[kMostKeys];
  std::size_t count_ = 0;
};

}  // namespace

std::vector<uint8_t> QXSizeReportWriter::invocation(std::string_view selector,
                                                    const QXSizeUpdates& updates,
                                                    uint64_t sequence) {
  const qx::XpcMessage::ArgumentWriter records[] = {
      [&](qx::KeyedArchiveWriter& coder) { return writeRecords(coder, updates); }};
  return qx::XpcMessage::encodeInvocation(selector, records, sequence);
}

uint32_t QXSizeReportWriter::writeRecords(qx::KeyedArchiveWriter& coder,
                                          const QXSizeUpdates& updates) {
  using Value = qx::KeyedArchiveWriter::Value;
  WrittenObjects written(updates.size());
  // The two keys are one string object each, shared by every record.
  uint32_t keyUids[2] = {0, 0};
  const char* keys[2] = {QXFileResponse::kIndexPathKey, QXFileResponse::kFileSizeItemKey};
  Value nsKeys = 0;
  Value nsObjects = 0;
  ObjectValues::Keys pathKeys[3];  // by the form of the path: none, one, more indexes
  ObjectValues::Keys itemKeys;
  // The UID values of the class dictionaries, once written (0 until then).
  Value pathClass = 0;
  Value itemClass = 0;
  Value recordClass = 0;
  auto pathUid = [&](const qx::IndexPathPtr& path) -> uint32_t {
    if (!path) return 0;
    uint32_t& uid = written.uidOf(path.get());
    if (uid == 0) {
      uid = coder.reserveObject();
      ObjectValues values(coder, pathKeys[std::min<std::size_t>(path->length(), 2)]);
      qx::IndexPath::encodeIndexes(values, path->span());
      values.fill(uid, pathClass, qx::IndexPath::classInfo());
    }
    return uid;
  };
  auto itemUid = [&](const QXFileSizeItemPtr& item) -> uint32_t {
    if (!item) return 0;
    uint32_t& uid = written.uidOf(item.get());
    if (uid == 0) {
      uid = coder.reserveObject();
      ObjectValues values(coder, itemKeys);
      QXFileSizeItem::encodeValues(values, item->size(), item->busy());
      values.fill(uid, itemClass, QXFileSizeItem::classInfo());
    }
    return uid;
  };
  // A record as Dictionary::encodeWithCoder writes it: the array of its
  // keys, the array of its values, each element written before its UID.
  auto recordUid = [&](const QXSizeUpdate& update) {
    uint32_t uid = coder.reserveObject();
    Value keyValues[2];
    for (std::size_t i = 0; i < 2; ++i) {
      if (keyUids[i] == 0) keyUids[i] = coder.stringObject(keys[i]);
      keyValues[i] = coder.uidValue(keyUids[i]);
    }
    if (nsKeys == 0) nsKeys = coder.keyValue("NS.keys");
    Value recordKeys[2] = {nsKeys, coder.arrayOfUids(nsKeys, keyValues)};
    Value objectValues[2];
    objectValues[0] = coder.uidValue(pathUid(update.indexPath));
    objectValues[1] = coder.uidValue(itemUid(update.item));
    if (nsObjects == 0) nsObjects = coder.keyValue("NS.objects");
    Value recordValues[2] = {recordKeys[1], coder.arrayOfUids(nsObjects, objectValues)};
    recordKeys[1] = nsObjects;
    if (recordClass == 0) recordClass = coder.classValue(qx::Dictionary::classInfo());
    coder.fillObject(uid, recordClass, recordKeys, recordValues);
    return uid;
  };
  uint32_t array = coder.reserveObject();
  std::vector<Value> records(updates.size());
  for (std::size_t i = 0; i < updates.size(); ++i)
    records[i] = coder.uidValue(recordUid(updates[i]));
  Value key = coder.keyValue("NS.objects");
  Value elements = coder.arrayOfUids(key, records);
  coder.fillObject(array, coder.classValue(qx::MutableArray::classInfo()), {&key, 1},
                   {&elements, 1});
  return array;
}
