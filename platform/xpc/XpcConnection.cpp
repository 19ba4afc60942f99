#include "platform/xpc/XpcConnection.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "platform/dispatch/BeforeBlocking.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/String.h"
#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcMessage.h"
#include "platform/xpc/XpcServiceSocket.h"

namespace qx {
namespace {

ErrorPtr connectionError(int64_t code, const std::string& reason) {
  return Error::errorWithDomain(
      kCocoaErrorDomain, code,
      Dictionary::withStringKeys({{kLocalizedDescriptionKey, str(reason)}}));
}

// The connection whose reader runs on this thread, if any.
thread_local const XpcConnection* tReaderOf = nullptr;

std::optional<ucred> readPeerCredentials(int fd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
  return credentials;
}

}  // namespace

// The argument sets of incoming messages: the exported interface's for
// invocations, the remote interface's (fixed when the invocation was sent) for
// replies.
class XpcConnection::IncomingSets final : public XpcArgumentSets {
 public:
  explicit IncomingSets(XpcConnection& connection) : connection_(connection) {}

  std::optional<std::vector<ClassSet>> forInvocation(std::string_view selector) override {
    auto interface = connection_.exportedInterface();
    if (!interface) return std::nullopt;
    return interface->argumentClasses(selector, false);
  }

  std::optional<std::vector<ClassSet>> forReply(uint64_t replyTo) override {
    std::lock_guard lock(connection_.mutex_);
    auto found = connection_.pending_.find(replyTo);
    if (found == connection_.pending_.end()) return std::nullopt;
    return found->second.replySets;
  }

 private:
  XpcConnection& connection_;
};

std::shared_ptr<XpcConnection> XpcConnection::withSocket(UniqueFd socket) {
  return std::make_shared<XpcConnection>(std::move(socket));
}

std::shared_ptr<XpcConnection> XpcConnection::connectToService(const std::string& servicePath,
                                                               ErrorPtr* error) {
  std::string why;
  UniqueFd socket = XpcServiceSocket::connectStartingService(servicePath, &why);
  if (!socket) {
    if (error) *error = connectionError(kXpcConnectionInvalidError, why);
    return nullptr;
  }
  return withSocket(std::move(socket));
}

XpcConnection::XpcConnection(UniqueFd socket)
    : socket_(std::move(socket)),
      peer_(readPeerCredentials(socket_.get())),
      deliveryQueue_("qx.xpc.delivery"),
      replyQueue_("qx.xpc.replies") {}

XpcConnection::~XpcConnection() {
  // A resumed connection is held by its reader until it is invalidated, so
  // only a connection never resumed gets here still valid.
  std::map<uint64_t, Pending> dropped;
  std::function<void()> handler;
  std::function<void()> observer;
  bool wasValid;
  {
    std::lock_guard lock(mutex_);
    wasValid = !std::exchange(invalidated_, true);
    dropped.swap(pending_);
    handler = std::move(invalidationHandler_);
    observer = std::move(closedObserver_);
    exportedObject_.reset();
  }
  if (wasValid) {
    if (socket_) ::shutdown(socket_.get(), SHUT_RDWR);
    for (auto& entry : dropped) {
      if (Task task = noReplyTask(std::move(entry.second), kXpcConnectionInvalidError,
                                  "The connection was invalidated."))
        task();
    }
    if (handler) handler();
  }
  // Last: nothing holds the connection any more, not even a request still
  // running with the exported object.
  if (observer) observer();
}

void XpcConnection::setRemoteObjectInterface(std::shared_ptr<XpcInterface> interface) {
  std::lock_guard lock(mutex_);
  remoteInterface_ = std::move(interface);
}

std::shared_ptr<XpcInterface> XpcConnection::remoteObjectInterface() const {
  std::lock_guard lock(mutex_);
  return remoteInterface_;
}

void XpcConnection::setExportedInterface(std::shared_ptr<XpcInterface> interface) {
  std::lock_guard lock(mutex_);
  exportedInterface_ = std::move(interface);
}

std::shared_ptr<XpcInterface> XpcConnection::exportedInterface() const {
  std::lock_guard lock(mutex_);
  return exportedInterface_;
}

void XpcConnection::setExportedObjectPointer(std::shared_ptr<void> object) {
  std::shared_ptr<void> previous;
  std::lock_guard lock(mutex_);
  if (invalidated_) return;
  previous = std::exchange(exportedObject_, std::move(object));
}

std::shared_ptr<void> XpcConnection::exportedObject() const {
  std::lock_guard lock(mutex_);
  return exportedObject_;
}

void XpcConnection::setInvalidationHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  invalidationHandler_ = std::move(handler);
}

