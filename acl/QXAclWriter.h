#pragma once

#include <functional>

#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/Url.h"
#include "platform/xacl/xacl.h"

// Writes items' access settings: builds extended ACLs from entry records,
// applies entries, mode, owner and group to one item, and gives the settings
// of a folder to everything below it. Every method takes an error out-parameter
// last (may be null) and writes it on every path: nil on success, the error on
// failure. Nothing is kept between calls.
class QXAclWriter {
 public:
  QXAclWriter() = delete;

  // A new extended ACL made from `entries` (QXAclEntry records, ACL entries
  // only), in their order, for the item at `path` (used in messages only). The
  // ACL goes to `acl`, and the caller releases it with acl_free. On failure the
  // partly built ACL is released and the step's error is returned unwrapped.
  static bool getAcl(qx::xacl::acl_t* acl, const qx::ArrayPtr& entries, const char* path,
                     qx::ErrorPtr* error);

  // Writes the mode bits, owner, group and extended ACL of one item from an
  // entries array as listed ("ACL", ACL entries, "POSIX", owner, group and
  // everyone pseudo-entries), in that order, skipping the values that already
  // match. The item itself is changed, never a symbolic link's target.
  static bool setEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url, qx::ErrorPtr* error);

  // Gives every item below the folder at `url` the folder's own mode bits,
  // owner and group as they are on disk, and an extended ACL made from the ACL
  // entries of `entries`: sub-folders get the entries as given (after their
  // contents), everything else their file form. The folder itself is left
  // alone, and so are the mode and ACL of symbolic links. A top item that is
  // not a folder changes nothing and fails with ENOTDIR. The first failure
  // ends the walk; nothing is rolled back.
  // `shouldStop`, when given, is asked before each item; true ends the walk
  // with ECANCELED.
  static bool propagateEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url,
                               qx::ErrorPtr* error, const std::function<bool()>& shouldStop = {});
};
