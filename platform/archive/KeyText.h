#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace qx {

// The keyed coders are written by hand, not on a plist library, for speed
// (see BinaryPlist.h): every key of every object of a message is looked up,
// and this is what makes a repeated key cost a few instructions.
//
// A key text as the keyed coders remember it between calls: its address, its
// length and a digest of its bytes. Keys are nearly always literals, so a key
// at the remembered address with the same length is nearly always the same
// key; the digest confirms it in a few instructions without reaching the
// property list's copy. The digest holds every byte of a key of up to 16
// bytes (two overlapping words); a longer key is confirmed in full by the
// caller.
class KeyText {
 public:
  static constexpr std::size_t kDigestBytes = 16;

  KeyText() = default;
  explicit KeyText(std::string_view key)
      : text_(key.data()), length_(key.size()), digest_(digestOf(key)) {}

  bool empty() const { return text_ == nullptr; }
  bool sameAddress(std::string_view key) const {
    return text_ == key.data() && length_ == key.size();
  }
  // Whether `key`, at the remembered address, holds the remembered text: true
  // means equal for keys of up to kDigestBytes, possibly equal beyond.
  bool sameDigest(std::string_view key) const {
    Digest now = digestOf(key);
    return now.first == digest_.first && now.last == digest_.last;
  }
  bool complete() const { return length_ <= kDigestBytes; }

 private:
  struct Digest {
    uint64_t first = 0;
    uint64_t last = 0;
  };

  static uint64_t load(const char* p, std::size_t n) {
    uint64_t v = 0;
    std::memcpy(&v, p, n);
    return v;
  }

  static Digest digestOf(std::string_view key) {
    const char* p = key.data();
    std::size_t n = key.size();
    if (n >= 8) return {load(p, 8), load(p + n - 8, 8)};
    if (n >= 4) return {load(p, 4), load(p + n - 4, 4)};
    uint64_t small = 0;
    for (std::size_t i = 0; i < n; ++i) small = small << 8 | static_cast<unsigned char>(p[i]);
    return {small, 0};
  }

  const char* text_ = nullptr;
  std::size_t length_ = 0;
  Digest digest_;
};

}  // namespace qx
