#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "model/QXFileSizeItem.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/Url.h"
#include "platform/walk/WalkEntry.h"
#include "sizes/QXSizeUpdate.h"

// Totals the sizes of files and folders, reporting running totals while it
// walks.
class QXFileSizes {
 public:
  QXFileSizes() = delete;

  // Hands over the updates gathered since the last report and answers
  // whether to go on (true) or stop (false).
  using Report = std::function<bool(const QXSizeUpdates& batch)>;

  // Totals the sizes of `urls` and of everything below them, calling `report`
  // every 100 items, and returns the last batch of updates. nullopt on a
  // failure other than a permission error.
  static std::optional<QXSizeUpdates> getSizesWithUrls(const qx::ArrayPtr& urls,
                                                       const Report& report, qx::ErrorPtr* error);

  // The size of one walk entry: its logical size, plus the length of its
  // resource fork when its allocation exceeds its data by 4096 bytes or more.
  // Nil, with errno set, when the fork cannot be asked for.
  static std::shared_ptr<QXFileSizeItem> itemWithNode(const qx::WalkEntry* entry);

  // The sibling order of the walk: strcmp of the names.
  static int compare(const qx::WalkEntry* a, const qx::WalkEntry* b);
};
