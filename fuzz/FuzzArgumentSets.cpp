#include "fuzz/FuzzArgumentSets.h"

#include <cstdlib>

#include "protocol/QXFileRequest.h"
#include "protocol/QXFileResponse.h"

using namespace qx;

namespace {

// The selectors whose replies the fuzzer may see pending, in the protocols'
// declaration order: the requests, then the callbacks.
std::vector<std::string> replySelectors() {
  std::vector<std::string> selectors;
  for (const XpcProtocol* protocol : {&QXFileRequest::protocol(), &QXFileResponse::protocol()}) {
    for (const XpcMethod& method : protocol->methods()) selectors.push_back(method.selector);
  }
  return selectors;
}

const std::vector<std::string>& kReplySelectors() {
  static const std::vector<std::string> selectors = replySelectors();
  return selectors;
}

std::size_t firstResponseSelector() {
  return QXFileRequest::protocol().methods().size();
}

}  // namespace

FuzzArgumentSets::FuzzArgumentSets()
    : serviceExported_(XpcInterface::interfaceWithProtocol(QXFileRequest::protocol())),
      clientExported_(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol())),
      clientRemote_(XpcInterface::interfaceWithProtocol(QXFileRequest::protocol())),
      serviceRemote_(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol())) {
  // The rules both ends set, taken from the protocols themselves.
  if (!QXFileRequest::restrictArguments(*serviceExported_) ||
      !QXFileResponse::restrictArguments(*clientExported_) ||
      !QXFileRequest::restrictReplies(*clientRemote_))
    std::abort();
}

std::optional<std::vector<ClassSet>> FuzzArgumentSets::forInvocation(std::string_view selector) {
  if (auto sets = serviceExported_->argumentClasses(selector, false)) return sets;
  return clientExported_->argumentClasses(selector, false);
}

std::optional<std::vector<ClassSet>> FuzzArgumentSets::forReply(uint64_t replyTo) {
  const std::size_t slot = replyTo % 10;
  if (slot == 0) return std::nullopt;
  if (slot > kReplySelectors().size()) return std::nullopt;
  const std::string& selector = kReplySelectors()[slot - 1];
  const auto& interface = slot - 1 < firstResponseSelector() ? clientRemote_ : serviceRemote_;
  return interface->argumentClasses(selector, true);
}

std::string FuzzArgumentSets::replySelector(uint64_t replyTo) {
  const std::size_t slot = replyTo % 10;
  return slot == 0 || slot > kReplySelectors().size() ? std::string() : kReplySelectors()[slot - 1];
}

uint64_t FuzzArgumentSets::replyToFor(std::string_view selector) {
  for (std::size_t i = 0; i < kReplySelectors().size(); ++i) {
    if (kReplySelectors()[i] == selector) return i + 1;
  }
  return 0;
}
