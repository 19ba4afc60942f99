#pragma once

#include <memory>
#include <vector>

#include "model/QXFileSizeItem.h"
#include "platform/foundation/IndexPath.h"

// One update of a size calculation: an item's place in the size tree and its
// item. The item is shared with the calculation, so a folder's record shows
// its total as it stands when the record is read.
class QXSizeUpdate {
 public:
  qx::IndexPathPtr indexPath;
  std::shared_ptr<QXFileSizeItem> item;
};

using QXSizeUpdates = std::vector<QXSizeUpdate>;
