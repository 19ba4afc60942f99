#include "client/lib/QXFileClient.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <tuple>
#include <type_traits>

#include "client/lib/QXFileClientResponder.h"
#include "model/ModelClasses.h"
#include "platform/dispatch/ReplyWaiter.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "protocol/QXFileRequest.h"
#include "protocol/QXFileResponse.h"

struct QXFileClient::State {
  mutable std::mutex mutex;
  std::shared_ptr<qx::XpcConnection> connection;
  std::function<void()> invalidationHandler;
  std::shared_ptr<QXFileClientResponder> responder = std::make_shared<QXFileClientResponder>();

  std::shared_ptr<qx::XpcConnection> current() const {
    std::lock_guard lock(mutex);
    return connection;
  }
};

namespace {

// The interfaces with the client's class rules; nil when a rule names a
// method the protocol lacks.
std::shared_ptr<qx::XpcInterface> requestInterface() {
  auto interface = qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol());
  return QXFileRequest::restrictReplies(*interface) ? interface : nullptr;
}

std::shared_ptr<qx::XpcInterface> responseInterface() {
  auto interface = qx::XpcInterface::interfaceWithProtocol(QXFileResponse::protocol());
  return QXFileResponse::restrictArguments(*interface) ? interface : nullptr;
}

qx::ErrorPtr notConnectedError() {
  return qx::Error::errorWithDomain(
      qx::kCocoaErrorDomain, qx::kXpcConnectionInvalidError,
      qx::Dictionary::withStringKeys(
          {{qx::kLocalizedDescriptionKey, qx::str("Not connected to the qxfile service.")}}));
}

qx::ErrorPtr noAnswerError() {
  return qx::Error::errorWithDomain(
      qx::kCocoaErrorDomain, qx::kXpcConnectionInvalidError,
      qx::Dictionary::withStringKeys(
          {{qx::kLocalizedDescriptionKey, qx::str("The service did not answer.")}}));
}

qx::ErrorPtr brokenRulesError() {
  return qx::Error::errorWithDomain(
      qx::kCocoaErrorDomain, qx::kXpcConnectionInvalidError,
      qx::Dictionary::withStringKeys(
          {{qx::kLocalizedDescriptionKey,
            qx::str("A class rule of the client names a method the protocol lacks.")}}));
}

// The folder this library was loaded from, or empty when it cannot be told.
std::filesystem::path libraryFolder() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&libraryFolder), &info) == 0 || !info.dli_fname) return {};
  std::error_code ignored;
  return std::filesystem::canonical(info.dli_fname, ignored).parent_path();
}

// True when this library is the one in the build tree it was built in.
bool runsFromBuildTree() {
  std::error_code ignored;
  auto here = libraryFolder();
  return !here.empty() && here == std::filesystem::canonical(QXFILE_BUILD_LIBRARY_DIR, ignored);
}

// An installed library finds the service of its own installation, wherever
// the prefix was moved: <prefix>/lib[/<multiarch>]/ -> <prefix>/libexec/.
std::string serviceBesideInstalledLibrary() {
  for (auto folder = libraryFolder(); !folder.empty() && folder != folder.root_path();
       folder = folder.parent_path()) {
    auto candidate = folder.parent_path() / "libexec" / "qxfile-service";
    if (folder.filename().string().starts_with("lib") && ::access(candidate.c_str(), X_OK) == 0)
      return candidate;
  }
  return {};
}

}  // namespace

QXFileClient::QXFileClient() : state_(std::make_shared<State>()) {
  registerModelClasses();
}

QXFileClient::~QXFileClient() {
  // A handler under way may be waiting for a reply, which only the reply
  // thread can hand over: there, it is not waited for.
  const bool mayWait = !isReplyThread();
  invalidate();
  // The handlers may hold what goes with this client: none may run past here.
  state_->responder->detachHandlers(mayWait);
}

void QXFileClient::setProgressHandler(ProgressHandler handler) {
  state_->responder->setProgressHandler(std::move(handler));
}

void QXFileClient::setSizeUpdateHandler(SizeUpdateHandler handler) {
  state_->responder->setSizeUpdateHandler(std::move(handler));
}

void QXFileClient::setInvalidationHandler(std::function<void()> handler) {
  std::lock_guard lock(state_->mutex);
  state_->invalidationHandler = std::move(handler);
}

std::string QXFileClient::servicePath() {
  if (const char* path = std::getenv("QXFILE_SERVICE_PATH"); path && *path) return path;
  if (runsFromBuildTree() && ::access(QXFILE_BUILD_SERVICE_PATH, X_OK) == 0)
    return QXFILE_BUILD_SERVICE_PATH;
  if (auto beside = serviceBesideInstalledLibrary(); !beside.empty()) return beside;
  return QXFILE_INSTALLED_SERVICE_PATH;
}

