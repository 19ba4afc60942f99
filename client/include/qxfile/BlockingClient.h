#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "qxfile/Client.h"

namespace qxfile {

// The requests of a Client as blocking calls, for tools: each waits, without a
// time limit, for its completion. Every call sets `error` (when given) on every
// path: nullopt on success. Called from a callback of a client, where the
// answer would have to arrive, it fails at once with EDEADLK.
class BlockingClient {
 public:
  // Calls through `client`, which must outlive this object.
  explicit BlockingClient(Client& client) : client_(client) {}

  // As Client::getAcl.
  AclListing getAcl(const std::filesystem::path& item, std::optional<Error>* error);
  // As Client::getAccess.
  EffectiveAccess getAccess(const std::filesystem::path& item, const Identity& who,
                            std::optional<Error>* error);
  // As Client::setAcl; true when written.
  bool setAcl(const std::filesystem::path& item, const AclListing& listing,
              std::optional<Error>* error);
  // As Client::propagateAcl; true when applied to everything below.
  bool propagateAcl(const std::filesystem::path& folder, const AclListing& listing,
                    std::optional<Error>* error);
  // `shouldStop` is asked at intervals; true stops the batch.
  RenameResult rename(const std::vector<std::filesystem::path>& items,
                      const std::vector<std::string>& names, std::function<bool()> shouldStop,
                      std::optional<Error>* error);
  // `onUpdate` gets each report; false stops the calculation.
  std::vector<SizeUpdate> getSizes(const std::vector<std::filesystem::path>& items,
                                   std::function<bool(const std::vector<SizeUpdate>&)> onUpdate,
                                   std::optional<Error>* error);
  // As Client::listContents.
  std::vector<std::vector<FileRef>> listContents(const std::filesystem::path& folder,
                                                 const std::vector<uint64_t>& indexPath,
                                                 std::optional<Error>* error);

 private:
  Client& client_;
};

}  // namespace qxfile
