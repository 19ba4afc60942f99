#include "platform/xpc/XpcFrame.h"

#include <algorithm>
#include <cassert>

namespace qx {

void XpcFrame::writeHeader(uint8_t header[4], uint32_t length) {
  header[0] = static_cast<uint8_t>(length >> 24);
  header[1] = static_cast<uint8_t>(length >> 16);
  header[2] = static_cast<uint8_t>(length >> 8);
  header[3] = static_cast<uint8_t>(length);
}

std::vector<uint8_t> XpcFrame::encode(std::span<const uint8_t> payload) {
  assert(payload.size() <= kMaxFramePayload);
  std::vector<uint8_t> frame(4 + payload.size());
  writeHeader(frame.data(), static_cast<uint32_t>(payload.size()));
  std::copy(payload.begin(), payload.end(), frame.begin() + 4);
  return frame;
}

void XpcFrameReader::append(std::span<const uint8_t> bytes) {
  if (failed_) return;
  if (start_ > 0 && start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

std::optional<std::vector<uint8_t>> XpcFrameReader::next() {
  if (failed_ || buffered() < 4) return std::nullopt;
  const uint8_t* header = buffer_.data() + start_;
  std::size_t length = (std::size_t{header[0]} << 24) | (std::size_t{header[1]} << 16) |
                       (std::size_t{header[2]} << 8) | std::size_t{header[3]};
  if (length > kMaxFramePayload) {
    failed_ = true;
    return std::nullopt;
  }
  if (buffered() - 4 < length) return std::nullopt;
  auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(start_ + 4);
  std::vector<uint8_t> payload(first, first + static_cast<std::ptrdiff_t>(length));
  start_ += 4 + length;
  // Drop consumed bytes once they dominate the buffer, so a long stream of
  // small frames does not grow it.
  if (start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  } else if (start_ > 65536 && start_ * 2 > buffer_.size()) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
  }
  return payload;
}

}  // namespace qx
