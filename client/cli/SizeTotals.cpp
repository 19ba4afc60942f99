#include "client/cli/SizeTotals.h"

namespace qxcli {

void SizeTotals::add(const std::vector<qxfile::SizeUpdate>& batch) {
  std::lock_guard lock(mutex_);
  for (const auto& update : batch) {
    if (!everything_ && update.indexPath.size() > 1) continue;
    totals_[update.indexPath] = Total{update.size, update.busy};
  }
}

std::optional<SizeTotals::Total> SizeTotals::at(const IndexPath& indexPath) const {
  std::lock_guard lock(mutex_);
  auto found = totals_.find(indexPath);
  if (found == totals_.end()) return std::nullopt;
  return found->second;
}

std::map<SizeTotals::IndexPath, SizeTotals::Total> SizeTotals::all() const {
  std::lock_guard lock(mutex_);
  return totals_;
}

}  // namespace qxcli
