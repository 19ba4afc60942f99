#include "sizes/QXSizeReport.h"

#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcConnection.h"
#include "service/QXFileResponse.h"

namespace {

// Written by whichever of the reply block and the error handler runs, read by
// the worker after the semaphore: the semaphore orders the write before the
// read.
struct Answer {
  qx::Semaphore answered;
  bool goOn = false;
};

}  // namespace

bool QXSizeReport::send(const std::shared_ptr<qx::XpcConnection>& connection,
                        const qx::ArrayPtr& batch) {
  if (!connection) return false;
  auto answer = std::make_shared<Answer>();
  // The error handler runs instead of the reply block when the call gets no
  // answer (the connection invalidated, the call refused), so the worker is
  // released as if told to stop.
  auto client =
      connection->remoteObjectProxyWithErrorHandler<QXFileResponse>([answer](qx::ErrorPtr) {
        answer->goOn = false;
        answer->answered.signal();
      });
  if (!client) return false;
  client->updateFileSizes(batch, [answer](bool goOn) {
    answer->goOn = goOn;
    answer->answered.signal();
  });
  answer->answered.wait();
  return answer->goOn;
}
