#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch/OnceCallback.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/Url.h"
#include "platform/foundation/Uuid.h"

// A connection to the per-user qxfile service, with its seven requests.
//
// connect() reaches the service, starting it when nothing answers. Each
// request takes a one-shot reply callback that is called exactly once: with
// the service's result and error, or, when the request gets no answer (not
// connected, refused by the service, connection lost), with a nil result and
// an error saying why. Reply callbacks run on the connection's reply thread,
// one at a time, in the order the answers arrive; do not wait there for
// another reply.
//
// During a rename or a size calculation the service asks the application
// through the two handlers below. They run on a queue of their own, one at a
// time, so a handler may take its time (ask a person, say) without holding up
// replies; the service's operation waits for the answer meanwhile. A handler
// that throws counts as a request to stop.
//
// All methods may be called from any thread.
class QXFileClient {
 public:
  // (result, error)
  using ArrayReply = qx::OnceCallback<void(qx::ArrayPtr, qx::ErrorPtr)>;
  // (error): nil on success.
  using ErrorReply = qx::OnceCallback<void(qx::ErrorPtr)>;
  // (new URLs of the items renamed, the names they had before, error)
  using RenameReply = qx::OnceCallback<void(qx::ArrayPtr, qx::ArrayPtr, qx::ErrorPtr)>;

  // Asked by a batch rename at intervals: true stops it, false lets it go on.
  // Without a handler the rename goes on.
  using ProgressHandler = std::function<bool()>;
  // Receives each batch of size update records (dictionaries with the keys
  // "QXIndexPath" and "QXFileSizeItem"): true goes on, false stops. Without a
  // handler the calculation goes on.
  using SizeUpdateHandler = std::function<bool(const qx::ArrayPtr& batch)>;

  QXFileClient();
  // Closes the connection; replies still awaited are called with an error.
  // Once it has returned, no handler runs again, and none is running: it
  // waits for one under way to finish (unless called from that handler or on
  // the reply thread, where the handler may be waiting for a reply). After
  // detachHandlers() it leaves the handlers as that call left them.
  ~QXFileClient();
  QXFileClient(const QXFileClient&) = delete;
  QXFileClient& operator=(const QXFileClient&) = delete;

  void setProgressHandler(ProgressHandler handler);
  void setSizeUpdateHandler(SizeUpdateHandler handler);
  // Runs once when the connection ends (the service went away, or
  // invalidate()), on the connection's delivery queue (not the reply thread).
  void setInvalidationHandler(std::function<void()> handler);

  // Connects to the service, starting the executable at servicePath() when
  // nothing answers. False, with `error` set, when the service cannot be
  // reached. A client connects once; connecting again after the connection
  // ended makes a new one.
  bool connect(qx::ErrorPtr* error = nullptr);
  bool isConnected() const;
  void invalidate();
  // Forgets both handlers for good (later ones are ignored); with
  // `waitForRunning`, also waits for one under way to return (do not ask that
  // from within it). Only the first call counts, the destructor's included.
  void detachHandlers(bool waitForRunning);
  // True on the thread where reply callbacks run.
  bool isReplyThread() const;

  // The service executable to start: $QXFILE_SERVICE_PATH when set, else the
  // one built beside this library when the library runs from its build tree,
  // else the installed one (<prefix>/libexec/qxfile-service).
  static std::string servicePath();

  void getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply);
  void getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply);
  void setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply);
  void propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply);
  void renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply);
  void getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply);
  void getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath, ArrayReply reply);

 private:
  struct State;
  std::shared_ptr<State> state_;
};
