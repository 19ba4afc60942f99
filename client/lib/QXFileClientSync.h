#pragma once

#include "client/lib/QXFileClient.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/Url.h"
#include "platform/foundation/Uuid.h"

// The requests of a QXFileClient as blocking calls, for tools: each sends the
// request and waits, without a time limit, for its one reply. The wait ends
// with an error when the request is refused or the connection ends first.
//
// Every call writes `error` (when given) on every path: nil on success. A
// call made on the client's reply thread, where its own answer would have to
// arrive, fails at once with EDEADLK instead of waiting for ever.
class QXFileClientSync {
 public:
  struct Renamed {
    qx::ArrayPtr urls;   // the new URLs of the items renamed
    qx::ArrayPtr names;  // the names those items had before
  };

  explicit QXFileClientSync(QXFileClient& client) : client_(client) {}

  qx::ArrayPtr getAclEntriesWithUrl(const qx::UrlPtr& url, qx::ErrorPtr* error);
  qx::ArrayPtr getAclAccessWithUrl(const qx::UrlPtr& url, const qx::UuidPtr& uuid,
                                   qx::ErrorPtr* error);
  // True when the service answered without an error.
  bool setAclEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url, qx::ErrorPtr* error);
  bool propagateAclEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url, qx::ErrorPtr* error);
  // The items renamed before a failure or a stop are in the result too.
  Renamed renameUrls(const qx::ArrayPtr& urls, const qx::ArrayPtr& names, qx::ErrorPtr* error);
  qx::ArrayPtr getSizesWithUrls(const qx::ArrayPtr& urls, qx::ErrorPtr* error);
  qx::ArrayPtr getContentsOfDirectory(const qx::UrlPtr& url, const qx::IndexPathPtr& indexPath,
                                      qx::ErrorPtr* error);

 private:
  QXFileClient& client_;
};
