// A worker source that reaches for the connection layer. The layering tests
// expect both halves of the worker rule to refuse it.
#include <cstdint>

#include "platform/xpc/XpcFrame.h"

int workerUsingXpc() {
  uint8_t header[4];
  qx::XpcFrame::writeHeader(header, 1);
  return header[3];
}
