#include "platform/xpc/XpcListener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/foundation/Dictionary.h"
#include "platform/foundation/String.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcServiceSocket.h"

namespace qx {

using Clock = std::chrono::steady_clock;

namespace {

// How long the listener waits before accepting again when the process ran out
// of descriptors.
constexpr int kResourceRetryMilliseconds = 100;

}  // namespace

// What the listener shares with the close observers of its connections, which
// may outlive it.
struct XpcListener::Shared {
  std::mutex mutex;
  std::size_t open = 0;
  Clock::time_point idleSince = Clock::now();
  bool stopped = false;
  UniqueFd wake{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

  void poke() {
    uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wake.get(), &one, sizeof one);
  }
  void drain() {
    uint64_t count;
    [[maybe_unused]] auto got = ::read(wake.get(), &count, sizeof count);
  }
};

std::shared_ptr<XpcListener> XpcListener::serviceListener(ErrorPtr* error) {
  std::string why;
  UniqueFd listening = XpcServiceSocket::serviceListeningSocket(&why);
  if (!listening) {
    if (error) {
      *error = Error::errorWithDomain(
          kCocoaErrorDomain, kXpcConnectionInvalidError,
          Dictionary::withStringKeys({{kLocalizedDescriptionKey, str(why)}}));
    }
    return nullptr;
  }
  auto listener = listenerWithSocket(std::move(listening));
  listener->setIdleExitDelay(XpcServiceSocket::idleExitDelay());
  return listener;
}

std::shared_ptr<XpcListener> XpcListener::listenerWithSocket(UniqueFd listening) {
  return std::make_shared<XpcListener>(std::move(listening));
}

XpcListener::XpcListener(UniqueFd listening)
    : listening_(std::move(listening)), shared_(std::make_shared<Shared>()) {}

XpcListener::~XpcListener() = default;

void XpcListener::setDelegate(std::shared_ptr<XpcListenerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<XpcListenerDelegate> XpcListener::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void XpcListener::setIdleExitDelay(std::optional<std::chrono::milliseconds> delay) {
  std::lock_guard lock(mutex_);
  idleDelay_ = delay;
}

std::size_t XpcListener::connectionCount() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->open;
}

void XpcListener::invalidate() {
  {
    std::lock_guard lock(shared_->mutex);
    shared_->stopped = true;
  }
  shared_->poke();
}

void XpcListener::resume() {
  std::optional<std::chrono::milliseconds> idleDelay;
  {
    std::lock_guard lock(mutex_);
    idleDelay = idleDelay_;
  }
  while (listening_) {
    // Time left before an idle stop, or -1 (no limit) while connections are open.
    int timeout = -1;
    bool idleOver = false;
    {
      std::lock_guard lock(shared_->mutex);
      if (shared_->stopped) return;
      if (idleDelay && shared_->open == 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            shared_->idleSince + *idleDelay - Clock::now());
        idleOver = left.count() <= 0;
        timeout = idleOver ? 0 : static_cast<int>(std::min<long long>(left.count() + 1, 1 << 30));
      }
    }
    if (idleOver && stopWhenIdle()) return;
    pollfd fds[2] = {{listening_.get(), POLLIN, 0}, {shared_->wake.get(), POLLIN, 0}};
    int ready = ::poll(fds, 2, timeout);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) shared_->drain();
    if ((fds[0].revents & POLLIN) && !acceptOne()) waitForResources();
    if (fds[0].revents & (POLLERR | POLLNVAL)) return;
  }
}

// The connection that could not be accepted keeps the socket readable: polling
// it again at once would spin until a descriptor frees up. A short pause, cut
// short by invalidate(), lets the process catch up first.
void XpcListener::waitForResources() {
  pollfd wake{shared_->wake.get(), POLLIN, 0};
  if (::poll(&wake, 1, kResourceRetryMilliseconds) > 0) shared_->drain();
}

bool XpcListener::stopWhenIdle() {
  std::string path = XpcServiceSocket::boundPath(listening_.get());
  std::optional<XpcLockFile> lock;
  if (!path.empty()) lock.emplace(XpcServiceSocket::lockPathForSocket(path));
  // Clients connect under the shared lock: with the exclusive one held, a
  // connection is either waiting now or will find the socket closed. One that
  // is waiting is served rather than left.
  pollfd pending{listening_.get(), POLLIN, 0};
  if (::poll(&pending, 1, 0) > 0) {
    acceptOne();
    return false;
  }
  listening_.reset();
  return true;
}

bool XpcListener::acceptOne() {
  UniqueFd socket(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!socket) {
    return errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM;
  }
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
      peer.uid != ::geteuid())
    return true;  // another user's peer: closed at once

  auto connection = XpcConnection::withSocket(std::move(socket));
  {
    std::lock_guard lock(shared_->mutex);
    ++shared_->open;
  }
  connection->setClosedObserver([shared = shared_] {
    {
      std::lock_guard lock(shared->mutex);
      if (--shared->open == 0) shared->idleSince = Clock::now();
    }
    shared->poke();
  });
  auto delegate = this->delegate();
  bool accepted = delegate && delegate->shouldAcceptNewConnection(*this, connection);
  if (!accepted) connection->invalidate();
  return true;
}

}  // namespace qx
