#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "platform/foundation/ClassSet.h"
#include "platform/xpc/XpcProtocol.h"

namespace qx {

// A protocol as one connection uses it: the protocol's methods plus the sets
// of classes allowed in each incoming argument.
//
// An argument without a set of its own accepts its declared class; an array or
// dictionary argument without a set also accepts the property-list classes
// (NSString, NSNumber, NSData, NSArray, NSDictionary) as elements. Each
// argument is decoded with its own set.
class XpcInterface {
 public:
  explicit XpcInterface(const XpcProtocol& protocol) : protocol_(protocol) {}
  static std::shared_ptr<XpcInterface> interfaceWithProtocol(const XpcProtocol& protocol) {
    return std::make_shared<XpcInterface>(protocol);
  }

  const XpcProtocol& protocol() const { return protocol_; }

  // Restricts argument `argumentIndex` of `selector` (of its reply block when
  // `ofReply`) to `classes`. False, changing nothing, for a selector the
  // protocol lacks or an index beyond its arguments: a rule that does not
  // apply would leave the argument with its default classes, so every caller
  // checks.
  [[nodiscard]] bool setClasses(const ClassSet& classes, std::string_view selector,
                                std::size_t argumentIndex, bool ofReply);
  // The same for the protocol method `method` (&QXFileRequest::renameUrls).
  template <class F>
  requires std::is_member_function_pointer_v<F>
  [[nodiscard]] bool setClasses(const ClassSet& classes, F method, std::size_t argumentIndex,
                                bool ofReply) {
    const XpcMethod* described = protocol_.method(method);
    return described && setClasses(classes, described->selector, argumentIndex, ofReply);
  }
  // The set that decodes that argument (empty for an unknown argument).
  ClassSet classes(std::string_view selector, std::size_t argumentIndex, bool ofReply) const;
  // The sets of every argument of `selector` (of its reply block when
  // `ofReply`); nullopt for a selector the protocol lacks.
  std::optional<std::vector<ClassSet>> argumentClasses(std::string_view selector,
                                                       bool ofReply) const;

  // The default set for an argument of `kind`.
  static ClassSet defaultClasses(const XpcArgumentKind& kind);

 private:
  using Key = std::tuple<std::string, std::size_t, bool>;

  const XpcProtocol& protocol_;
  mutable std::mutex mutex_;
  std::map<Key, ClassSet> sets_;
};

}  // namespace qx
