#include "qxfile/Request.h"

#include "client/lib/RequestState.h"

namespace qxfile {

void Request::cancel() {
  if (state_) state_->cancelled = true;
}

bool Request::cancelled() const {
  return state_ && state_->cancelled;
}

}  // namespace qxfile
