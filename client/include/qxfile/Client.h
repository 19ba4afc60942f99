#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxfile/Records.h"
#include "qxfile/Request.h"

namespace qxfile {

// A connection to the per-user qxfile service. Each request returns a Request
// handle and calls its completion exactly once: with the result and no error,
// with what was done and an error, or, when no answer comes (not connected,
// the connection lost), with an empty result and an error saying why.
//
// Completions and progress callbacks run on threads of the library, never on
// the caller's: hand them to your own loop. Do not wait in them for another
// request of the same client. Every method may be called from any thread.
//
// Size calculations and renames each run on a connection of their own, so
// that several at once run side by side and each hears only of itself.
class Client {
 public:
  // Called once with the result and, on failure, the error.
  template <class T>
  using Completion = std::function<void(T result, std::optional<Error> error)>;
  // Called once with the error, or nullopt on success.
  using Done = std::function<void(std::optional<Error> error)>;

  // What a size calculation reports to while it runs.
  struct SizeOptions {
    // Each report of the service: the totals that changed since the last one.
    // Answering false stops the calculation as cancel() does.
    std::function<bool(const std::vector<SizeUpdate>&)> onUpdate;
  };
  // How a batch rename's questions are answered.
  struct RenameOptions {
    // Asked at intervals: true stops the batch. Without it the batch goes on
    // until cancelled.
    std::function<bool()> shouldStop;
  };

  // A client not yet connected.
  Client();
  // Ends every connection: requests still under way complete with an error,
  // and no progress callback runs once it has returned. Called from one of
  // its callbacks (a completion or a progress callback), it waits for none:
  // a progress callback already under way on another thread may finish after.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Reaches the service, starting it when nothing answers. Nullopt on success.
  std::optional<Error> connect();
  // Whether the connection of ACL requests and listings is up.
  bool isConnected() const;

  // The item's ACL entries and POSIX permissions.
  Request getAcl(const std::filesystem::path& item, Completion<AclListing> done);
  // What `who` may do with the item.
  Request getAccess(const std::filesystem::path& item, const Identity& who,
                    Completion<EffectiveAccess> done);
  // Writes the ACL entries, owner, group and mode of `listing` to the item.
  Request setAcl(const std::filesystem::path& item, const AclListing& listing, Done done);
  // Applies `listing` to every item below the folder.
  Request propagateAcl(const std::filesystem::path& folder, const AclListing& listing, Done done);
  // Renames each item to the name at the same position.
  Request rename(const std::vector<std::filesystem::path>& items,
                 const std::vector<std::string>& names, RenameOptions options,
                 Completion<RenameResult> done);
  // Totals the sizes of the items and of every folder below them. The
  // completion carries the last updates. A calculation whose connection ends
  // before the first report (the service ended or was restarted) is sent
  // again on a new connection, twice at most.
  Request getSizes(const std::vector<std::filesystem::path>& items, SizeOptions options,
                   Completion<std::vector<SizeUpdate>> done);
  // The folder's items and, following `indexPath`, those of the folders below: one list a level.
  Request listContents(const std::filesystem::path& folder, const std::vector<uint64_t>& indexPath,
                       Completion<std::vector<std::vector<FileRef>>> done);

  struct State;  // the library's own

 private:
  std::shared_ptr<State> state_;
};

}  // namespace qxfile