void XpcConnection::setClosedObserver(std::function<void()> observer) {
  std::lock_guard lock(mutex_);
  closedObserver_ = std::move(observer);
}

bool XpcConnection::isValid() const {
  std::lock_guard lock(mutex_);
  return !invalidated_;
}

void XpcConnection::resume() {
  {
    std::lock_guard lock(mutex_);
    if (resumed_ || invalidated_) return;
    resumed_ = true;
  }
  std::thread(&XpcConnection::readLoop, shared_from_this()).detach();
  std::thread(&XpcConnection::readLoop, shared_from_this()).detach();
}

void XpcConnection::invalidate() {
  auto self = weak_from_this().lock();  // dropped handlers may hold the last reference
  std::map<uint64_t, Pending> dropped;
  {
    std::lock_guard lock(mutex_);
    if (invalidated_) return;
    invalidated_ = true;
    dropped.swap(pending_);
  }
  ::shutdown(socket_.get(), SHUT_RDWR);  // the peer sees the end; our reader wakes up
  returnLoan(false);                     // an idle loan: a reader reads the end now
  // Calls without an error handler release whoever waits on them, now.
  std::vector<Task> errorTasks;
  for (auto& entry : dropped) {
    if (Task task = noReplyTask(std::move(entry.second), kXpcConnectionInvalidError,
                                "The connection was invalidated."))
      errorTasks.push_back(std::move(task));
  }
  if (!self) return;
  for (Task& task : errorTasks) replyQueue_.async(std::move(task));
  deliveryQueue_.async([self] {
    std::shared_ptr<void> exported;
    std::function<void()> handler;
    {
      std::lock_guard lock(self->mutex_);
      exported = std::move(self->exportedObject_);
      handler = std::move(self->invalidationHandler_);
    }
    exported.reset();  // after every delivery queued before this task
    if (handler) handler();
  });
}

// Two threads run this loop and take turns: the one holding the reading turn
// reads and decodes. It runs a delivery itself when the delivery queue is
// idle, and then reads on, so a connection that answers quickly costs one
// thread switch per message. Should the delivery block (BeforeBlocking), the
// turn passes to the other thread first: reading never waits for the exported
// object, a reply handler or a blocked write. Every dispatch decision is made
// by the turn holder, so deliveries keep arrival order, and at most one
// reader is ever inside a delivery.
void XpcConnection::readLoop(std::shared_ptr<XpcConnection> self) {
  setCurrentThreadName("qx.xpc.reader");
  tReaderOf = self.get();
  std::vector<uint8_t> buffer(64 * 1024);
  while (self->awaitReadingTurn()) {
    bool holdingTurn = true;
    while (holdingTurn) {
      ssize_t received = ::read(self->socket_.get(), buffer.data(), buffer.size());
      if (received < 0 && errno == EINTR) continue;
      Delivery mine;
      bool healthy = received > 0 && self->takeFrames({buffer.data(), std::size_t(received)}, mine);
      if (!healthy) {
        self->endReading();
        if (mine.task) self->deliverInline(mine);
        self->invalidate();
        return;
      }
      if (mine.task) holdingTurn = self->deliverInline(mine);
    }
  }
}

bool XpcConnection::takeFrames(std::span<const uint8_t> bytes, Delivery& mine, uint64_t ownReply) {
  frames_.append(bytes);
  for (;;) {
    auto payload = frames_.next();
    if (!payload) return !frames_.failed();
    Delivery delivery;
    if (!handleFrame(*payload, delivery)) return false;
    if (!delivery.task) continue;
    bool mayRunHere = ownReply == 0 || delivery.replyTo == ownReply;
    if (!mine.task && mayRunHere && delivery.queue->tryClaim()) {
      mine = std::move(delivery);
    } else {
      delivery.queue->async(std::move(delivery.task));
    }
  }
}

