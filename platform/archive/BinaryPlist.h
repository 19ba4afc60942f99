#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// A binary property list ("bplist00") held as a flat table of values: every
// value is one 16-byte node addressed by a Ref, containers hold Refs of their
// elements, and string and data bytes stay in the parsed buffer or in one arena.
// The same class builds a property list value by value and writes it out.
//
// The codec is hand-written, not taken from libplist, for speed: on the
// message the service sends most, a report of 100 size records (about 300
// archived objects), libplist is roughly eight times slower than this codec
// (bench/compare_codec.cpp builds, writes and reads that report with both and
// prints the ratio), which would add seconds to the sizes of a tree of a
// million files.
//
// Reading is safe on hostile input: the trailer, every offset, every object
// reference and every length is checked against the buffer, a value that
// contains itself is refused, nesting is limited to kMaxDepth and no count is
// trusted before the bytes it needs are known to be there. A parsed plist keeps
// pointers into the buffer it was read from: the buffer must outlive it.
class BinaryPlist {
 public:
  using Ref = uint32_t;
  enum class Type : uint8_t {
    Null,
    Bool,
    Integer,
    Real,
    Date,
    Data,
    String,
    Array,
    Dictionary,
    Uid
  };

  // Containers nested deeper than this are refused.
  static constexpr int kMaxDepth = 512;
  // The largest UID a reader accepts.
  static constexpr uint64_t kMaxUid = 0xffffffffULL;

  BinaryPlist() = default;

  // Reads a binary property list. Nullopt (and `why`, when given, says what was
  // wrong) for anything malformed.
  static std::optional<BinaryPlist> parse(std::span<const uint8_t> bytes,
                                          std::string* why = nullptr);

  // The same into this object, reusing its memory; false (and `why`) for
  // anything malformed, leaving this object empty.
  bool read(std::span<const uint8_t> bytes, std::string* why = nullptr);
  // Forgets every value but keeps the memory for the next use.
  void clear();
  // Bytes held by the tables, for deciding whether to keep this object.
  std::size_t memoryUse() const;

  // The root value of a parsed property list.
  Ref top() const { return top_; }

  // Building. Strings are UTF-8 and written as ASCII when every byte is below
  // 0x80, else as UTF-16BE with each invalid UTF-8 sequence replaced by U+FFFD.
  // Equal ASCII strings and equal booleans share one value, and so do equal
  // integers added close together.
  // Room for this many values, container references and string or data bytes.
  void reserve(std::size_t values, std::size_t references, std::size_t bytes);
  Ref addNull();
  Ref addBool(bool value);
  Ref addInteger(int64_t value);
  Ref addReal(double value);
  Ref addDate(double secondsSince2001);
  Ref addData(std::span<const uint8_t> bytes);
  Ref addString(std::string_view utf8);
  // A string value of its own, neither looked up among nor added to the
  // shared ones: for texts that hardly ever repeat, such as paths.
  Ref addUnsharedString(std::string_view utf8);
  Ref addUid(uint32_t value);
  Ref addArray(std::span<const Ref> elements);
  Ref addDictionary(std::span<const Ref> keys, std::span<const Ref> values);
  // A dictionary from alternating key and value Refs.
  Ref addDictionaryOfPairs(std::span<const Ref> keysAndValues);

  // Serialises every value built so far, with `top` as the root.
  std::vector<uint8_t> write(Ref top) const;

