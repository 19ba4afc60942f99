#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Object.h"

namespace qx {

class KeyedArchiveWriter;

// The three messages that cross a connection. Each frame holds one keyed
// archive whose root is a dictionary:
//
//   invocation  "selector" (string), "arguments" (array, nil as $null),
//               "sequence" (integer; > 0 when a reply is expected, else 0)
//   reply       "replyTo" (the invocation's sequence), "arguments" (array of
//               the reply block's arguments; a BOOL as a boolean number)
//   refusal     "refused" (the invocation's sequence), "reason" (string)
struct XpcMessage {
  enum class Kind { Invocation, Reply, Refusal };

  Kind kind = Kind::Invocation;
  std::string selector;              // invocation
  uint64_t sequence = 0;             // invocation: its own; reply: replyTo; refusal: refused
  std::vector<ObjectPtr> arguments;  // invocation and reply
  std::string reason;                // refusal

  static XpcMessage invocation(std::string selector, std::vector<ObjectPtr> arguments,
                               uint64_t sequence);
  static XpcMessage reply(uint64_t replyTo, std::vector<ObjectPtr> arguments);
  static XpcMessage refusal(uint64_t refused, std::string reason);

  // The keyed archive of the message (the frame payload). A message whose
  // arguments are all nil, numbers or strings is written from their values
  // (KeyedArchiveWriter); any other goes through encodeObjectGraph.
  std::vector<uint8_t> encode() const;
  // The same bytes, always made by archiving the message as objects
  // (KeyedArchiver).
  std::vector<uint8_t> encodeObjectGraph() const;

  // Writes one argument into the archive without an object and answers its
  // UID. It may be called more than once for one message
  // (KeyedArchiveWriter::archiveOfRoot) and must write the same each time.
  using ArgumentWriter = std::function<uint32_t(KeyedArchiveWriter&)>;
  // The payload that encode() makes for an invocation whose arguments are
  // objects with the contents `arguments` write: the same bytes, for the
  // messages sent often enough to be written from plain values. Empty when
  // memory runs out.
  static std::vector<uint8_t> encodeInvocation(std::string_view selector,
                                               std::span<const ArgumentWriter> arguments,
                                               uint64_t sequence);
};

// The sets that decode the arguments of incoming messages, one per argument.
class XpcArgumentSets {
 public:
  virtual ~XpcArgumentSets() = default;
  // nullopt for a selector the exported interface does not have.
  virtual std::optional<std::vector<ClassSet>> forInvocation(std::string_view selector) = 0;
  // nullopt when no invocation with that sequence waits for a reply.
  virtual std::optional<std::vector<ClassSet>> forReply(uint64_t replyTo) = 0;
};

// What one incoming frame turned out to be.
struct XpcIncoming {
  enum class Status {
    Message,        // decoded: `message` is complete
    Refuse,         // an invocation to refuse: message.sequence and `reason` are set
    BadReply,       // a reply whose arguments were refused: message.sequence, `reason`
    Ignore,         // a reply to nothing pending
    ProtocolError,  // not a message of these shapes: the connection must end
  };

  Status status = Status::ProtocolError;
  XpcMessage message;
  std::string reason;

  // Decodes one frame payload, each argument with its own set.
  static XpcIncoming decode(std::span<const uint8_t> payload, XpcArgumentSets& sets);
};

}  // namespace qx
