#pragma once

#include <cassert>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

namespace qx {

template <class Signature>
class OnceCallback;

// A move-only callable that may be called once. Calling consumes it: the
// callable is moved out and destroyed right after the call, so whatever it
// captured is released on the calling thread. Calling an empty (or already
// called) callback is a programming error, caught by an assertion in debug
// builds; in release builds such a call does nothing (void result) or aborts.
template <class R, class... Args>
class OnceCallback<R(Args...)> {
 public:
  OnceCallback() = default;
  OnceCallback(std::nullptr_t) {}

  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, OnceCallback> &&
           std::is_invocable_r_v<R, std::decay_t<F>&, Args...>) OnceCallback(F&& function)
      : impl_(std::make_unique<Impl<std::decay_t<F>>>(std::forward<F>(function))) {}

  OnceCallback(OnceCallback&&) noexcept = default;
  OnceCallback& operator=(OnceCallback&&) noexcept = default;
  OnceCallback(const OnceCallback&) = delete;
  OnceCallback& operator=(const OnceCallback&) = delete;

  explicit operator bool() const { return impl_ != nullptr; }

  R operator()(Args... args) {
    if (!impl_) {
      assert(!"OnceCallback called twice or while empty");
      if constexpr (std::is_void_v<R>) {
        return;
      } else {
        std::abort();
      }
    }
    std::unique_ptr<Base> impl = std::move(impl_);
    return impl->call(std::forward<Args>(args)...);
  }

 private:
  struct Base {
    virtual ~Base() = default;
    virtual R call(Args&&... args) = 0;
  };
  template <class F>
  struct Impl final : Base {
    explicit Impl(F&& f) : function(std::move(f)) {}
    explicit Impl(const F& f) : function(f) {}
    R call(Args&&... args) override { return function(std::forward<Args>(args)...); }
    F function;
  };

  std::unique_ptr<Base> impl_;
};

// A unit of work for a queue.
using Task = OnceCallback<void()>;

}  // namespace qx
