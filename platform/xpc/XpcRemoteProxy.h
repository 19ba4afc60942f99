#pragma once

#include <cassert>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcProtocol.h"
#include "platform/xpc/XpcValue.h"

namespace qx {

// The base of hand-written remote proxies: a proxy implements its protocol's
// methods by sending each call through the connection.
//
//   class QXFileResponseProxy : public QXFileResponse, XpcRemoteProxy {
//    public:
//     using XpcRemoteProxy::XpcRemoteProxy;
//     void progressWithReply(OnceCallback<void(bool)> reply) override {
//       send(&QXFileResponse::progressWithReply, std::move(reply));
//     }
//   };
//
// Calls name the method, never its selector: the selector comes from the
// protocol's description, so a proxy cannot send one the protocol lacks.
//
// A reply whose arguments do not convert to the reply block's parameter types
// is dropped, like a refused one; the error handler, when set, runs instead.
class XpcRemoteProxy {
 public:
  XpcRemoteProxy(const XpcProtocol& protocol, std::shared_ptr<XpcConnection> connection,
                 std::function<void(ErrorPtr)> errorHandler)
      : protocol_(protocol),
        connection_(std::move(connection)),
        errorHandler_(std::move(errorHandler)) {}

  const std::shared_ptr<XpcConnection>& connection() const { return connection_; }

 protected:
  template <class F, class... R, class... A>
  void send(F method, OnceCallback<void(R...)> reply, const A&... arguments) {
    connection_->sendInvocation(
        selectorOf(method), {XpcValue<std::remove_cvref_t<A>>::toObject(arguments)...},
        [reply = std::move(reply),
         onError = errorHandler_](std::vector<ObjectPtr> objects) mutable {
          if (!deliver(reply, objects, std::index_sequence_for<R...>{}) && onError)
            onError(Error::errorWithDomain(kCocoaErrorDomain, kXpcConnectionRefusedError));
        },
        errorHandlerForCall());
  }

  // The same with the arguments written into the archive by `arguments`
  // instead of archived as objects (messages sent often enough for that).
  template <class F, class... R>
  void sendWritten(F method, OnceCallback<void(R...)> reply,
                   std::span<const XpcMessage::ArgumentWriter> arguments) {
    connection_->sendWrittenInvocation(
        selectorOf(method), arguments,
        [reply = std::move(reply),
         onError = errorHandler_](std::vector<ObjectPtr> objects) mutable {
          if (!deliver(reply, objects, std::index_sequence_for<R...>{}) && onError)
            onError(Error::errorWithDomain(kCocoaErrorDomain, kXpcConnectionRefusedError));
        },
        errorHandlerForCall());
  }

  template <class F, class... A>
  void sendWithoutReply(F method, const A&... arguments) {
    connection_->sendInvocation(selectorOf(method),
                                {XpcValue<std::remove_cvref_t<A>>::toObject(arguments)...});
  }

 private:
  template <class F>
  std::string selectorOf(F method) const {
    const XpcMethod* described = protocol_.method(method);
    assert(described && "a proxy sends only methods of its protocol");
    return described ? described->selector : std::string();
  }

  template <class... R, std::size_t... I>
  static bool deliver(OnceCallback<void(R...)>& reply, std::vector<ObjectPtr>& objects,
                      std::index_sequence<I...>) {
    std::tuple<std::remove_cvref_t<R>...> values;
    if (objects.size() != sizeof...(R)) return false;
    if (!(XpcValue<std::remove_cvref_t<R>>::fromObject(objects[I], std::get<I>(values)) && ...))
      return false;
    reply(std::move(std::get<I>(values))...);
    return true;
  }

  XpcErrorHandler errorHandlerForCall() const {
    if (!errorHandler_) return nullptr;
    return [handler = errorHandler_](ErrorPtr error) { handler(std::move(error)); };
  }

  const XpcProtocol& protocol_;
  std::shared_ptr<XpcConnection> connection_;
  std::function<void(ErrorPtr)> errorHandler_;
};

}  // namespace qx
