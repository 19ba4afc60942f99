#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// How the binary plist writers lay out values: the shared pieces of
// BinaryPlist's writer and BinaryPlistStream, which must make the same bytes
// for the same values.
namespace qx::plistbytes {

constexpr uint8_t kMagic[8] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
constexpr char32_t kReplacement = 0xFFFD;

// Big-endian integers of 1 to 8 bytes. The widths that writers use (1, 2, 4
// and 8) take one load or store each: these run once per reference.
inline uint64_t readBigEndian(const uint8_t* p, unsigned width) {
  switch (width) {
    case 1:
      return p[0];
    case 2:
      return uint64_t(p[0]) << 8 | p[1];
    case 4: {
      uint32_t v;
      std::memcpy(&v, p, 4);
      return __builtin_bswap32(v);
    }
    case 8: {
      uint64_t v;
      std::memcpy(&v, p, 8);
      return __builtin_bswap64(v);
    }
    default: {
      uint64_t value = 0;
      for (unsigned i = 0; i < width; ++i) value = (value << 8) | p[i];
      return value;
    }
  }
}

// Big-endian integers of 1 to 8 bytes; the usual widths take one store.
inline uint8_t* writeBigEndian(uint8_t* p, uint64_t value, unsigned width) {
  switch (width) {
    case 1:
      p[0] = static_cast<uint8_t>(value);
      return p + 1;
    case 2:
      p[0] = static_cast<uint8_t>(value >> 8);
      p[1] = static_cast<uint8_t>(value);
      return p + 2;
    case 3:
      p[0] = static_cast<uint8_t>(value >> 16);
      p[1] = static_cast<uint8_t>(value >> 8);
      p[2] = static_cast<uint8_t>(value);
      return p + 3;
    case 4: {
      uint32_t v = __builtin_bswap32(static_cast<uint32_t>(value));
      std::memcpy(p, &v, 4);
      return p + 4;
    }
    case 8: {
      uint64_t v = __builtin_bswap64(value);
      std::memcpy(p, &v, 8);
      return p + 8;
    }
    default:
      for (unsigned i = width; i-- > 0;) {
        p[i] = static_cast<uint8_t>(value);
        value >>= 8;
      }
      return p + width;
  }
}

// The 32-byte trailer: six unused bytes, the offset and reference widths, the
// object count, the top object and where the offset table starts.
inline uint8_t* writeTrailer(uint8_t* p, unsigned offsetWidth, unsigned refWidth, uint64_t count,
                             uint64_t top, uint64_t tableOffset) {
  std::memset(p, 0, 6);
  p[6] = static_cast<uint8_t>(offsetWidth);
  p[7] = static_cast<uint8_t>(refWidth);
  writeBigEndian(p + 8, count, 8);
  writeBigEndian(p + 16, top, 8);
  writeBigEndian(p + 24, tableOffset, 8);
  return p + kTrailerSize;
}

template <unsigned Width>
uint8_t* writeRefsOf(uint8_t* p, const uint32_t* refs, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) p = writeBigEndian(p, refs[i], Width);
  return p;
}

// `count` object references of `width` bytes each (1 to 4).
inline uint8_t* writeRefs(uint8_t* p, const uint32_t* refs, std::size_t count, unsigned width) {
  switch (width) {
    case 1:
      return writeRefsOf<1>(p, refs, count);
    case 2:
      return writeRefsOf<2>(p, refs, count);
    case 3:
      return writeRefsOf<3>(p, refs, count);
    default:
      return writeRefsOf<4>(p, refs, count);
  }
}

// The width of an integer or UID that holds `largest`.
inline unsigned widthFor(uint64_t largest) {
  if (largest <= 0xff) return 1;
  if (largest <= 0xffff) return 2;
  if (largest <= 0xffffffffULL) return 4;
  return 8;
}

// The width of the offsets and object references of a table whose largest is
// `largest`: any number of bytes will do, and 3 keeps archives of up to 16M
// objects or bytes a quarter smaller than 4 would.
inline unsigned tableWidthFor(uint64_t largest) {
  unsigned width = 1;
  while (width < 8 && (largest >> (8 * width)) != 0) ++width;
  return width;
}

inline unsigned integerWidth(int64_t value) {
  if (value < 0) return 8;
  return widthFor(static_cast<uint64_t>(value));
}

inline uint64_t lengthHeaderSize(uint64_t length) {
  return length < 15 ? 1 : 2 + integerWidth(static_cast<int64_t>(length));
}

inline uint8_t* writeInteger(uint8_t* p, int64_t value) {
  unsigned width = integerWidth(value);
  *p++ = static_cast<uint8_t>(0x10 | (width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3));
  return writeBigEndian(p, static_cast<uint64_t>(value), width);
}

