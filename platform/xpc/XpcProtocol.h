#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeindex>
#include <vector>

#include "platform/foundation/Error.h"
#include "platform/xpc/XpcMethod.h"

namespace qx {

class XpcConnection;

// The description of a protocol, made once: its name, the C++ abstract class
// that exported objects implement, its methods, and how to make a remote proxy
// (an object of that class whose calls go to the peer).
//
//   static const XpcProtocol protocol = XpcProtocol::describe<QXFileResponse,
//       QXFileResponseProxy>("QXFileResponse", {
//     xpcMethod("progressWithReply:", &QXFileResponse::progressWithReply),
//     xpcMethod("updateFileSizes:reply:", &QXFileResponse::updateFileSizes)});
class XpcProtocol {
 public:
  using ErrorHandler = std::function<void(ErrorPtr)>;
  using ProxyFactory = std::function<std::shared_ptr<void>(
      const XpcProtocol&, std::shared_ptr<XpcConnection>, ErrorHandler)>;

  // `Proxy` derives from P and is constructible from (connection, error
  // handler); void when the protocol is never called remotely.
  template <class P, class Proxy = void>
  static XpcProtocol describe(std::string name, std::vector<XpcMethod> methods) {
    ProxyFactory factory;
    if constexpr (!std::is_void_v<Proxy>) {
      static_assert(std::is_base_of_v<P, Proxy>, "a proxy implements its protocol");
      factory = [](const XpcProtocol& protocol, std::shared_ptr<XpcConnection> connection,
                   ErrorHandler errorHandler) {
        std::shared_ptr<P> proxy =
            std::make_shared<Proxy>(protocol, std::move(connection), std::move(errorHandler));
        return std::shared_ptr<void>(proxy, static_cast<void*>(proxy.get()));
      };
    }
    return XpcProtocol(std::move(name), typeid(P), std::move(methods), std::move(factory));
  }

  const std::string& name() const { return name_; }
  std::type_index type() const { return type_; }
  const std::vector<XpcMethod>& methods() const { return methods_; }
  // The method of `selector`, or nullptr.
  const XpcMethod* method(std::string_view selector) const;
  // The method describing the C++ method `fn`, or nullptr.
  template <class F>
  requires std::is_member_function_pointer_v<F>
  const XpcMethod* method(F fn) const {
    for (const XpcMethod& method : methods_) {
      if (method.describes(fn)) return &method;
    }
    return nullptr;
  }
  // A proxy (pointing at a P) sending through `connection`; nil when the
  // protocol has no proxy class.
  std::shared_ptr<void> makeProxy(std::shared_ptr<XpcConnection> connection,
                                  ErrorHandler errorHandler) const;

 private:
  XpcProtocol(std::string name, std::type_index type, std::vector<XpcMethod> methods,
              ProxyFactory factory)
      : name_(std::move(name)),
        type_(type),
        methods_(std::move(methods)),
        proxyFactory_(std::move(factory)) {}

  std::string name_;
  std::type_index type_;
  std::vector<XpcMethod> methods_;
  ProxyFactory proxyFactory_;
};

}  // namespace qx
