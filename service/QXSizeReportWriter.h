#pragma once

#include <cstdint>
#include <vector>

#include "sizes/QXSizeUpdate.h"

namespace qx {
class KeyedArchiveWriter;
}

// Writes the size report, the message the service sends most (one per 100
// items of a size calculation), straight from the update records.
//
// Hand-written for speed: archiving the report as objects builds an array,
// a dictionary per record and its keys, then looks every object up by
// identity while it is written, and holds the property list in a table
// before laying it out; that was most of the cost of a report. This writer
// makes the same archive (the same bytes, which the tests check against
// archiving QXClientCallbacks::wireRecords) with no objects in between,
// straight to its bytes (KeyedArchiveWriter).
class QXSizeReportWriter {
 public:
  QXSizeReportWriter() = delete;

  // The payload of the invocation `selector` (updateFileSizes:reply:)
  // carrying `updates`, as XpcMessage::invocation(selector,
  // {QXClientCallbacks::wireRecords(updates)}, sequence).encode() makes it.
  static std::vector<uint8_t> invocation(std::string_view selector, const QXSizeUpdates& updates,
                                         uint64_t sequence);
  // Writes the records as the array wireRecords makes; answers its UID.
  static uint32_t writeRecords(qx::KeyedArchiveWriter& coder, const QXSizeUpdates& updates);
};
