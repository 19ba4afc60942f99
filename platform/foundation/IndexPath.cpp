#include "platform/foundation/IndexPath.h"

#include <algorithm>
#include <array>
#include <span>
#include <string>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"

namespace qx {

QX_DEFINE_CLASS(IndexPath, "NSIndexPath", Object)

IndexPath::IndexPath(std::span<const uint64_t> indexes) : length_(indexes.size()) {
  uint64_t* storage = inline_;
  if (length_ > kInline) {
    heap_ = std::make_unique_for_overwrite<uint64_t[]>(length_);
    storage = heap_.get();
  }
  std::copy(indexes.begin(), indexes.end(), storage);
}

namespace {

// Indexes of two or more positions are stored as unsigned LEB128: 7 bits a
// byte, lowest group first, the high bit set on every byte but an index's last.
constexpr std::size_t kMaxLeb128Bytes = 10;

uint8_t* writeLeb128(uint64_t value, uint8_t* out) {
  do {
    uint8_t byte = value & 0x7f;
    value >>= 7;
    *out++ = value != 0 ? (byte | 0x80) : byte;
  } while (value != 0);
  return out;
}

// Decodes exactly `out.size()` indexes; false for fewer or more, a truncated
// last byte or a value wider than 64 bits.
bool decodeLeb128(std::span<const uint8_t> bytes, std::span<uint64_t> out) {
  std::size_t count = 0;
  uint64_t value = 0;
  unsigned shift = 0;
  bool pending = false;
  for (uint8_t byte : bytes) {
    uint64_t group = byte & 0x7f;
    if (shift > 63 || (shift == 63 && group > 1)) return false;
    value |= group << shift;
    pending = true;
    if (byte & 0x80) {
      shift += 7;
      continue;
    }
    if (count == out.size()) return false;
    out[count++] = value;
    value = 0;
    shift = 0;
    pending = false;
  }
  return !pending && count == out.size();
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
  std::span<const uint8_t> bytes;
  if (!coder.decodeDataObjectForKey("NSIndexPathData", bytes)) {
    coder.failWithError("NSIndexPath without NSIndexPathData");
    return nullptr;
  }
  // Every index takes at least a byte: a longer length cannot be right, and
  // is refused before anything is allocated for it.
  if (static_cast<uint64_t>(length) > bytes.size()) {
    coder.failWithError("NSIndexPathData does not hold NSIndexPathLength indexes");
    return nullptr;
  }
  auto count = static_cast<std::size_t>(length);
  std::array<uint64_t, 16> local;
  std::vector<uint64_t> large;
  std::span<uint64_t> indexes;
  if (count <= local.size()) {
    indexes = std::span<uint64_t>(local.data(), count);
  } else {
    large.resize(count);
    indexes = large;
  }
  if (!decodeLeb128(bytes, indexes)) {
    coder.failWithError("NSIndexPathData does not hold NSIndexPathLength indexes");
    return nullptr;
  }
  return make(std::span<const uint64_t>(indexes));
}

std::shared_ptr<IndexPath> IndexPath::indexPathByAddingIndex(uint64_t index) const {
  std::vector<uint64_t> indexes = this->indexes();
  indexes.push_back(index);
  return make(indexes);
}

bool IndexPath::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const IndexPath*>(&other);
  return that != nullptr && std::ranges::equal(that->span(), span());
}

std::size_t IndexPath::hash() const {
  std::size_t h = length_;
  for (uint64_t i : span()) h = h * 31 + i;
  return h;
}

std::string IndexPath::description() const {
  std::string text = "{length = " + std::to_string(length_) + ", path = ";
  for (std::size_t i = 0; i < length_; ++i) {
    if (i > 0) text += " - ";
    text += std::to_string(data()[i]);
  }
  return text + "}";
}

void IndexPath::encodeWithCoder(KeyedArchiver& coder) const {
  encodeIndexes(coder, span());
}

std::span<const uint8_t> IndexPath::archivedBytes(std::span<const uint64_t> indexes,
                                                  std::span<uint8_t, kLocalBytes> local,
                                                  std::vector<uint8_t>& large) {
  uint8_t* begin = local.data();
  if (indexes.size() * kMaxLeb128Bytes > local.size()) {
    large.resize(indexes.size() * kMaxLeb128Bytes);
    begin = large.data();
  }
  uint8_t* end = begin;
  for (uint64_t index : indexes) end = writeLeb128(index, end);
  return {begin, end};
}

}  // namespace qx
