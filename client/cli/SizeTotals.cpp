#include "client/cli/SizeTotals.h"

#include "model/QXFileSizeItem.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/IndexPath.h"
#include "protocol/QXFileResponse.h"

namespace qxcli {

bool SizeTotals::add(const qx::ArrayPtr& batch) {
  if (!batch) return true;
  bool wellFormed = true;
  std::lock_guard lock(mutex_);
  for (const auto& object : *batch) {
    auto record = qx::cast<qx::Dictionary>(object);
    auto indexPath =
        record ? record->objectForKeyAs<qx::IndexPath>(QXFileResponse::kIndexPathKey) : nullptr;
    auto item =
        record ? record->objectForKeyAs<QXFileSizeItem>(QXFileResponse::kFileSizeItemKey) : nullptr;
    if (!indexPath || !item) {
      wellFormed = false;
      continue;
    }
    if (!everything_ && indexPath->length() > 1) continue;
    totals_[indexPath->indexes()] = Total{item->size(), item->busy()};
  }
  return wellFormed;
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
