#include "platform/archive/BinaryPlist.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

#include "platform/archive/PlistBytes.h"

namespace qx {
namespace {

using namespace plistbytes;

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// UTF-16BE to UTF-8. A surrogate that is not half of a pair becomes U+FFFD.
void appendUtf16AsUtf8(std::string& out, const uint8_t* p, std::size_t units) {
  for (std::size_t i = 0; i < units; ++i) {
    char32_t unit = (char32_t(p[2 * i]) << 8) | p[2 * i + 1];
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < units) {
      char32_t next = (char32_t(p[2 * i + 2]) << 8) | p[2 * i + 3];
      if (next >= 0xDC00 && next <= 0xDFFF) {
        appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
        ++i;
        continue;
      }
    }
    appendUtf8(out, (unit >= 0xD800 && unit <= 0xDFFF) ? kReplacement : unit);
  }
}

// Equality of two byte strings of the same length, without a library call for
// the short keys that archives are made of.
bool sameBytes(const char* a, const char* b, std::size_t n) {
  if (n >= 8) {
    if (n > 16) return std::memcmp(a, b, n) == 0;
    return load64(a) == load64(b) && load64(a + n - 8) == load64(b + n - 8);
  }
  if (n >= 4) return load32(a) == load32(b) && load32(a + n - 4) == load32(b + n - 4);
  for (std::size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reading

class BinaryPlistParser {
 public:
  BinaryPlistParser(BinaryPlist& plist, std::span<const uint8_t> bytes, std::string& why)
      : plist_(plist), bytes_(bytes.data()), size_(bytes.size()), why_(why) {}

  bool run() {
    if (!readTrailer()) return false;
    plist_.counted_ = false;
    plist_.nodes_.resize(objectCount_);
    plist_.refs_.resize(std::min<uint64_t>(objectCount_ * 2, tableOffset_ / refSize_));
    plist_.top_ = static_cast<BinaryPlist::Ref>(top_);
    // Every object once, in table order. When every container names only
    // objects before it (as this project's writer lays them out), the graph
    // cannot have a cycle and was checked on the way; else it is walked.
    bool parsed;
    switch (offsetSize_) {
      case 1:
        parsed = parseObjects<1>();
        break;
      case 2:
        parsed = parseObjects<2>();
        break;
      case 3:
        parsed = parseObjects<3>();
        break;
      case 4:
        parsed = parseObjects<4>();
        break;
      default:
        parsed = parseObjects<0>();
        break;
    }
    if (!parsed) return false;
    plist_.refs_.resize(refsUsed_);
    return backwardOnly_ || checkGraph();
  }

 private:
  using Node = BinaryPlist::Node;
  using Type = BinaryPlist::Type;
  using Ref = BinaryPlist::Ref;

  // Failures are rare: kept out of line, so the paths that parse stay small.
  [[gnu::cold, gnu::noinline]] bool fail(const char* message) {
    why_ = message;
    return false;
  }
  [[gnu::cold, gnu::noinline]] bool fail(const char* before, uint64_t number, const char* after) {
    why_ = before + std::to_string(number) + after;
    return false;
  }

  bool readTrailer() {
    if (size_ < kHeaderSize + 1 + 1 + kTrailerSize) return fail("too short for a binary plist");
    if (std::memcmp(bytes_, kMagic, sizeof kMagic) != 0) return fail("no bplist00 header");
    const uint8_t* trailer = bytes_ + size_ - kTrailerSize;
    offsetSize_ = trailer[6];
    refSize_ = trailer[7];
    uint64_t count = readBigEndian(trailer + 8, 8);
    top_ = readBigEndian(trailer + 16, 8);
    tableOffset_ = readBigEndian(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8) return fail("offset size not 1 to 8");
    if (refSize_ < 1 || refSize_ > 8) return fail("object reference size not 1 to 8");
    uint64_t tableEnd = size_ - kTrailerSize;
    if (tableOffset_ < kHeaderSize + 1 || tableOffset_ > tableEnd) {
      return fail("offset table outside the buffer");
    }
    if (count == 0 || count > (tableEnd - tableOffset_) / offsetSize_) {
      return fail("object count does not fit the offset table");
    }
    if (count > std::numeric_limits<Ref>::max()) return fail("too many objects");
    // Every object takes at least its marker byte: no more objects than bytes.
    if (count > tableOffset_ - kHeaderSize) return fail("more objects than the object area holds");
    if (top_ >= count) return fail("top object beyond the object table");
    objectCount_ = count;
    return true;
  }

  // Reads a length that follows a marker: the marker's low nibble, or for 0xF
  // an integer object right after the marker. `p` points at the marker.
  bool readLength(const uint8_t*& p, const uint8_t* end, uint64_t& length) {
    uint8_t low = *p & 0x0F;
    ++p;
    if (low != 0x0F) {
      length = low;
      return true;
    }
    if (p >= end || (*p & 0xF0) != 0x10 || (*p & 0x0F) > 3) return fail("malformed length");
    unsigned width = 1u << (*p & 0x0F);
    if (static_cast<std::size_t>(end - p - 1) < width) return fail("length beyond the buffer");
    length = readBigEndian(p + 1, width);
    p += 1 + width;
    return true;
  }

  // Guards against objects that share bytes (several offsets naming one
  // container): all objects together never span more than the object area,
  // so nothing read can allocate more than the input justifies.
  bool consume(std::size_t bytes) {
    consumed_ += bytes;
    if (consumed_ > tableOffset_ - kHeaderSize) return fail("objects overlap");
    return true;
  }

  // The objects in table order, their offsets read Width bytes at a time.
  template <unsigned Width>
  bool parseObjects() {
    const uint8_t* table = bytes_ + tableOffset_;
    const auto count = static_cast<Ref>(objectCount_);
    const unsigned width = offsetSize_;
    for (Ref i = 0; i < count; ++i) {
      if (!parseObject(i, readReference<Width>(table, i, width))) return false;
    }
    return true;
  }

  bool parseObject(Ref ref, uint64_t offset) {
    Node& node = plist_.nodes_[ref];
    if (offset < kHeaderSize || offset >= tableOffset_) {
      return fail("offset of object ", ref, " outside the object area");
    }
    const uint8_t* start = bytes_ + offset;
    const uint8_t* end = bytes_ + tableOffset_;
    uint8_t marker = *start;
    switch (marker >> 4) {
      case 0x0:
        return parseSimple(node, marker);
      case 0x1:
        return parseInteger(node, start, end);
      case 0x2:
      case 0x3:
        return parseReal(node, start, end);
      case 0x4:
      case 0x5:
      case 0x6:
        return parseBytes(node, start, end);
      case 0x8:
        return parseUid(node, start, end);
      case 0xA:
      case 0xD:
        return parseContainer(ref, node, start, end);
      default:
        return fail("unknown object marker ", marker, "");
    }
  }

  bool parseSimple(Node& node, uint8_t marker) {
    if (!consume(1)) return false;
    switch (marker) {
      case 0x00:
        node.type = Type::Null;
        break;
      case 0x08:
      case 0x09:
        node.type = Type::Bool;
        node.integer = marker & 1;
        break;
      default:
        return fail("unknown object marker ", marker, "");
    }
    node.flags = BinaryPlist::kParsed;
    return true;
  }

  bool parseInteger(Node& node, const uint8_t* p, const uint8_t* end) {
    unsigned exponent = *p & 0x0F;
    if (exponent > 4) return fail("integer wider than 16 bytes");
    unsigned width = 1u << exponent;
    if (static_cast<std::size_t>(end - p - 1) < width) return fail("integer beyond the buffer");
    if (!consume(1 + width)) return false;
    if (width <= 8) {
      // 1, 2 and 4 bytes are unsigned, 8 bytes are two's complement.
      node.integer = static_cast<int64_t>(readBigEndian(p + 1, width));
    } else {
      uint64_t high = readBigEndian(p + 1, 8);
      uint64_t low = readBigEndian(p + 9, 8);
      bool fits = (high == 0 && low <= uint64_t(std::numeric_limits<int64_t>::max())) ||
                  (high == ~uint64_t(0) && (low >> 63) == 1);
      if (!fits) return fail("16-byte integer out of the 64-bit range");
      node.integer = static_cast<int64_t>(low);
    }
    node.type = Type::Integer;
    node.flags = BinaryPlist::kParsed;
    return true;
  }

  bool parseReal(Node& node, const uint8_t* p, const uint8_t* end) {
    uint8_t marker = *p;
    bool isDate = (marker >> 4) == 0x3;
    if (isDate ? marker != 0x33 : (marker != 0x22 && marker != 0x23)) {
      return fail("malformed real or date marker");
    }
    unsigned width = marker == 0x22 ? 4 : 8;
    if (static_cast<std::size_t>(end - p - 1) < width) return fail("real beyond the buffer");
    if (!consume(1 + width)) return false;
    uint64_t bits = readBigEndian(p + 1, width);
    if (width == 4) {
      uint32_t narrow = static_cast<uint32_t>(bits);
      float value;
      std::memcpy(&value, &narrow, 4);
      node.real = value;
    } else {
      std::memcpy(&node.real, &bits, 8);
    }
    node.type = isDate ? Type::Date : Type::Real;
    node.flags = BinaryPlist::kParsed;
    return true;
  }

  bool parseBytes(Node& node, const uint8_t* start, const uint8_t* end) {
    unsigned kind = *start >> 4;
    const uint8_t* p = start;
    uint64_t length = 0;
    if (!readLength(p, end, length)) return false;
    uint64_t unit = kind == 0x6 ? 2 : 1;
    if (length > static_cast<uint64_t>(end - p) / unit)
      return fail("string or data beyond the buffer");
    if (length > std::numeric_limits<uint32_t>::max()) return fail("string or data too long");
    if (!consume(static_cast<std::size_t>(p - start + length * unit))) return false;
    node.length = static_cast<uint32_t>(length);
    node.pointer = p;
    if (kind == 0x4) {
      node.type = Type::Data;
    } else if (kind == 0x5) {
      if (!isAscii(p, length)) return fail("ASCII string with a byte above 0x7F");
      node.type = Type::String;
    } else {
      std::string& arena = plist_.arena_;
      std::size_t at = arena.size();
      appendUtf16AsUtf8(arena, p, length);
      node.type = Type::String;
      node.offset = at;
      node.length = static_cast<uint32_t>(arena.size() - at);
      node.flags |= BinaryPlist::kInArena;
      if (!isAscii(reinterpret_cast<const uint8_t*>(arena.data()) + at, node.length)) {
        node.flags |= BinaryPlist::kNonAscii;
      }
    }
    node.flags |= BinaryPlist::kParsed;
    return true;
  }

  bool parseUid(Node& node, const uint8_t* p, const uint8_t* end) {
    unsigned width = (*p & 0x0F) + 1;
    if (width > 8) return fail("UID wider than 8 bytes");
    if (static_cast<std::size_t>(end - p - 1) < width) return fail("UID beyond the buffer");
    if (!consume(1 + width)) return false;
    uint64_t value = readBigEndian(p + 1, width);
    if (value > BinaryPlist::kMaxUid) return fail("UID above 2^32-1");
    node.type = Type::Uid;
    node.integer = static_cast<int64_t>(value);
    node.flags = BinaryPlist::kParsed;
    return true;
  }

  bool parseContainer(Ref ref, Node& node, const uint8_t* start, const uint8_t* end) {
    bool isDictionary = (*start >> 4) == 0xD;
    const uint8_t* p = start;
    uint64_t count = 0;
    if (!readLength(p, end, count)) return false;
    uint64_t slots = isDictionary ? 2 : 1;
    // Every reference takes a byte at least, so once `count` is known to fit
    // the bytes left, the product cannot overflow (and no division is needed).
    auto left = static_cast<uint64_t>(end - p);
    if (count > left || count * slots * refSize_ > left) {
      return fail("container references beyond the buffer");
    }
    if (!consume(static_cast<std::size_t>(p - start + count * slots * refSize_))) return false;
    auto total = static_cast<std::size_t>(count * slots);
    Ref* out = claimRefs(total);
    node.type = isDictionary ? Type::Dictionary : Type::Array;
    node.length = static_cast<uint32_t>(count);
    node.offset = static_cast<uint64_t>(out - plist_.refs_.data());
    node.flags = BinaryPlist::kParsed;
    std::size_t keys = isDictionary ? node.length : 0;
    switch (refSize_) {
      case 1:
        return readContainerRefs<1>(ref, node, p, total, keys, out);
      case 2:
        return readContainerRefs<2>(ref, node, p, total, keys, out);
      case 3:
        return readContainerRefs<3>(ref, node, p, total, keys, out);
      case 4:
        return readContainerRefs<4>(ref, node, p, total, keys, out);
      default:
        return readContainerRefs<0>(ref, node, p, total, keys, out);
    }
  }

  // Room for `count` more references in the plist's table. The table grows
  // by doubling: resizing it per container would cost a check and a fill for
  // each of them.
  Ref* claimRefs(std::size_t count) {
    std::vector<Ref>& refs = plist_.refs_;
    if (refsUsed_ + count > refs.size()) refs.resize(std::max(refs.size() * 2, refsUsed_ + count));
    Ref* claimed = refs.data() + refsUsed_;
    refsUsed_ += count;
    return claimed;
  }

  // Reads a container's references (Width bytes each, 0 for any other width)
  // and, while every element seen comes before the container and so is
  // parsed already, checks its keys are strings and works out its height.
  // (Members are copied to locals: stores through `out` could otherwise alias
  // them and force a reload on every reference.)
  template <unsigned Width>
  bool readContainerRefs(Ref ref, Node& node, const uint8_t* p, std::size_t total, std::size_t keys,
                         Ref* out) {
    const Node* nodes = plist_.nodes_.data();
    const uint64_t objectCount = objectCount_;
    const unsigned refSize = refSize_;
    uint64_t largest = 0;
    for (std::size_t i = 0; i < total; ++i) {
      uint64_t element = readReference<Width>(p, i, refSize);
      largest = element > largest ? element : largest;
      out[i] = static_cast<Ref>(element);
    }
    if (largest >= objectCount) return fail("object reference beyond the object table");
    if (!backwardOnly_) return true;
    if (total > 0 && largest >= ref) {
      backwardOnly_ = false;
      return true;
    }
    uint16_t highest = 0;
    for (std::size_t i = 0; i < keys; ++i) {
      if (nodes[out[i]].type != Type::String) return fail("dictionary key is not a string");
    }
    for (std::size_t i = keys; i < total; ++i) {
      uint16_t height = nodes[out[i]].height;
      highest = height > highest ? height : highest;
    }
    if (highest > BinaryPlist::kMaxDepth) return fail("containers nested too deeply");
    node.height = static_cast<uint16_t>(highest + 1);
    return true;
  }

  template <unsigned Width>
  static uint64_t readReference(const uint8_t* p, std::size_t i, unsigned refSize) {
    if constexpr (Width == 1) {
      return p[i];
    } else if constexpr (Width == 2) {
      return uint64_t(p[2 * i]) << 8 | p[2 * i + 1];
    } else if constexpr (Width == 3) {
      return uint64_t(p[3 * i]) << 16 | uint64_t(p[3 * i + 1]) << 8 | p[3 * i + 2];
    } else if constexpr (Width == 4) {
      uint32_t v;
      std::memcpy(&v, p + 4 * i, 4);
      return __builtin_bswap32(v);
    } else {
      return readBigEndian(p + i * refSize, refSize);
    }
  }

  static bool isContainer(const Node& node) {
    return node.type == Type::Array || node.type == Type::Dictionary;
  }

  // Walks the values reachable from the top without recursion: refuses a
  // container that contains itself, nesting deeper than kMaxDepth and
  // dictionary keys that are not strings.
  bool checkGraph() {
    auto& nodes = plist_.nodes_;
    const Ref* refs = plist_.refs_.data();
    constexpr uint8_t kOnPath = BinaryPlist::kParsing;
    constexpr uint8_t kDone = BinaryPlist::kChecked;
    struct Step {
      Ref container;
      std::size_t next;
    };
    std::vector<Step> path;
    Ref top = plist_.top_;
    if (!isContainer(nodes[top])) return true;
    nodes[top].flags |= kOnPath;
    path.push_back({top, 0});
    while (!path.empty()) {
      Step& step = path.back();
      Node& container = nodes[step.container];
      std::size_t total = BinaryPlist::referenceCount(container);
      if (step.next == total) {
        container.flags = static_cast<uint8_t>((container.flags & ~kOnPath) | kDone);
        path.pop_back();
        continue;
      }
      std::size_t index = step.next++;
      Ref child = refs[container.offset + index];
      Node& node = nodes[child];
      if (container.type == Type::Dictionary && index < container.length &&
          node.type != Type::String) {
        return fail("dictionary key is not a string");
      }
      if (!isContainer(node) || (node.flags & kDone)) continue;
      if (node.flags & kOnPath) return fail("object ", child, " contains itself");
      if (path.size() > BinaryPlist::kMaxDepth) return fail("containers nested too deeply");
      node.flags |= kOnPath;
      path.push_back({child, 0});  // `step` and `container` are not used past this point
    }
    return true;
  }

  BinaryPlist& plist_;
  const uint8_t* bytes_;
  std::size_t size_;
  std::string& why_;
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  uint64_t objectCount_ = 0;
  uint64_t top_ = 0;
  uint64_t tableOffset_ = 0;
  uint64_t consumed_ = 0;
  std::size_t refsUsed_ = 0;
  bool backwardOnly_ = true;
};

std::optional<BinaryPlist> BinaryPlist::parse(std::span<const uint8_t> bytes, std::string* why) {
  BinaryPlist plist;
  if (!plist.read(bytes, why)) return std::nullopt;
  return plist;
}

bool BinaryPlist::read(std::span<const uint8_t> bytes, std::string* why) {
  clear();
  std::string reason;
  BinaryPlistParser parser(*this, bytes, reason);
  if (parser.run()) return true;
  clear();
  if (why) *why = std::move(reason);
  return false;
}

void BinaryPlist::clear() {
  nodes_.clear();
  refs_.clear();
  arena_.clear();
  top_ = 0;
  fixedBytes_ = 0;
  refCount_ = 0;
  counted_ = true;
  if (stringCount_ > 0) std::fill(stringTable_.begin(), stringTable_.end(), kNoRef);
  stringCount_ = 0;
  boolRefs_[0] = boolRefs_[1] = kNoRef;
  std::fill(std::begin(recentIntegers_), std::end(recentIntegers_), kNoRef);
}

std::size_t BinaryPlist::memoryUse() const {
  return nodes_.capacity() * sizeof(Node) + refs_.capacity() * sizeof(Ref) + arena_.capacity() +
         stringTable_.capacity() * sizeof(Ref);
}

std::string_view BinaryPlist::string(Ref ref) const {
  const Node& node = nodes_[ref];
  return {reinterpret_cast<const char*>(bytesOf(node)), node.length};
}

std::span<const uint8_t> BinaryPlist::data(Ref ref) const {
  const Node& node = nodes_[ref];
  return {bytesOf(node), node.length};
}

BinaryPlist::Ref BinaryPlist::lookup(Ref dictionary, std::string_view key, Ref* keyFound) const {
  const Node& dict = nodes_[dictionary];
  const Ref* keys = refs_.data() + dict.offset;
  for (std::size_t i = 0; i < dict.length; ++i) {
    const Node& k = nodes_[keys[i]];
    if (k.length == key.size() &&
        sameBytes(reinterpret_cast<const char*>(bytesOf(k)), key.data(), key.size())) {
      if (keyFound) *keyFound = keys[i];
      return keys[dict.length + i];
    }
  }
  return kNoRef;
}

bool BinaryPlist::textEquals(Ref string, std::string_view text) const {
  const Node& node = nodes_[string];
  return node.length == text.size() &&
         sameBytes(reinterpret_cast<const char*>(bytesOf(node)), text.data(), text.size());
}

// ---------------------------------------------------------------------------
// Building

uint64_t BinaryPlist::fixedSize(const Node& node, std::string_view text) {
  switch (node.type) {
    case Type::Null:
    case Type::Bool:
      return 1;
    case Type::Integer:
      return 1 + integerWidth(node.integer);
    case Type::Real:
    case Type::Date:
      return 9;
    case Type::Uid:
      return 1 + widthFor(static_cast<uint64_t>(node.integer));
    case Type::Data:
      return lengthHeaderSize(node.length) + node.length;
    case Type::String:
      if (node.flags & kNonAscii) {
        uint64_t units = utf16Units(text);
        return lengthHeaderSize(units) + 2 * units;
      }
      return lengthHeaderSize(node.length) + node.length;
    case Type::Array:
    case Type::Dictionary:
      return lengthHeaderSize(node.length);
  }
  return 0;
}

uint64_t BinaryPlist::referenceCount(const Node& node) {
  if (node.type == Type::Array) return node.length;
  if (node.type == Type::Dictionary) return 2 * uint64_t(node.length);
  return 0;
}

void BinaryPlist::count(const Node& node) {
  fixedBytes_ += fixedSize(node, {reinterpret_cast<const char*>(bytesOf(node)), node.length});
  refCount_ += referenceCount(node);
}

BinaryPlist::Node& BinaryPlist::push(Type type, Ref& ref) {
  ref = static_cast<Ref>(nodes_.size());
  Node& node = nodes_.emplace_back();
  node.type = type;
  return node;
}

void BinaryPlist::reserve(std::size_t values, std::size_t references, std::size_t bytes) {
  nodes_.reserve(values);
  refs_.reserve(references);
  arena_.reserve(bytes);
}

BinaryPlist::Ref BinaryPlist::addNull() {
  Ref ref;
  push(Type::Null, ref);
  fixedBytes_ += 1;
  return ref;
}

BinaryPlist::Ref BinaryPlist::addBool(bool value) {
  Ref& shared = boolRefs_[value ? 1 : 0];
  if (shared == kNoRef) {
    push(Type::Bool, shared).integer = value ? 1 : 0;
    fixedBytes_ += 1;
  }
  return shared;
}

BinaryPlist::Ref BinaryPlist::addInteger(int64_t value) {
  // Recent values are shared: a length or a device number that recurs in
  // every record of an archive is written once.
  static_assert(sizeof(recentIntegers_) / sizeof(Ref) == kRecentIntegers);
  Ref& recent = recentIntegers_[recentIntegerSlot(value)];
  if (recent != kNoRef && nodes_[recent].integer == value) return recent;
  Ref ref;
  push(Type::Integer, ref).integer = value;
  fixedBytes_ += 1 + integerWidth(value);
  recent = ref;
  return ref;
}

BinaryPlist::Ref BinaryPlist::addReal(double value) {
  Ref ref;
  push(Type::Real, ref).real = value;
  fixedBytes_ += 9;
  return ref;
}

BinaryPlist::Ref BinaryPlist::addDate(double secondsSince2001) {
  Ref ref;
  push(Type::Date, ref).real = secondsSince2001;
  fixedBytes_ += 9;
  return ref;
}

BinaryPlist::Ref BinaryPlist::addData(std::span<const uint8_t> bytes) {
  Ref ref;
  Node& node = push(Type::Data, ref);
  node.flags = kInArena;
  node.length = static_cast<uint32_t>(bytes.size());
  node.offset = arena_.size();
  arena_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  fixedBytes_ += lengthHeaderSize(bytes.size()) + bytes.size();
  return ref;
}

BinaryPlist::Ref BinaryPlist::findAscii(std::string_view text) const {
  if (stringTable_.empty()) return kNoRef;
  std::size_t mask = stringTable_.size() - 1;
  for (std::size_t i = hashBytes(text) & mask;; i = (i + 1) & mask) {
    Ref ref = stringTable_[i];
    if (ref == kNoRef) return kNoRef;
    const Node& node = nodes_[ref];
    if (node.length == text.size() &&
        sameBytes(reinterpret_cast<const char*>(bytesOf(node)), text.data(), text.size())) {
      return ref;
    }
  }
}

void BinaryPlist::remember(Ref ref) {
  // Keep the table at most half full.
  if ((stringCount_ + 1) * 2 > stringTable_.size()) {
    std::vector<Ref> old = std::move(stringTable_);
    stringTable_.assign(old.empty() ? 64 : old.size() * 2, kNoRef);
    stringCount_ = 0;
    for (Ref r : old) {
      if (r != kNoRef) remember(r);
    }
  }
  std::size_t mask = stringTable_.size() - 1;
  std::size_t i = hashBytes(string(ref)) & mask;
  while (stringTable_[i] != kNoRef) i = (i + 1) & mask;
  stringTable_[i] = ref;
  ++stringCount_;
}

BinaryPlist::Ref BinaryPlist::addString(std::string_view utf8) {
  bool ascii = isAscii(reinterpret_cast<const uint8_t*>(utf8.data()), utf8.size());
  if (ascii) {
    Ref found = findAscii(utf8);
    if (found != kNoRef) return found;
  }
  Ref ref = appendString(utf8, ascii);
  if (ascii) remember(ref);
  return ref;
}

BinaryPlist::Ref BinaryPlist::addUnsharedString(std::string_view utf8) {
  return appendString(utf8, isAscii(reinterpret_cast<const uint8_t*>(utf8.data()), utf8.size()));
}

BinaryPlist::Ref BinaryPlist::appendString(std::string_view utf8, bool ascii) {
  Ref ref;
  Node& node = push(Type::String, ref);
  node.flags = kInArena | (ascii ? 0 : kNonAscii);
  node.length = static_cast<uint32_t>(utf8.size());
  node.offset = arena_.size();
  arena_.append(utf8);
  count(nodes_[ref]);
  return ref;
}

BinaryPlist::Ref BinaryPlist::addUid(uint32_t value) {
  Ref ref;
  push(Type::Uid, ref).integer = value;
  fixedBytes_ += 1 + widthFor(value);
  return ref;
}

BinaryPlist::Ref BinaryPlist::addArray(std::span<const Ref> elements) {
  Ref ref;
  Node& node = push(Type::Array, ref);
  node.length = static_cast<uint32_t>(elements.size());
  node.offset = refs_.size();
  refs_.insert(refs_.end(), elements.begin(), elements.end());
  fixedBytes_ += lengthHeaderSize(elements.size());
  refCount_ += elements.size();
  return ref;
}

BinaryPlist::Ref BinaryPlist::addDictionary(std::span<const Ref> keys,
                                            std::span<const Ref> values) {
  Ref ref;
  Node& node = push(Type::Dictionary, ref);
  node.length = static_cast<uint32_t>(keys.size());
  node.offset = refs_.size();
  refs_.insert(refs_.end(), keys.begin(), keys.end());
  refs_.insert(refs_.end(), values.begin(), values.end());
  fixedBytes_ += lengthHeaderSize(keys.size());
  refCount_ += 2 * keys.size();
  return ref;
}

BinaryPlist::Ref BinaryPlist::addDictionaryOfPairs(std::span<const Ref> keysAndValues) {
  std::size_t pairs = keysAndValues.size() / 2;
  std::size_t first = refs_.size();
  // Appended rather than resized and overwritten: a record's few references
  // cost less to push than the zero fill of a resize costs to call.
  if (refs_.capacity() < first + 2 * pairs) refs_.reserve(std::max(first + 2 * pairs, 2 * first));
  for (std::size_t i = 0; i < pairs; ++i) refs_.push_back(keysAndValues[2 * i]);
  for (std::size_t i = 0; i < pairs; ++i) refs_.push_back(keysAndValues[2 * i + 1]);
  Ref ref;
  Node& node = push(Type::Dictionary, ref);
  node.length = static_cast<uint32_t>(pairs);
  node.offset = first;
  fixedBytes_ += lengthHeaderSize(pairs);
  refCount_ += 2 * pairs;
  return ref;
}

// ---------------------------------------------------------------------------
// Writing

class BinaryPlistWriter {
 public:
  explicit BinaryPlistWriter(const BinaryPlist& plist) : plist_(plist) {}

  // One pass: the size of everything is known before writing (the builder
  // keeps count), so each object is written straight to its place and its
  // offset straight into the table.
  std::vector<uint8_t> write(BinaryPlist::Ref top) {
    const auto& nodes = plist_.nodes_;
    std::size_t count = nodes.size();
    refSize_ = tableWidthFor(count - 1);
    uint64_t fixedBytes = plist_.fixedBytes_;
    uint64_t references = plist_.refCount_;
    if (!plist_.counted_) {
      fixedBytes = references = 0;
      for (const auto& node : nodes) {
        fixedBytes += BinaryPlist::fixedSize(node, text(node));
        references += BinaryPlist::referenceCount(node);
      }
    }
    uint64_t tableOffset = kHeaderSize + fixedBytes + references * refSize_;
    unsigned offsetSize = tableWidthFor(tableOffset);
    std::vector<uint8_t> out(tableOffset + count * offsetSize + kTrailerSize);
    uint8_t* base = out.data();
    std::memcpy(base, kMagic, sizeof kMagic);
    uint8_t* p = base + kHeaderSize;
    uint8_t* table = base + tableOffset;
    for (const auto& node : nodes) {
      table = writeBigEndian(table, static_cast<uint64_t>(p - base), offsetSize);
      p = writeNode(p, node);
    }
    writeTrailer(table, offsetSize, refSize_, count, top, tableOffset);
    return out;
  }

 private:
  using Node = BinaryPlist::Node;
  using Type = BinaryPlist::Type;

  std::string_view text(const Node& node) const {
    return {reinterpret_cast<const char*>(plist_.bytesOf(node)), node.length};
  }

  uint8_t* writeRefs(uint8_t* p, std::size_t first, std::size_t count) const {
    return plistbytes::writeRefs(p, plist_.refs_.data() + first, count, refSize_);
  }

  uint8_t* writeNode(uint8_t* p, const Node& node) const {
    switch (node.type) {
      case Type::Null:
        *p++ = 0x00;
        return p;
      case Type::Bool:
        *p++ = node.integer ? 0x09 : 0x08;
        return p;
      case Type::Integer:
        return writeInteger(p, node.integer);
      case Type::Real:
      case Type::Date: {
        *p++ = node.type == Type::Real ? 0x23 : 0x33;
        uint64_t bits;
        std::memcpy(&bits, &node.real, 8);
        return writeBigEndian(p, bits, 8);
      }
      case Type::Uid:
        return writeUid(p, static_cast<uint64_t>(node.integer));
      case Type::Data:
        p = writeMarker(p, 0x4, node.length);
        if (node.length) std::memcpy(p, plist_.bytesOf(node), node.length);
        return p + node.length;
      case Type::String:
        if (node.flags & BinaryPlist::kNonAscii) {
          p = writeMarker(p, 0x6, utf16Units(text(node)));
          return writeUtf16(p, text(node));
        }
        p = writeMarker(p, 0x5, node.length);
        if (node.length) std::memcpy(p, plist_.bytesOf(node), node.length);
        return p + node.length;
      case Type::Array:
        p = writeMarker(p, 0xA, node.length);
        return writeRefs(p, node.offset, node.length);
      case Type::Dictionary:
        p = writeMarker(p, 0xD, node.length);
        return writeRefs(p, node.offset, 2 * std::size_t(node.length));
    }
    return p;
  }

  const BinaryPlist& plist_;
  unsigned refSize_ = 1;
};

std::vector<uint8_t> BinaryPlist::write(Ref top) const {
  if (nodes_.empty()) {
    // Nothing built: write a plist of one null so the output stays well formed.
    BinaryPlist empty;
    return BinaryPlistWriter(empty).write(empty.addNull());
  }
  return BinaryPlistWriter(*this).write(top);
}

}  // namespace qx
