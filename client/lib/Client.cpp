#include "qxfile/Client.h"

#include <mutex>

#include "client/lib/CallbackScope.h"
#include "client/lib/QXFileClient.h"
#include "client/lib/RecordConversion.h"
#include "client/lib/RequestState.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/String.h"
#include "platform/foundation/Url.h"
#include "platform/xpc/XpcConnection.h"

namespace qxfile {

thread_local bool CallbackScope::active_ = false;

// ACL requests and listings share one connection. A size calculation or a
// rename takes a connection of its own: the service runs those operations one
// at a time per connection, and its questions during one (size reports, "go
// on?") name no request, so a connection per running operation is what lets
// two run at once and tells whose question it is. Connections whose operation
// ended wait in `idle` for the next one.
struct Client::State {
  std::mutex mutex;
  std::shared_ptr<QXFileClient> shared;
  std::vector<std::shared_ptr<QXFileClient>> idle;
  std::vector<std::weak_ptr<QXFileClient>> operations;  // every one made, to end them all
  bool closed = false;

  std::shared_ptr<QXFileClient> sharedConnection() {
    std::lock_guard lock(mutex);
    return shared;
  }

  // An idle operation connection, else a new one; nullptr with `error` set
  // when the service cannot be reached.
  std::shared_ptr<QXFileClient> takeOperationConnection(std::optional<Error>* error) {
    {
      std::lock_guard lock(mutex);
      while (!idle.empty()) {
        auto connection = std::move(idle.back());
        idle.pop_back();
        if (connection->isConnected()) return connection;
      }
    }
    auto connection = std::make_shared<QXFileClient>();
    qx::ErrorPtr failure;
    if (!connection->connect(&failure)) {
      *error = RecordConversion::error(failure);
      return nullptr;
    }
    std::lock_guard lock(mutex);
    if (closed) {
      connection->invalidate();
    } else {
      operations.push_back(connection);
    }
    return connection;
  }

