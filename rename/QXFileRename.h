#pragma once

#include <functional>

#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/MutableArray.h"

// Renames batches of items, each inside its own parent folder. Nothing is kept
// between calls.
class QXFileRename {
 public:
  QXFileRename() = delete;

  // Asked after every 31 renames: true stops the batch.
  using ShouldStop = std::function<bool()>;

  // The items renamed: their new URLs and the names they had before.
  class Result {
   public:
    qx::MutableArrayPtr urls;
    qx::MutableArrayPtr names;
  };

  // Renames urls[i] to names[i] (surplus names are ignored), stopping at the
  // first failure or when `shouldStop` answers true (without one, the batch
  // stops at the first question). Renames already done stay done.
  //
  // Always returns what was renamed. `error` (may be null) is nil on
  // completion and on a stop, and the wrapped error of the failing item on
  // failure.
  static Result renameUrls(const qx::ArrayPtr& urls, const qx::ArrayPtr& names,
                           const ShouldStop& shouldStop, qx::ErrorPtr* error);
};
