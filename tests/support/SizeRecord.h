#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "platform/foundation/Array.h"

namespace qx::test {

// One update record of a size batch as a client reads it: the dictionary's
// index path and item. A malformed record reads as index path {999999}.
class SizeRecord {
 public:
  std::vector<uint64_t> indexPath;
  int64_t size = -999;
  bool busy = true;

  bool operator==(const SizeRecord&) const = default;
  static std::vector<SizeRecord> listOf(const ArrayPtr& batch);
};

std::ostream& operator<<(std::ostream& out, const SizeRecord& record);

}  // namespace qx::test
