#pragma once

#include <sys/socket.h>

#include <cassert>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "platform/dispatch/AnswerSource.h"
#include "platform/dispatch/OnceCallback.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Error.h"
#include "platform/xpc/UniqueFd.h"
#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcMessage.h"

namespace qx {

struct XpcMessage;
class XpcListener;

// Receives the reply arguments of one invocation.
using XpcReplyHandler = OnceCallback<void(std::vector<ObjectPtr>)>;
// Receives why an invocation got no reply: refused by the peer, a reply that
// could not be decoded, or the connection invalidated first.
using XpcErrorHandler = OnceCallback<void(ErrorPtr)>;

// Codes of the errors handed to error handlers (domain NSCocoaErrorDomain).
inline constexpr int64_t kXpcConnectionInvalidError = 4099;
inline constexpr int64_t kXpcConnectionRefusedError = 4864;

// One end of a connection over a Unix stream socket.
//
// Threads: after resume(), two reader threads take turns reading and decoding
// frames. Invocations of the exported object are delivered, in arrival order,
// on the connection's serial delivery queue; replies to this end's own calls
// (and their error handlers) on its serial reply queue. The two never wait
// for each other: while an invocation works, however long, the socket is
// still read and replies still reach whoever waits for them.
//
// A thread that waits for the reply to its own call (ReplyWaiter) reads that
// reply itself when it can: the reader that delivers a reply to a waiting
// thread lends it the reading turn, and the borrower keeps the loan between
// its calls, reading the socket while it waits. So a worker asking one
// question after another is woken once per answer, by the socket, with no
// thread in between. While it borrows, the borrower runs its own reply only;
// every other message goes onto its queue. The loan ends when the borrower
// sends something that expects no reply (its work is over), when the
// connection is invalidated, or when the borrower leaves the turn unused for
// kReadingLoanIdle: a reader then takes it back, so no message waits longer
// than that for a borrower busy elsewhere.
//
// When a queue is idle, the reader that read a message may run its delivery
// itself, which saves a thread switch, and then reads on; should the delivery
// block, the other reader takes over the reading first. Before it runs an
// invocation of a method that may work for long (XpcMethod::worksLong), it
// hands the reading over at once. Sends may come from any thread: each message is
// encoded on the sending thread and written whole under the connection's
// send lock, so frames never interleave.
//
// A call that gets no reply (refused, its reply undecodable, the connection
// invalidated first, or sent on an invalid connection) has its reply handler
// dropped uncalled; when the call has an error handler, that runs first, on
// the reply queue, and the reply handler is dropped right after it. Without
// one, the reply handler is dropped at once, so whoever waits on it is
// released at once.
//
// Lifetime: a resumed connection keeps itself alive until it is invalidated
// (peer closed, protocol error, or invalidate()). Invalidation shuts the socket
// down, ends the pending calls as above (kXpcConnectionInvalidError), releases
// the exported object once the deliveries holding it have finished, and runs
// the invalidation handler once, on the delivery queue. Sends on an invalid
// connection are dropped.
class XpcConnection : public std::enable_shared_from_this<XpcConnection>, public AnswerSource {
 public:
  // How long a thread may leave a lent reading turn unused before a reader
  // takes it back.
  static constexpr std::chrono::milliseconds kReadingLoanIdle{10};

  // A connection over a connected stream socket (an accepted peer, one end of
  // a socketpair, a client socket).
  static std::shared_ptr<XpcConnection> withSocket(UniqueFd socket);
  // Connects to the per-user service, starting `servicePath` when nothing
  // answers (see XpcServiceSocket). Nil, with `error` set, on failure.
  static std::shared_ptr<XpcConnection> connectToService(const std::string& servicePath,
                                                         ErrorPtr* error = nullptr);

  explicit XpcConnection(UniqueFd socket);
  ~XpcConnection();
  XpcConnection(const XpcConnection&) = delete;
  XpcConnection& operator=(const XpcConnection&) = delete;

