// Hostile input for the incoming side of a connection: one frame payload,
// decoded as a message envelope whose arguments are decoded with the class
// sets the service and the client really use (FuzzArgumentSets), so that they
// reach the model classes. Besides "no crash, no leak, no undefined
// behaviour", it checks that every outcome that is not a message gives a
// reason, that a reply is ignored exactly when nothing waits for it, that a
// decoded message has one argument per set, and that a decoded message
// encodes again into a payload that decodes to the same kind, selector,
// sequence, reason and argument classes.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "fuzz/FuzzArgumentSets.h"
#include "model/ModelClasses.h"
#include "platform/xpc/XpcMessage.h"

using namespace qx;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

const ClassInfo* classOf(const ObjectPtr& object) {
  return object ? &object->objectClass() : nullptr;
}

std::size_t expectedArguments(FuzzArgumentSets& sets, const XpcMessage& message) {
  auto expected = message.kind == XpcMessage::Kind::Invocation
                      ? sets.forInvocation(message.selector)
                      : sets.forReply(message.sequence);
  check(expected.has_value());
  return expected->size();
}

void checkRoundTrip(FuzzArgumentSets& sets, const XpcMessage& message) {
  std::vector<uint8_t> payload = message.encode();
  check(!payload.empty());
  XpcIncoming again = XpcIncoming::decode(payload, sets);
  check(again.status == XpcIncoming::Status::Message);
  const XpcMessage& back = again.message;
  check(back.kind == message.kind && back.selector == message.selector &&
        back.sequence == message.sequence && back.reason == message.reason);
  check(back.arguments.size() == message.arguments.size());
  for (std::size_t i = 0; i < back.arguments.size(); ++i) {
    check(classOf(back.arguments[i]) == classOf(message.arguments[i]));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  registerModelClasses();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzArgumentSets sets;
  XpcIncoming incoming = XpcIncoming::decode(std::span<const uint8_t>(data, size), sets);
  const XpcMessage& message = incoming.message;
  switch (incoming.status) {
    case XpcIncoming::Status::ProtocolError:
    case XpcIncoming::Status::Refuse:
    case XpcIncoming::Status::BadReply:
      check(!incoming.reason.empty());
      return 0;
    case XpcIncoming::Status::Ignore:
      check(message.kind == XpcMessage::Kind::Reply && !sets.forReply(message.sequence));
      return 0;
    case XpcIncoming::Status::Message:
      break;
  }
  if (message.kind != XpcMessage::Kind::Refusal) {
    check(message.arguments.size() == expectedArguments(sets, message));
  }
  if (message.kind == XpcMessage::Kind::Reply) check(message.sequence > 0);
  checkRoundTrip(sets, message);
  return 0;
}
