// The size report written from plain values must be the archive that
// archiving its objects makes, byte for byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "model/ModelClasses.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcMessage.h"
#include "service/QXClientCallbacks.h"
#include "service/QXSizeReportWriter.h"

namespace {

struct Shape {
  const char* name;
  QXSizeUpdates updates;
};

QXSizeUpdate update(std::vector<uint64_t> path, int64_t size, bool busy) {
  auto item = QXFileSizeItem::make(size);
  item->setBusy(busy);
  return {qx::IndexPath::make(path), std::move(item)};
}

std::vector<Shape> shapes() {
  std::vector<Shape> all;
  all.push_back({"empty", {}});
  all.push_back({"one", {update({0, 1}, 4096, true)}});
  QXSizeUpdates hundred;
  for (uint64_t i = 0; i < 100; ++i)
    hundred.push_back(update({0, 3, i}, int64_t(i * 4096 + 17), i % 3 == 0));
  all.push_back({"hundred", hundred});
  QXSizeUpdates paths;
  paths.push_back(update({}, 0, true));
  paths.push_back(update({7}, 1, false));
  std::vector<uint64_t> deep;
  for (uint64_t i = 0; i < 40; ++i) deep.push_back(i * 1000003);
  paths.push_back(update(deep, 2, true));
  paths.push_back(update({UINT64_MAX, 0x7fffffffffffffffULL, 128, 127}, 3, false));
  all.push_back({"paths", paths});
  QXSizeUpdates sizes;
  for (int64_t size : {int64_t(-1), int64_t(0), INT64_MAX, INT64_MIN, int64_t(1) << 40, int64_t(3)})
    sizes.push_back(update({0, 3}, size, size % 2 == 0));
  all.push_back({"sizes", sizes});
  // A folder reported when it opens and again when it closes: one object twice.
  QXSizeUpdates repeated = {update({0, 2}, 10, true)};
  repeated.push_back(update({0, 2, 0}, 5, false));
  repeated.push_back(repeated.front());
  repeated.push_back({repeated[1].indexPath, repeated[0].item});
  all.push_back({"repeated objects", repeated});
  // Path forms and busy flags interleaved: each form's keys and each class
  // first met in the middle of the report.
  QXSizeUpdates mixed;
  for (uint64_t i = 0; i < 12; ++i) {
    std::vector<uint64_t> path(i % 4, i);
    mixed.push_back(update(path, int64_t(i % 5) * 3, i % 2 == 1));
  }
  mixed.push_back(mixed[5]);
  all.push_back({"mixed", mixed});
  all.push_back({"absent values",
                 {{nullptr, QXFileSizeItem::make(1)}, {qx::IndexPath::make({1, 2}), nullptr}}});
  // 20 records, the first `same` of them with a size that another value
  // already holds: 248 to 268 values, across 256 (references of one byte,
  // then two). 7,000 records cross 65,536 values and bytes (three bytes).
  // Widths change between consecutive reports of the run.
  for (uint64_t same = 0; same <= 20; ++same) {
    QXSizeUpdates many;
    for (uint64_t i = 0; i < 20; ++i)
      many.push_back(update({0, i, i * 977}, i < same ? 3 : int64_t(i) * 131 + 4, i % 2 == 0));
    all.push_back({"twenty", many});
  }
  QXSizeUpdates many;
  for (uint64_t i = 0; i < 7000; ++i) many.push_back(update({0, i, i * 977}, int64_t(i), true));
  all.push_back({"many", many});
  return all;
}

TEST(QXSizeReportWriter, WritesTheArchiveOfTheRecordObjects) {
  registerModelClasses();
  // A selector that is not ASCII is written as UTF-16.
  for (const char* selector : {"updateFileSizes:reply:", "caf\xc3\xa9:reply:"}) {
    for (uint64_t sequence : {uint64_t(0), uint64_t(7), uint64_t(1) << 40}) {
      for (const Shape& shape : shapes()) {
        std::vector<uint8_t> expected =
            qx::XpcMessage::invocation(selector, {QXClientCallbacks::wireRecords(shape.updates)},
                                       sequence)
                .encode();
        ASSERT_FALSE(expected.empty());
        EXPECT_EQ(QXSizeReportWriter::invocation(selector, shape.updates, sequence), expected)
            << shape.name << " of " << shape.updates.size() << ", sequence " << sequence;
      }
    }
  }
}

}  // namespace