  // Reading values. A Ref must come from this property list, and element,
  // key and value indexes must be below count().
  std::size_t size() const { return nodes_.size(); }
  Type type(Ref ref) const { return nodes_[ref].type; }
  bool boolValue(Ref ref) const { return nodes_[ref].integer != 0; }
  int64_t integer(Ref ref) const { return nodes_[ref].integer; }
  double real(Ref ref) const { return nodes_[ref].real; }
  uint32_t uid(Ref ref) const { return static_cast<uint32_t>(nodes_[ref].integer); }
  // The UTF-8 text of a string (a UTF-16 string is converted when read).
  std::string_view string(Ref ref) const;
  std::span<const uint8_t> data(Ref ref) const;
  // Elements of an array, pairs of a dictionary.
  std::size_t count(Ref ref) const { return nodes_[ref].length; }
  Ref element(Ref array, std::size_t index) const { return refs_[nodes_[array].offset + index]; }
  std::span<const Ref> elements(Ref array) const {
    return {refs_.data() + nodes_[array].offset, nodes_[array].length};
  }
  Ref key(Ref dictionary, std::size_t index) const {
    return refs_[nodes_[dictionary].offset + index];
  }
  Ref value(Ref dictionary, std::size_t index) const {
    return refs_[nodes_[dictionary].offset + nodes_[dictionary].length + index];
  }
  // The value under a string key of a dictionary, or kNoRef; `keyFound`, when
  // given, receives the key's own Ref.
  Ref lookup(Ref dictionary, std::string_view key, Ref* keyFound = nullptr) const;
  // Whether a string value holds exactly `text`.
  bool textEquals(Ref string, std::string_view text) const;
  // The value under the key value `key` itself (a Ref comparison, for keys
  // shared by many dictionaries), or kNoRef.
  Ref lookupByKeyRef(Ref dictionary, Ref key) const {
    const Node& dict = nodes_[dictionary];
    const Ref* keys = refs_.data() + dict.offset;
    for (std::size_t i = 0; i < dict.length; ++i) {
      if (keys[i] == key) return keys[dict.length + i];
    }
    return kNoRef;
  }
  std::optional<Ref> find(Ref dictionary, std::string_view key) const {
    Ref found = lookup(dictionary, key);
    return found == kNoRef ? std::nullopt : std::optional<Ref>(found);
  }

  static constexpr Ref kNoRef = 0xffffffffU;

 private:
  friend class BinaryPlistParser;
  friend class BinaryPlistWriter;

  enum Flags : uint8_t {
    kInArena = 1,   // bytes live in arena_ at `offset`, else at `pointer`
    kNonAscii = 2,  // a built string that is written as UTF-16
    kParsing = 4,   // a container on the path being checked
    kParsed = 8,
    kChecked = 16,  // a container whose contents have been checked
  };

  struct Node {
    Type type = Type::Null;
    uint8_t flags = 0;
    uint16_t height = 0;  // of a parsed container: the containers in its longest chain
    uint32_t length = 0;  // bytes of a string or data, elements of an array, pairs of a dictionary
    union {
      int64_t integer = 0;  // integers, booleans, UIDs
      double real;          // reals and dates
      uint64_t offset;      // into arena_ (bytes) or refs_ (containers)
      const uint8_t* pointer;
    };
  };
  static_assert(sizeof(Node) == 16);

  // A new node at the end of the table, for the caller to fill in.
  Node& push(Type type, Ref& ref);
  const uint8_t* bytesOf(const Node& node) const {
    return (node.flags & kInArena) ? reinterpret_cast<const uint8_t*>(arena_.data()) + node.offset
                                   : node.pointer;
  }
  Ref findAscii(std::string_view text) const;
  Ref appendString(std::string_view utf8, bool ascii);
  // What a node takes in the written plist besides its references, and how
  // many references it has; the builder keeps the totals as it goes.
  static uint64_t fixedSize(const Node& node, std::string_view text);
  static uint64_t referenceCount(const Node& node);
  void count(const Node& node);
  void remember(Ref asciiString);

  std::vector<Node> nodes_;
  std::vector<Ref> refs_;
  std::string arena_;
  Ref top_ = 0;
  uint64_t fixedBytes_ = 0;
  uint64_t refCount_ = 0;
  bool counted_ = true;  // false for a parsed plist
  // Builder state: an open-addressing table of ASCII string Refs, and the
  // shared booleans.
  std::vector<Ref> stringTable_;
  std::size_t stringCount_ = 0;
  Ref boolRefs_[2] = {kNoRef, kNoRef};
  // Recently added integers, by a hash of their value.
  Ref recentIntegers_[32] = {kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef,
                             kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef,
                             kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef,
                             kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef, kNoRef};
};

}  // namespace qx