  void giveBack(std::shared_ptr<QXFileClient> connection) {
    connection->setSizeUpdateHandler(nullptr);
    connection->setProgressHandler(nullptr);
    std::lock_guard lock(mutex);
    if (!closed && connection->isConnected()) idle.push_back(std::move(connection));
  }
};

namespace {

qx::UrlPtr urlOf(const std::filesystem::path& path) {
  std::error_code ignored;
  auto absolute = std::filesystem::absolute(path, ignored);
  return qx::Url::fileURLWithPath(absolute.empty() ? path.string() : absolute.string());
}

qx::ArrayPtr urlsOf(const std::vector<std::filesystem::path>& paths) {
  std::vector<qx::ObjectPtr> urls;
  for (const auto& path : paths) urls.push_back(urlOf(path));
  return qx::Array::make(std::move(urls));
}

Error notConnected() {
  return Error{std::string(qx::kCocoaErrorDomain), 4099, "Not connected to the qxfile service.",
               std::nullopt, std::nullopt};
}

// Calls `done` with the converted result: an empty one beside the error when
// the service answered none, an error when it has the wrong shape.
template <class T, class Convert>
void complete(const Client::Completion<T>& done, const qx::ArrayPtr& result,
              const qx::ErrorPtr& error, Convert convert, const char* what) {
  CallbackScope scope;
  auto failure = RecordConversion::error(error);
  if (!result && failure) return done(T{}, std::move(failure));
  auto converted = convert(result);
  if (!converted) return done(T{}, failure ? failure : RecordConversion::malformed(what));
  done(std::move(*converted), std::move(failure));
}

}  // namespace

Client::Client() : state_(std::make_shared<State>()) {}

Client::~Client() {
  std::shared_ptr<QXFileClient> shared;
  std::vector<std::weak_ptr<QXFileClient>> operations;
  {
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
    shared = std::move(state_->shared);
    operations = std::move(state_->operations);
    state_->idle.clear();
  }
  if (shared) shared->invalidate();
  // The callbacks may use what goes with this client: none runs past here,
  // except when this is called from one, which may itself be awaited.
  for (const auto& weak : operations) {
    if (auto connection = weak.lock()) {
      connection->invalidate();
      connection->detachHandlers(!CallbackScope::active());
    }
  }
}

std::optional<Error> Client::connect() {
  auto connection = std::make_shared<QXFileClient>();
  qx::ErrorPtr failure;
  if (!connection->connect(&failure)) return RecordConversion::error(failure);
  std::lock_guard lock(state_->mutex);
  state_->shared = std::move(connection);
  return std::nullopt;
}

bool Client::isConnected() const {
  auto shared = state_->sharedConnection();
  return shared && shared->isConnected();
}

Request Client::getAcl(const std::filesystem::path& item, Completion<AclListing> done) {
  auto shared = state_->sharedConnection();
  if (!shared) {
    done({}, notConnected());
    return Request(std::make_shared<Request::State>());
  }
  shared->getAclEntriesWithUrl(urlOf(item), [done](qx::ArrayPtr entries, qx::ErrorPtr error) {
    complete(done, entries, error, RecordConversion::listing, "ACL entries");
  });
  return Request(std::make_shared<Request::State>());
}

Request Client::getAccess(const std::filesystem::path& item, const Identity& who,
                          Completion<EffectiveAccess> done) {
  auto shared = state_->sharedConnection();
  if (!shared) {
    done({}, notConnected());
    return Request(std::make_shared<Request::State>());
  }
  shared->getAclAccessWithUrl(
      urlOf(item), RecordConversion::uuid(who), [done](qx::ArrayPtr groups, qx::ErrorPtr error) {
        complete(done, groups, error, RecordConversion::access, "access records");
      });
  return Request(std::make_shared<Request::State>());
}

namespace {

// Sends `listing` with `write` (setting or propagating) and hands its error on.
Request writeEntries(const std::shared_ptr<QXFileClient>& shared,
                     void (QXFileClient::*write)(qx::ArrayPtr, qx::UrlPtr,
                                                 QXFileClient::ErrorReply),
                     const std::filesystem::path& item, const AclListing& listing,
                     Client::Done done) {
  if (!shared) {
    done(notConnected());
  } else {
    ((*shared).*write)(RecordConversion::entries(listing), urlOf(item), [done](qx::ErrorPtr error) {
      CallbackScope scope;
      done(RecordConversion::error(error));
    });
  }
  return Request(std::make_shared<Request::State>());
}

}  // namespace

Request Client::setAcl(const std::filesystem::path& item, const AclListing& listing, Done done) {
  return writeEntries(state_->sharedConnection(), &QXFileClient::setAclEntries, item, listing,
                      std::move(done));
}

Request Client::propagateAcl(const std::filesystem::path& folder, const AclListing& listing,
                             Done done) {
  return writeEntries(state_->sharedConnection(), &QXFileClient::propagateAclEntries, folder,
                      listing, std::move(done));
}

Request Client::rename(const std::vector<std::filesystem::path>& items,
                       const std::vector<std::string>& names, RenameOptions options,
                       Completion<RenameResult> done) {
  auto request = std::make_shared<Request::State>();
  std::optional<Error> failure;
  auto connection = state_->takeOperationConnection(&failure);
  if (!connection) {
    done({}, failure);
    return Request(request);
  }
  connection->setProgressHandler([request, shouldStop = std::move(options.shouldStop)] {
    CallbackScope scope;
    if (!request->cancelled && shouldStop && shouldStop()) request->cancelled = true;
    return request->cancelled.load();
  });
  std::vector<qx::ObjectPtr> newNames;
  for (const auto& name : names) newNames.push_back(qx::str(name));
  connection->renameUrls(urlsOf(items), qx::Array::make(std::move(newNames)),
                         [done, connection, weak = std::weak_ptr<State>(state_)](
                             qx::ArrayPtr urls, qx::ArrayPtr previous, qx::ErrorPtr error) {
                           if (auto state = weak.lock()) state->giveBack(connection);
                           CallbackScope scope;
                           done(RecordConversion::renamed(urls, previous),
                                RecordConversion::error(error));
                         });
  return Request(request);
}

namespace {

// One size calculation, as asked for; it may be sent again (see startSizes).
struct SizeCalculation {
  qx::ArrayPtr urls;
  std::shared_ptr<Request::State> request;
  Client::SizeOptions options;
  Client::Completion<std::vector<SizeUpdate>> done;
  std::atomic<bool> heard{false};  // a report of the service arrived
  int resends = 2;                 // sends left after a lost connection; one completion at a time
};

// The connection ended before the service reported anything: it may have
// been a service that had ended or was ending, and may be sent again.
bool mayResend(const qx::ErrorPtr& error, const SizeCalculation& calculation) {
  return error && error->domain() == qx::kCocoaErrorDomain &&
         error->code() == qx::kXpcConnectionInvalidError && !calculation.heard &&
         !calculation.request->cancelled && calculation.resends > 0;
}

// Sends the calculation on an operation connection. An idle connection may
// have lost its service (ended or restarted) without having noticed yet, and
// a new one may reach a service that is still ending: when the connection
// ends before any report, the calculation, which changes nothing, is sent
// again, twice at most, on the next connection.
void startSizes(const std::shared_ptr<Client::State>& state,
                const std::shared_ptr<SizeCalculation>& calculation) {
  std::optional<Error> failure;
  auto connection = state->takeOperationConnection(&failure);
  if (!connection) return calculation->done({}, failure);
  connection->setSizeUpdateHandler([calculation](const qx::ArrayPtr& batch) {
    calculation->heard = true;
    auto& request = *calculation->request;
    if (request.cancelled) return false;
    auto updates = RecordConversion::sizes(batch);
    if (!updates) return false;
    CallbackScope scope;
    const auto& onUpdate = calculation->options.onUpdate;
    if (onUpdate && !onUpdate(*updates)) request.cancelled = true;
    return !request.cancelled;
  });
  connection->getSizesWithUrls(
      calculation->urls, [calculation, connection, weak = std::weak_ptr<Client::State>(state)](
                             qx::ArrayPtr last, qx::ErrorPtr error) {
        auto state = weak.lock();
        if (state) state->giveBack(connection);
        if (state && mayResend(error, *calculation)) {
          --calculation->resends;
          return startSizes(state, calculation);
        }
        complete(calculation->done, last, error, RecordConversion::sizes, "size records");
      });
}

}  // namespace

Request Client::getSizes(const std::vector<std::filesystem::path>& items, SizeOptions options,
                         Completion<std::vector<SizeUpdate>> done) {
  auto request = std::make_shared<Request::State>();
  startSizes(state_, std::make_shared<SizeCalculation>(urlsOf(items), request, std::move(options),
                                                       std::move(done)));
  return Request(request);
}

Request Client::listContents(const std::filesystem::path& folder,
                             const std::vector<uint64_t>& indexPath,
                             Completion<std::vector<std::vector<FileRef>>> done) {
  auto shared = state_->sharedConnection();
  if (!shared) {
    done({}, notConnected());
  } else {
    shared->getContentsOfDirectory(urlOf(folder), qx::IndexPath::make(indexPath),
                                   [done](qx::ArrayPtr levels, qx::ErrorPtr error) {
                                     complete(done, levels, error, RecordConversion::levels,
                                              "folder levels");
                                   });
  }
  return Request(std::make_shared<Request::State>());
}

}  // namespace qxfile
