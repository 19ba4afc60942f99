#include "client/lib/QXFileClientSync.h"

#include <cerrno>
#include <memory>
#include <tuple>

#include "model/QXOperation.h"
#include "platform/dispatch/ReplyWaiter.h"

namespace {

// Sends a request with `send` and blocks until its reply has run. The client
// calls every reply once, so "no answer" cannot come back here; it would read
// as the service not answering.
template <class... Values, class Send>
std::tuple<Values..., qx::ErrorPtr> waitForReply(QXFileClient& client, Send send) {
  if (client.isReplyThread()) {
    return {Values{}...,
            QXOperation::errorWithErrno(EDEADLK,
                                        "Couldn't wait for the service's answer on the thread that "
                                        "receives it.",
                                        nullptr)};
  }
  auto answer = qx::ReplyWaiter<Values..., qx::ErrorPtr>::wait(send);
  if (!answer)
    return {Values{}...,
            QXOperation::errorWithErrno(ENOTCONN, "The service did not answer.", nullptr)};
  if constexpr (sizeof...(Values) == 0) {
    return {std::move(*answer)};
  } else {
    return std::move(*answer);
  }
}

template <class T>
T deliver(T result, qx::ErrorPtr answered, qx::ErrorPtr* error) {
  if (error) *error = std::move(answered);
  return result;
}

}  // namespace

qx::ArrayPtr QXFileClientSync::getAclEntriesWithUrl(const qx::UrlPtr& url, qx::ErrorPtr* error) {
  auto [entries, answered] = waitForReply<qx::ArrayPtr>(
      client_, [&](auto reply) { client_.getAclEntriesWithUrl(url, std::move(reply)); });
  return deliver(entries, answered, error);
}

qx::ArrayPtr QXFileClientSync::getAclAccessWithUrl(const qx::UrlPtr& url, const qx::UuidPtr& uuid,
                                                   qx::ErrorPtr* error) {
  auto [access, answered] = waitForReply<qx::ArrayPtr>(
      client_, [&](auto reply) { client_.getAclAccessWithUrl(url, uuid, std::move(reply)); });
  return deliver(access, answered, error);
}

bool QXFileClientSync::setAclEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url,
                                     qx::ErrorPtr* error) {
  auto [answered] = waitForReply<>(
      client_, [&](auto reply) { client_.setAclEntries(entries, url, std::move(reply)); });
  return deliver(answered == nullptr, answered, error);
}

bool QXFileClientSync::propagateAclEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url,
                                           qx::ErrorPtr* error) {
  auto [answered] = waitForReply<>(
      client_, [&](auto reply) { client_.propagateAclEntries(entries, url, std::move(reply)); });
  return deliver(answered == nullptr, answered, error);
}

QXFileClientSync::Renamed QXFileClientSync::renameUrls(const qx::ArrayPtr& urls,
                                                       const qx::ArrayPtr& names,
                                                       qx::ErrorPtr* error) {
  auto [renamed, previous, answered] = waitForReply<qx::ArrayPtr, qx::ArrayPtr>(
      client_, [&](auto reply) { client_.renameUrls(urls, names, std::move(reply)); });
  return deliver(Renamed{renamed, previous}, answered, error);
}

qx::ArrayPtr QXFileClientSync::getSizesWithUrls(const qx::ArrayPtr& urls, qx::ErrorPtr* error) {
  auto [sizes, answered] = waitForReply<qx::ArrayPtr>(
      client_, [&](auto reply) { client_.getSizesWithUrls(urls, std::move(reply)); });
  return deliver(sizes, answered, error);
}

qx::ArrayPtr QXFileClientSync::getContentsOfDirectory(const qx::UrlPtr& url,
                                                      const qx::IndexPathPtr& indexPath,
                                                      qx::ErrorPtr* error) {
  auto [levels, answered] = waitForReply<qx::ArrayPtr>(client_, [&](auto reply) {
    client_.getContentsOfDirectory(url, indexPath, std::move(reply));
  });
  return deliver(levels, answered, error);
}