bool QXFileClient::connect(qx::ErrorPtr* error) {
  std::lock_guard lock(state_->mutex);
  if (state_->connection && state_->connection->isValid()) {
    if (error) *error = nullptr;
    return true;
  }
  auto requests = requestInterface();
  auto responses = responseInterface();
  if (!requests || !responses) {
    if (error) *error = brokenRulesError();
    return false;
  }
  auto connection = qx::XpcConnection::connectToService(servicePath(), error);
  if (!connection) return false;
  connection->setRemoteObjectInterface(std::move(requests));
  connection->setExportedInterface(std::move(responses));
  connection->setExportedObject<QXFileResponse>(state_->responder);
  connection->setInvalidationHandler([weak = std::weak_ptr<State>(state_)] {
    auto state = weak.lock();
    if (!state) return;
    std::function<void()> handler;
    {
      std::lock_guard lock(state->mutex);
      handler = state->invalidationHandler;
    }
    if (handler) handler();
  });
  connection->resume();
  state_->connection = std::move(connection);
  if (error) *error = nullptr;
  return true;
}

bool QXFileClient::isConnected() const {
  std::lock_guard lock(state_->mutex);
  return state_->connection && state_->connection->isValid();
}

void QXFileClient::invalidate() {
  std::shared_ptr<qx::XpcConnection> connection;
  {
    std::lock_guard lock(state_->mutex);
    connection = state_->connection;
  }
  if (connection) connection->invalidate();
}

void QXFileClient::detachHandlers(bool waitForRunning) {
  state_->responder->detachHandlers(waitForRunning);
}

bool QXFileClient::isReplyThread() const {
  std::lock_guard lock(state_->mutex);
  return state_->connection && state_->connection->isReplyQueueCurrent();
}

namespace {

// Sends one request through a fresh proxy. The reply is called exactly once:
// with the service's answer, or, when none comes, with nil values and the
// error the proxy's error handler saw (a refusal, the connection lost), which
// runs before the unanswered reply block is dropped.
template <class... Values, class Send>
void sendRequest(const std::shared_ptr<qx::XpcConnection>& connection,
                 std::type_identity_t<qx::OnceCallback<void(Values..., qx::ErrorPtr)>> reply,
                 Send send) {
  if (!connection) {
    reply(Values{}..., notConnectedError());
    return;
  }
  auto why = std::make_shared<qx::ErrorPtr>();
  auto answer = qx::ReplyWaiter<Values..., qx::ErrorPtr>::observe(
      [reply = std::move(reply), why](auto values) mutable {
        if (values) {
          std::apply(reply, std::move(*values));
        } else {
          reply(Values{}..., *why ? *why : noAnswerError());
        }
      });
  auto proxy = connection->remoteObjectProxyWithErrorHandler<QXFileRequest>(
      [why](qx::ErrorPtr error) { *why = std::move(error); });
  send(*proxy, std::move(answer));
}

}  // namespace

void QXFileClient::getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) {
  sendRequest<qx::ArrayPtr>(state_->current(), std::move(reply), [&](auto& service, auto answer) {
    service.getAclEntriesWithUrl(std::move(url), std::move(answer));
  });
}

void QXFileClient::getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) {
  sendRequest<qx::ArrayPtr>(state_->current(), std::move(reply), [&](auto& service, auto answer) {
    service.getAclAccessWithUrl(std::move(url), std::move(uuid), std::move(answer));
  });
}

void QXFileClient::setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  sendRequest<>(state_->current(), std::move(reply), [&](auto& service, auto answer) {
    service.setAclEntries(std::move(entries), std::move(url), std::move(answer));
  });
}

void QXFileClient::propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  sendRequest<>(state_->current(), std::move(reply), [&](auto& service, auto answer) {
    service.propagateAclEntries(std::move(entries), std::move(url), std::move(answer));
  });
}

void QXFileClient::renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) {
  sendRequest<qx::ArrayPtr, qx::ArrayPtr>(
      state_->current(), std::move(reply), [&](auto& service, auto answer) {
        service.renameUrls(std::move(urls), std::move(names), std::move(answer));
      });
}

void QXFileClient::getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) {
  sendRequest<qx::ArrayPtr>(state_->current(), std::move(reply), [&](auto& service, auto answer) {
    service.getSizesWithUrls(std::move(urls), std::move(answer));
  });
}

void QXFileClient::getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                                          ArrayReply reply) {
  sendRequest<qx::ArrayPtr>(state_->current(), std::move(reply), [&](auto& service, auto answer) {
    service.getContentsOfDirectory(std::move(url), std::move(indexPath), std::move(answer));
  });
}
