#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "platform/dispatch/OnceCallback.h"
#include "platform/xpc/XpcValue.h"

namespace qx {

// Sends the reply arguments of one invocation back to the peer.
using XpcReplySender = OnceCallback<void(std::vector<ObjectPtr>)>;

// One method of a protocol: its selector, the kinds of its arguments and of
// its reply block's arguments, and how an invocation reaches the C++ method of
// an exported object.
struct XpcMethod {
  // Calls the method on `target` (an object of the protocol's class) with the
  // decoded arguments; `reply` is empty when the method has no reply block.
  // False, without calling, when an argument is not of its parameter's type.
  using Invoker =
      std::function<bool(void* target, std::vector<ObjectPtr>& arguments, XpcReplySender reply)>;

  // True when given (the type of a member function pointer, a pointer to one)
  // naming the C++ method this entry describes.
  using Matcher = bool (*)(const std::type_info& type, const void* function, const void* own);

  std::string selector;
  std::vector<XpcArgumentKind> arguments;
  std::vector<XpcArgumentKind> replyArguments;
  bool hasReply = false;
  // The method may work for long where it is delivered (on the file system,
  // say): a reader hands the reading over before it runs one itself, so the
  // connection is read meanwhile. Quick methods run without that hand-over.
  bool worksLong = false;
  Invoker invoke;
  // The described member function pointer, kept for `matches`.
  std::shared_ptr<const void> function;
  Matcher matcher = nullptr;

  template <class F>
  bool describes(F fn) const {
    return matcher && matcher(typeid(F), &fn, function.get());
  }
};

namespace xpc_detail {

template <class F>
void remember(XpcMethod& method, F fn) {
  method.function = std::make_shared<const F>(fn);
  method.matcher = [](const std::type_info& type, const void* function, const void* own) {
    return type == typeid(F) && *static_cast<const F*>(function) == *static_cast<const F*>(own);
  };
}

template <class T>
struct ReplyBlock : std::false_type {};
template <class... R>
struct ReplyBlock<OnceCallback<void(R...)>> : std::true_type {
  static std::vector<XpcArgumentKind> kinds() {
    return {XpcValue<std::remove_cvref_t<R>>::kind()...};
  }
  // A typed reply block that hands its arguments, as objects, to `sender`.
  static OnceCallback<void(R...)> wrap(XpcReplySender sender) {
    return [sender = std::move(sender)](R... values) mutable {
      sender(std::vector<ObjectPtr>{XpcValue<std::remove_cvref_t<R>>::toObject(values)...});
    };
  }
};

template <class... A>
std::vector<XpcArgumentKind> kindsOf() {
  return {XpcValue<std::remove_cvref_t<A>>::kind()...};
}

// Converts every argument; false when one has the wrong class.
template <class Tuple, std::size_t... I>
bool convertArguments(std::vector<ObjectPtr>& objects, Tuple& values, std::index_sequence<I...>) {
  return (XpcValue<std::tuple_element_t<I, Tuple>>::fromObject(objects[I], std::get<I>(values)) &&
          ...);
}

template <class P, class... Params, std::size_t... I>
XpcMethod describeWithReply(std::string selector, void (P::*fn)(Params...),
                            std::index_sequence<I...>) {
  using All = std::tuple<Params...>;
  using Block = std::remove_cvref_t<std::tuple_element_t<sizeof...(Params) - 1, All>>;
  using Arguments = std::tuple<std::remove_cvref_t<std::tuple_element_t<I, All>>...>;
  XpcMethod method;
  method.selector = std::move(selector);
  method.arguments = kindsOf<std::tuple_element_t<I, All>...>();
  method.replyArguments = ReplyBlock<Block>::kinds();
  method.hasReply = true;
  remember(method, fn);
  method.invoke = [fn](void* target, std::vector<ObjectPtr>& objects, XpcReplySender reply) {
    Arguments values;
    if (objects.size() != sizeof...(I) ||
        !convertArguments(objects, values, std::index_sequence<I...>{}))
      return false;
    (static_cast<P*>(target)->*fn)(std::move(std::get<I>(values))...,
                                   ReplyBlock<Block>::wrap(std::move(reply)));
    return true;
  };
  return method;
}

template <class P, class... Params, std::size_t... I>
XpcMethod describeWithoutReply(std::string selector, void (P::*fn)(Params...),
                               std::index_sequence<I...>) {
  using Arguments = std::tuple<std::remove_cvref_t<Params>...>;
  XpcMethod method;
  method.selector = std::move(selector);
  method.arguments = kindsOf<Params...>();
  remember(method, fn);
  method.invoke = [fn](void* target, std::vector<ObjectPtr>& objects, XpcReplySender) {
    Arguments values;
    if (objects.size() != sizeof...(I) ||
        !convertArguments(objects, values, std::index_sequence<I...>{}))
      return false;
    (static_cast<P*>(target)->*fn)(std::move(std::get<I>(values))...);
    return true;
  };
  return method;
}

}  // namespace xpc_detail

// Describes a method from its C++ declaration: the parameters are the
// arguments; a last parameter of type OnceCallback<void(R...)> is the reply
// block, whose parameters are the reply arguments.
//   xpcMethod("getAclEntriesWithUrl:reply:", &QXFileRequest::getAclEntriesWithUrl)
template <class P, class... Params>
XpcMethod xpcMethod(std::string selector, void (P::*fn)(Params...)) {
  constexpr std::size_t count = sizeof...(Params);
  if constexpr (count > 0) {
    using Last = std::remove_cvref_t<std::tuple_element_t<count - 1, std::tuple<Params...>>>;
    if constexpr (xpc_detail::ReplyBlock<Last>::value) {
      return xpc_detail::describeWithReply(std::move(selector), fn,
                                           std::make_index_sequence<count - 1>{});
    } else {
      return xpc_detail::describeWithoutReply(std::move(selector), fn,
                                              std::make_index_sequence<count>{});
    }
  } else {
    return xpc_detail::describeWithoutReply(std::move(selector), fn, std::index_sequence<>{});
  }
}

// The same, for a method that may work for long where it is delivered.
template <class P, class... Params>
XpcMethod xpcLongMethod(std::string selector, void (P::*fn)(Params...)) {
  XpcMethod method = xpcMethod(std::move(selector), fn);
  method.worksLong = true;
  return method;
}

}  // namespace qx
