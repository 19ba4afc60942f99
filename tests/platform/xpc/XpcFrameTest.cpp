// Frames: a big-endian length before each payload. How a stream cut in any
// pieces reads back is the frame_reader fuzz target's check, replayed on its
// seeds by the suite.
#include <gtest/gtest.h>

#include "platform/xpc/XpcFrame.h"

namespace qx {
namespace {

TEST(XpcFrameReader, LengthsAreBigEndianAndRefusedAboveTheLimit) {
  EXPECT_EQ(XpcFrame::encode(std::vector<uint8_t>{9, 8}), (std::vector<uint8_t>{0, 0, 0, 2, 9, 8}));
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
}  // namespace qx
