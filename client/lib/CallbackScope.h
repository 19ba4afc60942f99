#pragma once

namespace qxfile {

// Marks the thread as running a completion or progress callback of a client
// while it lives, so that a blocking call made there, which would wait for
// an answer only this thread can deliver, fails at once instead.
class CallbackScope {
 public:
  CallbackScope() : outer_(active_) { active_ = true; }
  ~CallbackScope() { active_ = outer_; }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

  static bool active() { return active_; }

 private:
  bool outer_;
  static thread_local bool active_;
};

}  // namespace qxfile
