#include "qxfile/BlockingClient.h"

#include <cerrno>
#include <future>
#include <tuple>

#include "client/lib/CallbackScope.h"

namespace qxfile {

namespace {

Error wouldDeadlock() {
  return Error{"NSPOSIXErrorDomain", EDEADLK,
               "Couldn't wait for the service's answer on the thread that receives it.",
               std::nullopt, std::nullopt};
}

// Starts a request with `start`, which takes its completion, and waits for it.
template <class T, class Start>
T wait(Start start, std::optional<Error>* error) {
  if (CallbackScope::active()) {
    if (error) *error = wouldDeadlock();
    return T{};
  }
  std::promise<std::pair<T, std::optional<Error>>> promise;
  auto answer = promise.get_future();
  start([&promise](T result, std::optional<Error> failure) {
    promise.set_value({std::move(result), std::move(failure)});
  });
  auto [result, failure] = answer.get();
  if (error) *error = std::move(failure);
  return std::move(result);
}

bool waitDone(auto start, std::optional<Error>* error) {
  if (CallbackScope::active()) {
    if (error) *error = wouldDeadlock();
    return false;
  }
  std::promise<std::optional<Error>> promise;
  auto answer = promise.get_future();
  start([&promise](std::optional<Error> failure) { promise.set_value(std::move(failure)); });
  auto failure = answer.get();
  const bool ok = !failure;
  if (error) *error = std::move(failure);
  return ok;
}

}  // namespace

AclListing BlockingClient::getAcl(const std::filesystem::path& item, std::optional<Error>* error) {
  return wait<AclListing>([&](auto done) { client_.getAcl(item, done); }, error);
}

EffectiveAccess BlockingClient::getAccess(const std::filesystem::path& item, const Identity& who,
                                          std::optional<Error>* error) {
  return wait<EffectiveAccess>([&](auto done) { client_.getAccess(item, who, done); }, error);
}

bool BlockingClient::setAcl(const std::filesystem::path& item, const AclListing& listing,
                            std::optional<Error>* error) {
  return waitDone([&](auto done) { client_.setAcl(item, listing, done); }, error);
}

bool BlockingClient::propagateAcl(const std::filesystem::path& folder, const AclListing& listing,
                                  std::optional<Error>* error) {
  return waitDone([&](auto done) { client_.propagateAcl(folder, listing, done); }, error);
}

RenameResult BlockingClient::rename(const std::vector<std::filesystem::path>& items,
                                    const std::vector<std::string>& names,
                                    std::function<bool()> shouldStop, std::optional<Error>* error) {
  return wait<RenameResult>(
      [&](auto done) { client_.rename(items, names, {std::move(shouldStop)}, done); }, error);
}

std::vector<SizeUpdate> BlockingClient::getSizes(
    const std::vector<std::filesystem::path>& items,
    std::function<bool(const std::vector<SizeUpdate>&)> onUpdate, std::optional<Error>* error) {
  return wait<std::vector<SizeUpdate>>(
      [&](auto done) { client_.getSizes(items, {std::move(onUpdate)}, done); }, error);
}

std::vector<std::vector<FileRef>> BlockingClient::listContents(
    const std::filesystem::path& folder, const std::vector<uint64_t>& indexPath,
    std::optional<Error>* error) {
  return wait<std::vector<std::vector<FileRef>>>(
      [&](auto done) { client_.listContents(folder, indexPath, done); }, error);
}

}  // namespace qxfile
