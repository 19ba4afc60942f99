#pragma once

#include <memory>

#include "model/QXFileSizeItem.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/Url.h"
#include "platform/walk/WalkEntry.h"

namespace qx {
class XpcConnection;
}

// Sizes and listings: totals the sizes of files and folders with running
// reports to the client, and lists folder contents level by level.
class QXFileSizes {
 public:
  QXFileSizes() = delete;

  // Totals the sizes of `urls` and of everything below them, reporting every
  // 100 items to the client of `connection` with updateFileSizes:reply:, and
  // returns the last batch of update records ("QXIndexPath",
  // "QXFileSizeItem"). Nil on a failure other than a permission error.
  static qx::ArrayPtr getSizesWithUrls(const qx::ArrayPtr& urls,
                                       const std::shared_ptr<qx::XpcConnection>& connection,
                                       qx::ErrorPtr* error);

  // The size of one walk entry: its logical size, plus the length of its
  // resource fork when its allocation exceeds its data by 4096 bytes or more.
  // Nil, with errno set, when the fork cannot be asked for.
  static std::shared_ptr<QXFileSizeItem> itemWithNode(const qx::WalkEntry* entry);

  // The sibling order of the walk: strcmp of the names.
  static int compare(const qx::WalkEntry* a, const qx::WalkEntry* b);

  // The contents of `url` as file reference URLs sorted by path, then of the
  // entry at each position of `indexPath` in turn: one level per index.
  static qx::ArrayPtr getContentsOfDirectory(const qx::UrlPtr& url,
                                             const qx::IndexPathPtr& indexPath,
                                             qx::ErrorPtr* error);
};
