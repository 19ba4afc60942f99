#pragma once

#include "platform/dispatch/OnceCallback.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/Url.h"
#include "platform/foundation/Uuid.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcProtocol.h"

// The requests a client sends to the service; the service's per-connection
// QXFileService implements them, and the client calls them through a
// QXFileRequestProxy. Every method returns nothing: its answer travels in the
// reply block, which the receiving side calls exactly once. The result and
// the error are passed as the work produced them: the result may be nil or
// partial beside an error, and the error is nil on success.
class QXFileRequest {
 public:
  // (result, error)
  using ArrayReply = qx::OnceCallback<void(qx::ArrayPtr, qx::ErrorPtr)>;
  // (error): the error alone is the answer.
  using ErrorReply = qx::OnceCallback<void(qx::ErrorPtr)>;
  // (renamed urls, previous names, error)
  using RenameReply = qx::OnceCallback<void(qx::ArrayPtr, qx::ArrayPtr, qx::ErrorPtr)>;

  virtual ~QXFileRequest() = default;

  // The item's entries array: "ACL", one QXAclEntry per ACL entry, "POSIX",
  // then the owner, group and everyone pseudo-entries.
  virtual void getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) = 0;
  // The effective access of a user or group to the item: the "Read", "Write"
  // and "Administration" group tree nodes with 0/1 leaves.
  virtual void getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) = 0;
  // Writes an entries array (ACL, owner, group, mode) to the item.
  virtual void setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) = 0;
  // Applies an entries array to every descendant of the folder.
  virtual void propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) = 0;
  // Renames each item to the name at the same position; answers the new URLs
  // of the items renamed and the names they had before.
  virtual void renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) = 0;
  // Totals the sizes of the items and of every folder below them, reporting
  // through QXFileResponse::updateFileSizes; answers the last batch of update
  // records ("QXIndexPath", "QXFileSizeItem").
  virtual void getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) = 0;
  // The folder's contents and, following the index path, the contents of the
  // folders below it: one array of file reference URLs per level.
  virtual void getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                                      ArrayReply reply) = 0;

  // The protocol's description for the connection layer (selectors in
  // declaration order, remote proxy class QXFileRequestProxy).
  static const qx::XpcProtocol& protocol();

  // Classes allowed in an incoming entries array: NSArray, NSString,
  // QXTreeNode, QXAclEntry.
  static const qx::ClassSet& entryClasses();
  // Classes allowed in an incoming URL array: NSArray, NSURL.
  static const qx::ClassSet& urlArrayClasses();
  // Classes a client accepts in the answers and size reports: the
  // property-list classes, URLs, index paths and the records.
  static const qx::ClassSet& answerClasses();

  // The service's rules for incoming arguments, on its exported interface.
  // False when a rule names a method the protocol lacks.
  [[nodiscard]] static bool restrictArguments(qx::XpcInterface& exported);
  // A client's rules for the answers, on its remote interface.
  [[nodiscard]] static bool restrictReplies(qx::XpcInterface& remote);
};
