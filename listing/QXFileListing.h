#pragma once

#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/Url.h"

// Lists folder contents level by level.
class QXFileListing {
 public:
  QXFileListing() = delete;

  // The contents of `url` as file reference URLs sorted by path, then of the
  // entry at each position of `indexPath` in turn: one level per index.
  static qx::ArrayPtr getContentsOfDirectory(const qx::UrlPtr& url,
                                             const qx::IndexPathPtr& indexPath,
                                             qx::ErrorPtr* error);
};
