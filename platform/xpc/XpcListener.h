#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/foundation/Error.h"
#include "platform/xpc/UniqueFd.h"
#include "platform/xpc/XpcListenerDelegate.h"

namespace qx {

// Accepts connections on a listening Unix socket and hands each to its
// delegate. Peers of another uid than the service's own are closed at once,
// before the delegate sees them.
class XpcListener {
 public:
  // The process's service listener: the socket handed over by socket
  // activation, else the per-user socket it binds itself. It stops after
  // XpcServiceSocket::idleExitDelay() without connections. Nil, with `error`
  // set, when there is no socket to listen on.
  static std::shared_ptr<XpcListener> serviceListener(ErrorPtr* error = nullptr);
  // A listener on a socket that listens already; no idle stop unless set.
  static std::shared_ptr<XpcListener> listenerWithSocket(UniqueFd listening);

  explicit XpcListener(UniqueFd listening);
  ~XpcListener();
  XpcListener(const XpcListener&) = delete;
  XpcListener& operator=(const XpcListener&) = delete;

  void setDelegate(std::shared_ptr<XpcListenerDelegate> delegate);
  std::shared_ptr<XpcListenerDelegate> delegate() const;
  // Stop accepting once no connection has been open for `delay`.
  void setIdleExitDelay(std::optional<std::chrono::milliseconds> delay);

  // Accepts connections on the calling thread. Returns when the listener is
  // invalidated or, with an idle delay, when no connection has existed for
  // that long (the listening socket is then closed while the start-on-demand
  // lock is held, so that a client starting the service at that moment starts
  // a new one rather than meeting a service on its way out).
  void resume();
  // Makes resume() return; callable from any thread.
  void invalidate();
  // Connections accepted and not yet gone: invalidated, and released by every
  // request that held them.
  std::size_t connectionCount() const;

 private:
  struct Shared;

  // False when the system had no descriptor (or memory) for the connection,
  // which then stays in the backlog.
  bool acceptOne();
  void waitForResources();
  bool stopWhenIdle();

  UniqueFd listening_;
  std::shared_ptr<Shared> shared_;  // also held by the connections' close observers
  mutable std::mutex mutex_;
  std::shared_ptr<XpcListenerDelegate> delegate_;
  std::optional<std::chrono::milliseconds> idleDelay_;
};

}  // namespace qx