bool XpcConnection::deliverInline(Delivery& delivery) {
  if (delivery.worksLong) {
    // The other reader reads while this one works.
    passReadingTurn();
    delivery.task();
    delivery.queue->releaseClaim();
    return false;
  }
  struct Turn {
    XpcConnection* connection;
    bool passed = false;
  } turn{this};
  {
    BeforeBlocking::Scope scope(
        [](void* context) {
          auto* held = static_cast<Turn*>(context);
          held->passed = true;
          held->connection->passReadingTurn();
        },
        &turn);
    delivery.task();
  }
  delivery.queue->releaseClaim();
  if (turn.passed) return false;
  if (delivery.waiter != std::thread::id()) {
    lendReadingTurn(delivery.waiter);
    return false;
  }
  return true;
}

bool XpcConnection::awaitReadingTurn() {
  std::unique_lock lock(readMutex_);
  bool seen = false;  // the loan's use count was read a period ago
  uint64_t usesSeen = 0;
  for (;;) {
    if (readerDone_) return false;
    if (!turnTaken_) {
      turnTaken_ = true;
      return true;
    }
    if (borrower_ == std::thread::id()) {
      seen = false;
      turnFree_.wait(lock);
      continue;
    }
    if (!loanInUse_ && seen && usesSeen == loanUses_) {
      borrower_ = std::thread::id();  // unused for a whole period: taken back
      return true;
    }
    seen = true;
    usesSeen = loanUses_;
    turnFree_.wait_for(lock, kReadingLoanIdle);
  }
}

void XpcConnection::passReadingTurn() {
  {
    std::lock_guard lock(readMutex_);
    turnTaken_ = false;
  }
  turnFree_.notify_one();
}

void XpcConnection::endReading() {
  {
    std::lock_guard lock(readMutex_);
    readerDone_ = true;
    borrower_ = std::thread::id();
    loanInUse_ = false;
  }
  turnFree_.notify_all();
}

bool XpcConnection::markWaiter(uint64_t sequence) {
  std::lock_guard lock(mutex_);
  auto found = pending_.find(sequence);
  if (found == pending_.end()) return false;
  found->second.waiter = std::this_thread::get_id();
  return true;
}

bool XpcConnection::isPending(uint64_t sequence) {
  std::lock_guard lock(mutex_);
  return pending_.count(sequence) > 0;
}

bool XpcConnection::useLoan() {
  std::lock_guard lock(readMutex_);
  if (readerDone_ || borrower_ != std::this_thread::get_id()) return false;
  loanInUse_ = true;
  ++loanUses_;
  return true;
}

void XpcConnection::endLoanUse() {
  std::lock_guard lock(readMutex_);
  loanInUse_ = false;
}

// Called by the turn holder, which keeps the turn taken for the borrower.
void XpcConnection::lendReadingTurn(std::thread::id borrower) {
  {
    std::lock_guard lock(readMutex_);
    borrower_ = borrower;
    loanInUse_ = false;
    ++loanUses_;
  }
  turnFree_.notify_all();  // the readers now wait for the loan's idle time
}

void XpcConnection::returnLoan(bool onlyThisThreads) {
  {
    std::lock_guard lock(readMutex_);
    if (borrower_ == std::thread::id() || loanInUse_) return;
    if (onlyThisThreads && borrower_ != std::this_thread::get_id()) return;
    borrower_ = std::thread::id();
    turnTaken_ = false;
  }
  turnFree_.notify_one();
}

void XpcConnection::waitFor(Semaphore& done, uint64_t sequence) {
  if (tReaderOf != this && markWaiter(sequence) && useLoan()) {
    readOwnReply(done, sequence);
  } else {
    done.wait();
  }
}

void XpcConnection::readOwnReply(Semaphore& done, uint64_t sequence) {
  if (loanBuffer_.empty()) loanBuffer_.resize(64 * 1024);
  for (;;) {
    if (done.tryWait()) {
      endLoanUse();
      return;
    }
    if (!isPending(sequence)) {
      // Its reply went onto the busy reply queue, or the call ended without
      // one: the answer comes from another thread.
      endLoanUse();
      returnLoan(true);
      done.wait();
      return;
    }
    BeforeBlocking::notify();  // a reader of another connection hands its turn over first
    ssize_t received = ::read(socket_.get(), loanBuffer_.data(), loanBuffer_.size());
    if (received < 0 && errno == EINTR) continue;
    Delivery mine;
    bool healthy =
        received > 0 && takeFrames({loanBuffer_.data(), std::size_t(received)}, mine, sequence);
    if (mine.task) {
      mine.task();
      mine.queue->releaseClaim();
    }
    if (!healthy) {
      endReading();
      invalidate();
      done.wait();
      return;
    }
  }
}