  // Configuration, before resume().
  void setRemoteObjectInterface(std::shared_ptr<XpcInterface> interface);
  std::shared_ptr<XpcInterface> remoteObjectInterface() const;
  void setExportedInterface(std::shared_ptr<XpcInterface> interface);
  std::shared_ptr<XpcInterface> exportedInterface() const;
  // `object` implements the exported interface's protocol P (name P
  // explicitly when passing a derived class: setExportedObject<QXFileRequest>).
  // False, changing nothing, when P is not that protocol.
  template <class P>
  bool setExportedObject(std::shared_ptr<P> object);
  std::shared_ptr<void> exportedObject() const;
  void setInvalidationHandler(std::function<void()> handler);

  // Starts reading. Invocations that arrived before are delivered from now on.
  void resume();
  void invalidate();
  bool isValid() const;

  // An object implementing the remote interface's protocol P whose calls are
  // sent to the peer. Nil when the remote interface is not P's or P has no
  // proxy class. The error handler runs (on the delivery queue) for each call
  // that gets no reply.
  template <class P>
  std::shared_ptr<P> remoteObjectProxy() {
    return remoteObjectProxyWithErrorHandler<P>(nullptr);
  }
  template <class P>
  std::shared_ptr<P> remoteObjectProxyWithErrorHandler(std::function<void(ErrorPtr)> handler);

  // Sends an invocation now, from the calling thread. With a reply handler,
  // the invocation carries a sequence number and the handler waits for the
  // reply, then runs on the reply queue; without one, no reply is expected.
  // Either `reply` runs, or (see above) `onError`, when given, runs and
  // `reply` is dropped uncalled.
  void sendInvocation(std::string selector, std::vector<ObjectPtr> arguments,
                      XpcReplyHandler reply = nullptr, XpcErrorHandler onError = nullptr);
  // The same for arguments written into the archive by `arguments`
  // (XpcMessage::encodeInvocation) instead of archived as objects.
  void sendWrittenInvocation(std::string selector,
                             std::span<const XpcMessage::ArgumentWriter> arguments,
                             XpcReplyHandler reply = nullptr, XpcErrorHandler onError = nullptr);

  // True on the thread of this connection's delivery queue.
  bool isDeliveryQueueCurrent() const { return deliveryQueue_.isCurrent(); }
  // True on the thread of this connection's reply queue.
  bool isReplyQueueCurrent() const { return replyQueue_.isCurrent(); }
  // The peer's process credentials, read when the connection was made.
  std::optional<ucred> peerCredentials() const { return peer_; }

  // The wait for the reply to the invocation numbered `sequence`, sent by the
  // calling thread (see ReplyWaiter): read on this thread while it holds a
  // lent reading turn, otherwise a plain wait on `done`.
  void waitFor(Semaphore& done, uint64_t sequence) override;

 private:
  friend class XpcListener;
  struct Pending {
    std::string selector;
    std::vector<ClassSet> replySets;
    XpcReplyHandler reply;
    XpcErrorHandler onError;
    std::thread::id waiter{};  // the thread waiting for the reply, once it said so
  };
  class IncomingSets;

  void setExportedObjectPointer(std::shared_ptr<void> object);
  // Runs once, when the connection object is destroyed (for the listener:
  // by then no request holds it).
  void setClosedObserver(std::function<void()> observer);