// The marker of a value of `kind` (string, data, array, ...) and `length`.
inline uint8_t* writeMarker(uint8_t* p, uint8_t kind, uint64_t length) {
  if (length < 15) {
    *p++ = static_cast<uint8_t>(kind << 4 | length);
    return p;
  }
  *p++ = static_cast<uint8_t>(kind << 4 | 0x0F);
  return writeInteger(p, static_cast<int64_t>(length));
}

inline uint8_t* writeUid(uint8_t* p, uint64_t value) {
  unsigned width = widthFor(value);
  *p++ = static_cast<uint8_t>(0x80 | (width - 1));
  return writeBigEndian(p, value, width);
}

inline bool isAscii(const uint8_t* p, std::size_t length) {
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

// Calls `emit` with each code point of `text`, replacing each maximal invalid
// subsequence (a bad lead byte, or a lead byte with the valid continuation
// bytes that follow it) with U+FFFD.
template <class Emit>
void forEachCodePoint(std::string_view text, Emit&& emit) {
  auto* p = reinterpret_cast<const uint8_t*>(text.data());
  std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    uint8_t lead = p[i];
    if (lead < 0x80) {
      emit(char32_t(lead));
      ++i;
      continue;
    }
    unsigned need;
    char32_t cp;
    uint8_t low = 0x80, high = 0xBF;  // range of the first continuation byte
    if (lead >= 0xC2 && lead <= 0xDF) {
      need = 1, cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      need = 2, cp = lead & 0x0F;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;  // no UTF-16 surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      need = 3, cp = lead & 0x07;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    } else {
      emit(kReplacement);
      ++i;
      continue;
    }
    std::size_t j = i + 1;
    bool valid = true;
    for (unsigned k = 0; k < need; ++k, ++j) {
      uint8_t lo = k == 0 ? low : 0x80;
      uint8_t hi = k == 0 ? high : 0xBF;
      if (j >= n || p[j] < lo || p[j] > hi) {
        valid = false;
        break;
      }
      cp = (cp << 6) | (p[j] & 0x3F);
    }
    emit(valid ? cp : kReplacement);
    i = j;
  }
}

inline std::size_t utf16Units(std::string_view text) {
  std::size_t units = 0;
  forEachCodePoint(text, [&](char32_t cp) { units += cp >= 0x10000 ? 2 : 1; });
  return units;
}

inline uint8_t* writeUtf16(uint8_t* out, std::string_view text) {
  forEachCodePoint(text, [&](char32_t cp) {
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out = writeBigEndian(out, 0xD800 + (cp >> 10), 2);
      out = writeBigEndian(out, 0xDC00 + (cp & 0x3FF), 2);
    } else {
      out = writeBigEndian(out, cp, 2);
    }
  });
  return out;
}

// The bytes of a string value of `utf8`: ASCII as it is, anything else as
// UTF-16BE.
inline uint64_t stringSize(std::string_view utf8, bool ascii) {
  if (ascii) return lengthHeaderSize(utf8.size()) + utf8.size();
  uint64_t units = utf16Units(utf8);
  return lengthHeaderSize(units) + 2 * units;
}

inline uint8_t* writeString(uint8_t* p, std::string_view utf8, bool ascii) {
  if (!ascii) {
    p = writeMarker(p, 0x6, utf16Units(utf8));
    return writeUtf16(p, utf8);
  }
  p = writeMarker(p, 0x5, utf8.size());
  if (!utf8.empty()) std::memcpy(p, utf8.data(), utf8.size());
  return p + utf8.size();
}

inline uint64_t load64(const char* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

inline uint32_t load32(const char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// The hash of a text that the builders' tables of shared strings use.
inline std::size_t hashBytes(std::string_view text) {
  const char* p = text.data();
  std::size_t n = text.size();
  uint64_t h = (n + 1) * 0x9E3779B97F4A7C15ULL;
  if (n >= 8) {
    for (std::size_t i = 0; i + 8 <= n; i += 8) h = (h ^ load64(p + i)) * 0xff51afd7ed558ccdULL;
    h ^= load64(p + n - 8);  // the last 8 bytes, overlapping
  } else if (n >= 4) {
    h ^= (uint64_t(load32(p)) << 32) | load32(p + n - 4);
  } else {
    for (std::size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(p[i])) << 8 | (h >> 56);
  }
  h *= 0xc4ceb9fe1a85ec53ULL;
  return static_cast<std::size_t>(h ^ (h >> 32));
}

// Integers added close together are shared by the builders: a value is
// remembered in one of kRecentIntegers slots, picked by this, until another
// value takes the slot.
constexpr std::size_t kRecentIntegers = 32;
inline std::size_t recentIntegerSlot(int64_t value) {
  return static_cast<std::size_t>(static_cast<uint64_t>(value) * 0x9E3779B97F4A7C15ULL >> 59);
}

}  // namespace qx::plistbytes
