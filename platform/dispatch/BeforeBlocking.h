#pragma once

namespace qx {

// Lets a thread be told, once, just before it blocks in one of the waits of
// this library (Semaphore::wait, a connection's write into a full socket).
//
// A connection's reader thread runs deliveries itself when its delivery queue
// is idle, and keeps reading afterwards without waking its partner thread.
// Should the delivery block, whatever it waits for may need the socket read
// meanwhile (a reply, or the peer draining what it writes), so the reader
// arms a Scope around the delivery that hands reading over to the partner
// first. Deliveries that do not block pay nothing but a thread-local check.
class BeforeBlocking {
 public:
  using Hook = void (*)(void* context);

  // Arms `hook` for the calling thread until the scope ends; the hook runs at
  // most once. Scopes nest: the outer one is armed again afterwards.
  class Scope {
   public:
    Scope(Hook hook, void* context);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Hook outerHook_;
    void* outerContext_;
  };

  // Runs and disarms the calling thread's hook, if one is armed. Called by
  // the waits themselves, before they block.
  static void notify();
};

}  // namespace qx
