#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace qx {

// The largest frame payload a peer may send; a longer length is a protocol
// error.
inline constexpr std::size_t kMaxFramePayload = std::size_t{256} << 20;

// A frame is a 4-byte big-endian length followed by that many bytes of keyed
// archive.
class XpcFrame {
 public:
  // The frame around `payload` (which must not exceed kMaxFramePayload).
  static std::vector<uint8_t> encode(std::span<const uint8_t> payload);
  // The 4-byte header for a payload of `length` bytes.
  static void writeHeader(uint8_t header[4], uint32_t length);
};

// Cuts a byte stream into frame payloads. Bytes arrive in pieces of any size;
// memory grows only with bytes actually received, never with a claimed length.
class XpcFrameReader {
 public:
  // Appends received bytes.
  void append(std::span<const uint8_t> bytes);
  // The next complete payload, or nullopt when more bytes are needed or the
  // stream is broken (see failed()).
  std::optional<std::vector<uint8_t>> next();
  // True once a header claimed more than kMaxFramePayload bytes.
  bool failed() const { return failed_; }
  // Bytes received but not yet returned as a payload.
  std::size_t buffered() const { return buffer_.size() - start_; }

 private:
  std::vector<uint8_t> buffer_;
  std::size_t start_ = 0;
  bool failed_ = false;
};

}  // namespace qx
