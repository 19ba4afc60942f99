#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcMessage.h"

// The argument sets both ends of a service connection decode with, for the
// message fuzzer and its corpus maker:
// - invocations: the service's exported QXFileRequest interface with the class
//   rules QXFileService adds, and the client's exported QXFileResponse
//   interface with the rule the client library adds (their selectors differ,
//   so one lookup serves both ends);
// - replies: a pending invocation is chosen by `replyTo` modulo 10: 0 is
//   nothing pending, 1 to 7 are the request methods with the client's answer
//   sets, 8 and 9 the response methods with the service's default sets.
// The rules are the protocols' own (QXFileRequest::restrictArguments and
// restrictReplies, QXFileResponse::restrictArguments).
class FuzzArgumentSets final : public qx::XpcArgumentSets {
 public:
  FuzzArgumentSets();

  std::optional<std::vector<qx::ClassSet>> forInvocation(std::string_view selector) override;
  std::optional<std::vector<qx::ClassSet>> forReply(uint64_t replyTo) override;

  // The selector whose reply `replyTo` answers; "" for nothing pending.
  static std::string replySelector(uint64_t replyTo);
  // The smallest replyTo that answers `selector`.
  static uint64_t replyToFor(std::string_view selector);

 private:
  std::shared_ptr<qx::XpcInterface> serviceExported_;
  std::shared_ptr<qx::XpcInterface> clientExported_;
  std::shared_ptr<qx::XpcInterface> clientRemote_;
  std::shared_ptr<qx::XpcInterface> serviceRemote_;
};
