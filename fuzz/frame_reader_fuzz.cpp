// Hostile input for the framing of a connection's byte stream. The first
// input byte picks how the rest, the stream, is cut into the pieces that
// reads deliver; every piece is appended and the payloads are taken as the
// connection takes them. The payloads, the broken-stream verdict and the
// bytes left over must be those of a plain parse of the whole stream.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <vector>

#include "platform/xpc/XpcFrame.h"

using namespace qx;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

struct Parse {
  std::vector<std::vector<uint8_t>> payloads;
  bool failed = false;
  std::size_t left = 0;
};

// The stream read in one go: length, payload, length, payload...
Parse parseWhole(std::span<const uint8_t> stream) {
  Parse parse;
  std::size_t at = 0;
  while (stream.size() - at >= 4) {
    std::size_t length = std::size_t{stream[at]} << 24 | std::size_t{stream[at + 1]} << 16 |
                         std::size_t{stream[at + 2]} << 8 | std::size_t{stream[at + 3]};
    if (length > kMaxFramePayload) {
      parse.failed = true;
      break;
    }
    if (stream.size() - at - 4 < length) break;
    parse.payloads.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(at + 4),
                                stream.begin() + static_cast<std::ptrdiff_t>(at + 4 + length));
    at += 4 + length;
  }
  parse.left = stream.size() - at;
  return parse;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::span<const uint8_t> stream(data + 1, size - 1);
  const Parse expected = parseWhole(stream);

  // Piece sizes from a small generator seeded by the first byte: single
  // bytes, odd sizes that split headers, and large reads.
  uint32_t state = data[0] * 2654435761u + 1;
  XpcFrameReader reader;
  std::size_t taken = 0;
  for (std::size_t at = 0; at < stream.size();) {
    state = state * 1103515245u + 12345u;
    std::size_t piece = (state >> 16) % 4 == 0 ? 1 + (state >> 8) % 65536 : 1 + (state >> 16) % 13;
    piece = std::min(piece, stream.size() - at);
    reader.append(stream.subspan(at, piece));
    at += piece;
    while (std::optional<std::vector<uint8_t>> payload = reader.next()) {
      check(taken < expected.payloads.size() && *payload == expected.payloads[taken]);
      ++taken;
    }
  }
  check(taken == expected.payloads.size());
  check(reader.failed() == expected.failed);
  if (!expected.failed) check(reader.buffered() == expected.left);
  return 0;
}
