#include "service/QXSizeReportWriter.h"

#include <bit>

#include "platform/archive/KeyedArchiver.h"
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

}  // namespace

std::vector<uint8_t> QXSizeReportWriter::invocation(std::string_view selector,
                                                    const QXSizeUpdates& updates,
                                                    uint64_t sequence) {
  const qx::XpcMessage::ArgumentWriter records[] = {
      [&](qx::KeyedArchiver& coder) { return writeRecords(coder, updates); }};
  return qx::XpcMessage::encodeInvocation(selector, records, sequence);
}

uint32_t QXSizeReportWriter::writeRecords(qx::KeyedArchiver& coder, const QXSizeUpdates& updates) {
  WrittenObjects written(updates.size());
  // The two keys are one string object each, shared by every record.
  uint32_t keyUids[2] = {0, 0};
  const char* keys[2] = {QXFileResponse::kIndexPathKey, QXFileResponse::kFileSizeItemKey};
  auto keyUid = [&](std::size_t i) {
    if (keyUids[i] == 0) keyUids[i] = coder.stringObject(keys[i]);
    return keyUids[i];
  };
  auto pathUid = [&](const qx::IndexPathPtr& path) -> uint32_t {
    if (!path) return 0;
    uint32_t& uid = written.uidOf(path.get());
    if (uid == 0) {
      uid = coder.objectOfClass(qx::IndexPath::classInfo(), [&](qx::KeyedArchiver& keysOf) {
        qx::IndexPath::encodeIndexes(keysOf, path->span());
      });
    }
    return uid;
  };
  auto itemUid = [&](const QXFileSizeItemPtr& item) -> uint32_t {
    if (!item) return 0;
    uint32_t& uid = written.uidOf(item.get());
    if (uid == 0) {
      uid = coder.objectOfClass(QXFileSizeItem::classInfo(), [&](qx::KeyedArchiver& keysOf) {
        QXFileSizeItem::encodeValues(keysOf, item->size(), item->busy());
      });
    }
    return uid;
  };
  auto recordUid = [&](const QXSizeUpdate& update) {
    return coder.objectOfClass(qx::Dictionary::classInfo(), [&](qx::KeyedArchiver& record) {
      record.encodeArrayOfUids(2, keyUid, "NS.keys");
      record.encodeArrayOfUids(
          2,
          [&](std::size_t i) { return i == 0 ? pathUid(update.indexPath) : itemUid(update.item); },
          "NS.objects");
    });
  };
  return coder.objectOfClass(qx::MutableArray::classInfo(), [&](qx::KeyedArchiver& array) {
    array.encodeArrayOfUids(
        updates.size(), [&](std::size_t i) { return recordUid(updates[i]); }, "NS.objects");
  });
}
