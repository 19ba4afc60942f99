#pragma once

#include <mutex>

namespace qx {

// Asserts, in debug builds, that what must run on one queue does: the
// checker binds to the sequence of its first check (the serial queue running
// the caller, or the calling thread when no serial queue does), and every
// later check must come from that same sequence.
//
//   QX_CHECK_SEQUENCE(deliverySequence_);
class SequenceChecker {
 public:
  // True on the bound sequence; binds it on the first call.
  bool calledOnValidSequence() const;
  // Forgets the bound sequence: the next check binds anew.
  void detach();

  // The sequence the calling thread runs: a token of the serial queue whose
  // task it runs, else of the thread itself.
  static const void* currentSequence();

 private:
  mutable std::mutex mutex_;
  mutable const void* bound_ = nullptr;
};

}  // namespace qx

#ifdef NDEBUG
#define QX_CHECK_SEQUENCE(checker) ((void)0)
#else
#include <cassert>
#define QX_CHECK_SEQUENCE(checker) \
  assert((checker).calledOnValidSequence() && "called off the sequence that owns this")
#endif
