#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "qxfile/Records.h"

namespace qxcli {

// The latest total of each item of a size calculation, gathered from the
// update records of the service's reports and of its final reply. Each record
// carries the item's index path in the size tree and its total at the time
// the batch was sent, so the last record of an index path is the newest.
// Reports arrive on the client's callback queue, the final reply on the
// calling thread: every method may be called from any thread.
class SizeTotals {
 public:
  struct Total {
    int64_t size = -1;
    bool busy = true;  // the total may still grow
  };
  using IndexPath = std::vector<uint64_t>;

  // Keeps every item when `everything`, else only the root and its children.
  explicit SizeTotals(bool everything) : everything_(everything) {}

  void add(const std::vector<qxfile::SizeUpdate>& batch);

  std::optional<Total> at(const IndexPath& indexPath) const;
  std::map<IndexPath, Total> all() const;

 private:
  const bool everything_;
  mutable std::mutex mutex_;
  std::map<IndexPath, Total> totals_;
};

}  // namespace qxcli
