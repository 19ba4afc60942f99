#pragma once

#include <atomic>

#include "qxfile/Request.h"

namespace qxfile {

// What a Request handle shares with the callbacks of its request.
struct Request::State {
  std::atomic<bool> cancelled{false};
};

}  // namespace qxfile
