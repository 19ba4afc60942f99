#include "platform/foundation/IndexPath.h"

#include <algorithm>
#include <optional>
#include <string>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Data.h"

namespace qx {

QX_DEFINE_CLASS(IndexPath, "NSIndexPath", Object)

namespace {

// Indexes of two or more positions are stored as unsigned LEB128: 7 bits a
// byte, lowest group first, the high bit set on every byte but an index's last.
std::vector<uint8_t> encodeLeb128(const std::vector<uint64_t>& indexes) {
  std::vector<uint8_t> bytes;
  bytes.reserve(indexes.size() * 2);
  for (uint64_t value : indexes) {
    do {
      uint8_t byte = value & 0x7f;
      value >>= 7;
      bytes.push_back(value != 0 ? (byte | 0x80) : byte);
    } while (value != 0);
  }
  return bytes;
}

// Nullopt for a truncated last byte or a value wider than 64 bits.
std::optional<std::vector<uint64_t>> decodeLeb128(const std::vector<uint8_t>& bytes,
                                                  std::size_t expected) {
  std::vector<uint64_t> indexes;
  indexes.reserve(std::min(expected, bytes.size()));
  uint64_t value = 0;
  unsigned shift = 0;
  bool pending = false;
  for (uint8_t byte : bytes) {
    uint64_t group = byte & 0x7f;
    if (shift > 63 || (shift == 63 && group > 1)) return std::nullopt;
    value |= group << shift;
    pending = true;
    if (byte & 0x80) {
      shift += 7;
      continue;
    }
    indexes.push_back(value);
    value = 0;
    shift = 0;
    pending = false;
  }
  if (pending) return std::nullopt;
  return indexes;
}

}  // namespace

ObjectPtr IndexPath::initWithCoder(KeyedUnarchiver& coder) {
  int64_t length = coder.decodeIntegerForKey("NSIndexPathLength");
  if (coder.hasFailed()) return nullptr;
  if (length < 0) {
    coder.failWithError("NSIndexPath with a negative length");
    return nullptr;
  }
  if (length == 0) return make();
  if (length == 1) {
    int64_t value = coder.decodeIntegerForKey("NSIndexPathValue");
    if (coder.hasFailed()) return nullptr;
    return make({static_cast<uint64_t>(value)});
  }
  auto data = cast<Data>(coder.decodeObjectOfClassForKey(Data::classInfo(), "NSIndexPathData"));
  if (!data) {
    coder.failWithError("NSIndexPath without NSIndexPathData");
    return nullptr;
  }
  auto indexes = decodeLeb128(data->bytes(), static_cast<std::size_t>(length));
  if (!indexes || indexes->size() != static_cast<uint64_t>(length)) {
    coder.failWithError("NSIndexPathData does not hold NSIndexPathLength indexes");
    return nullptr;
  }
  return make(std::move(*indexes));
}

std::shared_ptr<IndexPath> IndexPath::indexPathByAddingIndex(uint64_t index) const {
  auto indexes = indexes_;
  indexes.push_back(index);
  return make(std::move(indexes));
}

bool IndexPath::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const IndexPath*>(&other);
  return that != nullptr && that->indexes_ == indexes_;
}

std::size_t IndexPath::hash() const {
  std::size_t h = indexes_.size();
  for (uint64_t i : indexes_) h = h * 31 + i;
  return h;
}

std::string IndexPath::description() const {
  std::string text = "{length = " + std::to_string(indexes_.size()) + ", path = ";
  for (std::size_t i = 0; i < indexes_.size(); ++i) {
    if (i > 0) text += " - ";
    text += std::to_string(indexes_[i]);
  }
  return text + "}";
}

void IndexPath::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeInteger(static_cast<int64_t>(indexes_.size()), "NSIndexPathLength");
  if (indexes_.size() == 1) {
    coder.encodeInteger(static_cast<int64_t>(indexes_[0]), "NSIndexPathValue");
  } else if (indexes_.size() >= 2) {
    coder.encodeObject(Data::make(encodeLeb128(indexes_)), "NSIndexPathData");
  }
}

}  // namespace qx