std::optional<XpcConnection::Pending> XpcConnection::takePending(uint64_t sequence) {
  std::lock_guard lock(mutex_);
  auto found = pending_.find(sequence);
  if (found == pending_.end()) return std::nullopt;
  Pending pending = std::move(found->second);
  pending_.erase(found);
  return pending;
}

bool XpcConnection::handleFrame(std::span<const uint8_t> payload, Delivery& delivery) {
  IncomingSets sets(*this);
  XpcIncoming incoming = XpcIncoming::decode(payload, sets);
  auto self = shared_from_this();
  uint64_t sequence = incoming.message.sequence;
  switch (incoming.status) {
    case XpcIncoming::Status::ProtocolError:
      return false;
    case XpcIncoming::Status::Ignore:
      return true;
    case XpcIncoming::Status::Refuse:
      // Answered in turn with the invocations before it.
      if (sequence > 0) {
        delivery = {[self, sequence, reason = std::move(incoming.reason)]() mutable {
                      self->sendMessage(XpcMessage::refusal(sequence, std::move(reason)));
                    },
                    &deliveryQueue_};
      }
      return true;
    case XpcIncoming::Status::BadReply:
      if (auto pending = takePending(sequence)) {
        delivery = {noReplyTask(std::move(*pending), kXpcConnectionRefusedError, incoming.reason),
                    &replyQueue_};
      }
      return true;
    case XpcIncoming::Status::Message:
      break;
  }
  XpcMessage& message = incoming.message;
  switch (message.kind) {
    case XpcMessage::Kind::Invocation: {
      auto interface = exportedInterface();
      const XpcMethod* method =
          interface ? interface->protocol().method(message.selector) : nullptr;
      const bool worksLong = method && method->worksLong;
      delivery = {
          [self, message = std::move(message), interface = std::move(interface), method]() mutable {
            self->deliverInvocation(std::move(message), std::move(interface), method);
          },
          &deliveryQueue_, worksLong};
      break;
    }
    case XpcMessage::Kind::Reply:
      if (auto pending = takePending(sequence)) {
        delivery = {
            [reply = std::move(pending->reply),
             arguments = std::move(message.arguments)]() mutable { reply(std::move(arguments)); },
            &replyQueue_, false, sequence, pending->waiter};
      }
      break;
    case XpcMessage::Kind::Refusal:
      if (auto pending = takePending(sequence)) {
        delivery = {noReplyTask(std::move(*pending), kXpcConnectionRefusedError,
                                "The invocation was refused: " + message.reason),
                    &replyQueue_};
      }
      break;
  }
  return true;
}

void XpcConnection::deliverInvocation(XpcMessage message, std::shared_ptr<XpcInterface> interface,
                                      const XpcMethod* method) {
  std::shared_ptr<void> target;
  {
    std::lock_guard lock(mutex_);
    if (invalidated_) return;
    target = exportedObject_;  // held until the method returns
  }
  uint64_t sequence = message.sequence;
  auto refuse = [&](std::string reason) {
    if (sequence > 0) sendMessage(XpcMessage::refusal(sequence, std::move(reason)));
  };
  if (!interface || !method || !target)
    return refuse("no object answers \"" + message.selector + "\"");
  if (sequence > 0 && !method->hasReply)
    return refuse("\"" + message.selector + "\" takes no reply block");

  XpcReplySender sender;
  if (method->hasReply) {
    if (sequence > 0) {
      sender = [weak = weak_from_this(), sequence](std::vector<ObjectPtr> arguments) {
        if (auto connection = weak.lock())
          connection->sendMessage(XpcMessage::reply(sequence, std::move(arguments)));
      };
    } else {
      sender = [](std::vector<ObjectPtr>) {};  // the peer expects no reply
    }
  }
  if (!method->invoke(target.get(), message.arguments, std::move(sender)))
    refuse("\"" + message.selector + "\": an argument is not of its declared class");
}

void XpcConnection::sendInvocation(std::string selector, std::vector<ObjectPtr> arguments,
                                   XpcReplyHandler reply, XpcErrorHandler onError) {
  sendEncodedInvocation(
      std::move(selector),
      [&](const std::string& name, uint64_t sequence) {
        return XpcMessage::invocation(name, std::move(arguments), sequence).encode();
      },
      std::move(reply), std::move(onError));
}

