#pragma once

#include <functional>

#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/Url.h"

// Gives the settings of a folder to everything below it (see
// QXAclWriter::propagateEntries). The walk opens every folder through its
// parent's descriptor and changes every item through its folder's descriptor,
// so a folder swapped for a symbolic link while the walk runs can never lead a
// change outside the tree.
class QXAclPropagation {
 public:
  QXAclPropagation() = delete;

  // `shouldStop`, when given, is asked before each item; when it answers true
  // the walk ends with ECANCELED (the items changed so far stay changed).
  static bool run(const qx::ArrayPtr& entries, const qx::UrlPtr& url, qx::ErrorPtr* error,
                  const std::function<bool()>& shouldStop = {});
};
