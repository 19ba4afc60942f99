#pragma once

#include <uuid/uuid.h>

#include <functional>

#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/Url.h"
#include "platform/foundation/Uuid.h"
#include "platform/xacl/xacl.h"

// Reads items' extended ACLs and POSIX settings. Every method takes an error
// out-parameter last (may be null) and writes it on every path: nil on
// success, the error on failure. Nothing is kept between calls.
class QXFileAcl {
 public:
  QXFileAcl() = delete;

  // "ACL", one QXAclEntry per entry of the item's extended ACL, "POSIX", then
  // the owner, group and everyone pseudo-entries. nil on failure.
  static qx::ArrayPtr entriesForUrl(const qx::UrlPtr& url, qx::ErrorPtr* error);

  // Whether `uuid` (a user or group) can search every folder above the item.
  // True when the check completed, whatever the answer; false when a step
  // failed (the error is not wrapped). `traversable` receives the answer
  // reached, also on failure.
  static bool getTraversable(bool* traversable, const qx::UrlPtr& url, const uuid_t uuid,
                             qx::ErrorPtr* error);

  // The permissions `uuid` effectively holds on the item: the "Read", "Write"
  // and "Administration" group nodes (state -1) with a leaf per permission
  // that applies to the item's kind. nil on failure.
  static qx::ArrayPtr accessForUrl(const qx::UrlPtr& url, const qx::UuidPtr& uuid,
                                   qx::ErrorPtr* error);

  // Writing access settings; see QXAclWriter.
  static bool getAcl(qx::xacl::acl_t* acl, const qx::ArrayPtr& entries, const char* path,
                     qx::ErrorPtr* error);
  static bool setEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url, qx::ErrorPtr* error);
  // `shouldStop` is asked before each item; when it answers true the walk
  // ends with ECANCELED.
  static bool propagateEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url,
                               qx::ErrorPtr* error, const std::function<bool()>& shouldStop = {});
};