  static void readLoop(std::shared_ptr<XpcConnection> self);
  // One message's work and the queue it runs on.
  struct Delivery {
    Task task;
    SerialQueue* queue = nullptr;
    bool worksLong = false;    // an invocation of a method that may work for long
    uint64_t replyTo = 0;      // for a reply: the invocation it answers
    std::thread::id waiter{};  // for a reply: the thread waiting for it, if known
  };
  // Decodes the complete frames in `bytes`: the first delivery goes to `mine`
  // when its queue could be claimed, the rest onto their queues. With
  // `ownReply`, only the reply to that invocation may go to `mine`. False for
  // a protocol error.
  bool takeFrames(std::span<const uint8_t> bytes, Delivery& mine, uint64_t ownReply = 0);
  // Runs a delivery on the reader thread that claimed its queue; false when
  // the reading turn was passed on (before an invocation, or because a reply
  // handler blocked).
  bool deliverInline(Delivery& delivery);
  bool awaitReadingTurn();
  void passReadingTurn();
  void endReading();
  // The reading loan (see the class comment).
  bool markWaiter(uint64_t sequence);
  bool useLoan();
  void endLoanUse();
  void lendReadingTurn(std::thread::id borrower);
  // Ends a loan that is not being used (with `onlyThisThreads`, only when the
  // calling thread is the borrower).
  void returnLoan(bool onlyThisThreads);
  // The borrower's reading, until `done` is signalled.
  void readOwnReply(Semaphore& done, uint64_t sequence);
  bool isPending(uint64_t sequence);
  // Decodes one frame into the delivery it calls for (none for some); false
  // for a protocol error.
  bool handleFrame(std::span<const uint8_t> payload, Delivery& delivery);
  // Ends a call that gets no reply: its error handler, when it has one, as a
  // task for the reply queue that drops the reply handler after it; without
  // one, the reply handler is dropped now and there is no task.
  static Task noReplyTask(Pending pending, int64_t code, std::string reason);
  // Runs an invocation of `method` (nil: none of the exported interface's
  // protocol) on the exported object.
  void deliverInvocation(XpcMessage message, std::shared_ptr<XpcInterface> interface,
                         const XpcMethod* method);
  void sendMessage(const XpcMessage& message);
  // Sends the invocation whose payload `encode(selector, sequence)` makes.
  void sendEncodedInvocation(
      std::string selector,
      const std::function<std::vector<uint8_t>(const std::string&, uint64_t)>& encode,
      XpcReplyHandler reply, XpcErrorHandler onError);
  bool writeFrame(std::span<const uint8_t> payload);
  std::optional<Pending> takePending(uint64_t sequence);
  void endWithoutReply(Pending pending, int64_t code, std::string reason);

  UniqueFd socket_;
  std::optional<ucred> peer_;
  SerialQueue deliveryQueue_;
  SerialQueue replyQueue_;

  mutable std::mutex mutex_;  // everything below except sendMutex_
  bool resumed_ = false;
  bool invalidated_ = false;
  uint64_t nextSequence_ = 0;
  std::map<uint64_t, Pending> pending_;
  std::shared_ptr<XpcInterface> remoteInterface_;
  std::shared_ptr<XpcInterface> exportedInterface_;
  std::shared_ptr<void> exportedObject_;
  std::function<void()> invalidationHandler_;
  std::function<void()> closedObserver_;

  std::mutex sendMutex_;  // held while one frame is written

  // The reading turn: one reader thread at a time reads, decodes and decides
  // where each delivery runs; frames_ belongs to the turn holder.
  std::mutex readMutex_;
  std::condition_variable turnFree_;
  bool turnTaken_ = false;
  bool readerDone_ = false;
  XpcFrameReader frames_;
  std::thread::id borrower_;         // holds the turn on loan; none when not lent
  bool loanInUse_ = false;           // the borrower is reading
  uint64_t loanUses_ = 0;            // counts the loan's uses, for its idle time
  std::vector<uint8_t> loanBuffer_;  // the borrower's read buffer
};

template <class P>
bool XpcConnection::setExportedObject(std::shared_ptr<P> object) {
  auto interface = exportedInterface();
  if (!interface || interface->protocol().type() != typeid(P)) {
    assert(!"the exported object does not implement the exported interface's protocol");
    return false;
  }
  setExportedObjectPointer(std::shared_ptr<void>(object, static_cast<void*>(object.get())));
  return true;
}

template <class P>
std::shared_ptr<P> XpcConnection::remoteObjectProxyWithErrorHandler(
    std::function<void(ErrorPtr)> handler) {
  auto interface = remoteObjectInterface();
  if (!interface || interface->protocol().type() != typeid(P)) return nullptr;
  return std::static_pointer_cast<P>(
      interface->protocol().makeProxy(shared_from_this(), std::move(handler)));
}

}  // namespace qx
