#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/dispatch/OnceCallback.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/String.h"
#include "platform/xpc/XpcConnection.h"

// Holds the reply callback of one request and calls it exactly once: with
// the service's answer, or, when no answer comes, with nil values and an
// error. "No answer" is either reported (a refusal, a lost connection: fail())
// or silent (every holder let go without answering: the destructor).
//
// Values are the reply's arguments before the error, which always comes last.
template <class... Values>
class QXReplyOnce {
 public:
  using Reply = qx::OnceCallback<void(Values..., qx::ErrorPtr)>;

  explicit QXReplyOnce(Reply reply) : reply_(std::move(reply)) {}
  ~QXReplyOnce() {
    if (reply_) reply_(Values{}..., noAnswerError());
  }
  QXReplyOnce(const QXReplyOnce&) = delete;
  QXReplyOnce& operator=(const QXReplyOnce&) = delete;

  void answer(Values... values, qx::ErrorPtr error) {
    if (Reply reply = take()) reply(std::move(values)..., std::move(error));
  }
  void fail(qx::ErrorPtr error) { answer(Values{}..., std::move(error)); }

 private:
  Reply take() {
    std::lock_guard lock(mutex_);
    return std::move(reply_);
  }
  static qx::ErrorPtr noAnswerError() {
    return qx::Error::errorWithDomain(
        qx::kCocoaErrorDomain, qx::kXpcConnectionInvalidError,
        qx::Dictionary::withStringKeys(
            {{qx::kLocalizedDescriptionKey, qx::String::make("The service did not answer.")}}));
  }

  std::mutex mutex_;
  Reply reply_;
};