void XpcConnection::sendWrittenInvocation(std::string selector,
                                          std::span<const XpcMessage::ArgumentWriter> arguments,
                                          XpcReplyHandler reply, XpcErrorHandler onError) {
  sendEncodedInvocation(
      std::move(selector),
      [&](const std::string& name, uint64_t sequence) {
        return XpcMessage::encodeInvocation(name, arguments, sequence);
      },
      std::move(reply), std::move(onError));
}

void XpcConnection::sendEncodedInvocation(
    std::string selector,
    const std::function<std::vector<uint8_t>(const std::string&, uint64_t)>& encode,
    XpcReplyHandler reply, XpcErrorHandler onError) {
  std::vector<ClassSet> replySets;
  if (reply) {
    if (auto interface = remoteObjectInterface()) {
      if (auto sets = interface->argumentClasses(selector, true)) replySets = std::move(*sets);
    }
  }
  uint64_t sequence = 0;
  {
    std::unique_lock lock(mutex_);
    if (invalidated_) {
      lock.unlock();
      endWithoutReply(Pending{selector, {}, std::move(reply), std::move(onError)},
                      kXpcConnectionInvalidError, "The connection is invalid.");
      return;
    }
    if (reply) {
      sequence = ++nextSequence_;
      pending_.emplace(
          sequence, Pending{selector, std::move(replySets), std::move(reply), std::move(onError)});
    }
  }
  std::vector<uint8_t> payload = encode(selector, sequence);
  if (payload.empty() || payload.size() > kMaxFramePayload) {
    if (auto pending = takePending(sequence)) {
      endWithoutReply(std::move(*pending), kXpcConnectionRefusedError,
                      "The invocation cannot be sent: its arguments do not fit in a frame.");
    }
    return;
  }
  if (sequence == 0) {
    returnLoan(true);
  } else if (tReaderOf != this) {
    AnswerSource::note(weak_from_this(), sequence);
  }
  if (!writeFrame(payload)) invalidate();
}

void XpcConnection::sendMessage(const XpcMessage& message) {
  if (!isValid()) return;
  returnLoan(true);  // an answer: the borrower's work is over
  std::vector<uint8_t> payload = message.encode();
  if (payload.empty() || payload.size() > kMaxFramePayload) return;
  if (!writeFrame(payload)) invalidate();
}

bool XpcConnection::writeFrame(std::span<const uint8_t> payload) {
  uint8_t header[4];
  XpcFrame::writeHeader(header, static_cast<uint32_t>(payload.size()));
  std::unique_lock lock(sendMutex_, std::try_to_lock);
  if (!lock) {
    BeforeBlocking::notify();
    lock.lock();
  }
  if (!isValid()) return true;  // dropped; the invalidation is under way
  iovec parts[2] = {{header, sizeof header},
                    {const_cast<uint8_t*>(payload.data()), payload.size()}};
  int first = 0;
  while (first < 2) {
    msghdr message{};
    message.msg_iov = parts + first;
    message.msg_iovlen = static_cast<std::size_t>(2 - first);
    ssize_t sent = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EAGAIN) {
      // The peer is not draining: whoever waits for us to read must not wait
      // on this write.
      BeforeBlocking::notify();
      sent = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
    }
    if (sent < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    std::size_t left = static_cast<std::size_t>(sent);
    while (first < 2 && left >= parts[first].iov_len) {
      left -= parts[first].iov_len;
      ++first;
    }
    if (first < 2) {
      parts[first].iov_base = static_cast<uint8_t*>(parts[first].iov_base) + left;
      parts[first].iov_len -= left;
    }
  }
  return true;
}

Task XpcConnection::noReplyTask(Pending pending, int64_t code, std::string reason) {
  if (!pending.onError) return nullptr;  // `pending` goes, and its reply handler with it
  return [onError = std::move(pending.onError), reply = std::move(pending.reply), code,
          reason = std::move(reason)]() mutable {
    onError(connectionError(code, reason));
    reply = nullptr;
  };
}

void XpcConnection::endWithoutReply(Pending pending, int64_t code, std::string reason) {
  Task task = noReplyTask(std::move(pending), code, std::move(reason));
  if (!task) return;
  if (weak_from_this().expired()) {
    task();
  } else {
    replyQueue_.async(std::move(task));
  }
}

}  // namespace qx
