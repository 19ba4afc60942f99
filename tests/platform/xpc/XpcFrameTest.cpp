#include <gtest/gtest.h>

#include "platform/xpc/XpcFrame.h"
#include "tests/platform/xpc/XpcTestSupport.h"

namespace qx::xpctest {
namespace {

TEST(XpcFrameReader, CutsAStreamInAnyPiecesAndRefusesLengthsAboveTheLimit) {
  std::vector<uint8_t> stream;
  std::vector<std::vector<uint8_t>> sent = {{}, {1}, std::vector<uint8_t>(70000, 7), {1, 2, 3}};
  for (const auto& payload : sent) {
    auto frame = XpcFrame::encode(payload);
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  EXPECT_EQ(XpcFrame::encode(std::vector<uint8_t>{9, 8}), (std::vector<uint8_t>{0, 0, 0, 2, 9, 8}));
  for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{4096}, stream.size()}) {
    XpcFrameReader reader;
    std::vector<std::vector<uint8_t>> received;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      reader.append({stream.data() + at, std::min(piece, stream.size() - at)});
      while (auto payload = reader.next()) received.push_back(*payload);
    }
    EXPECT_EQ(received, sent) << "pieces of " << piece;
    EXPECT_EQ(reader.buffered(), 0u);
    EXPECT_FALSE(reader.failed());
  }

  XpcFrameReader atLimit;  // exactly 256 MiB: allowed, and incomplete
  atLimit.append(std::vector<uint8_t>{0x10, 0x00, 0x00, 0x00, 1, 2});
  EXPECT_FALSE(atLimit.next() || atLimit.failed());
  EXPECT_EQ(atLimit.buffered(), 6u);
  XpcFrameReader above;
  above.append(std::vector<uint8_t>{0x10, 0x00, 0x00, 0x01});
  EXPECT_FALSE(above.next());
  EXPECT_TRUE(above.failed());
  above.append(std::vector<uint8_t>{0, 0, 0, 0});  // nothing after a broken header counts
  EXPECT_FALSE(above.next());
}

}  // namespace
}  // namespace qx::xpctest
