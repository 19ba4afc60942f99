#include "sizes/QXSizeReport.h"

#include <vector>

#include "platform/dispatch/Semaphore.h"
#include "platform/foundation/Number.h"
#include "platform/xpc/XpcConnection.h"

namespace {

// Written by whichever of the reply and the error handler runs, read by the
// worker after the semaphore: the semaphore orders the write before the read.
struct Answer {
  qx::Semaphore answered;
  bool goOn = false;
};

}  // namespace

bool QXSizeReport::send(const std::shared_ptr<qx::XpcConnection>& connection,
                        const qx::ArrayPtr& batch) {
  if (!connection) return false;
  auto answer = std::make_shared<Answer>();
  connection->sendInvocation(
      "updateFileSizes:reply:", {batch},
      [answer](std::vector<qx::ObjectPtr> arguments) {
        auto value = arguments.size() == 1 ? qx::cast<qx::Number>(arguments[0]) : nullptr;
        answer->goOn = value && value->boolValue();
        answer->answered.signal();
      },
      [answer](qx::ErrorPtr) {
        answer->goOn = false;
        answer->answered.signal();
      });
  answer->answered.wait();
  return answer->goOn;
}
