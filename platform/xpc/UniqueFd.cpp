#include "platform/xpc/UniqueFd.h"

#include <unistd.h>

namespace qx {

void UniqueFd::reset(int fd) {
  int old = std::exchange(fd_, fd);
  if (old >= 0) ::close(old);
}

}  // namespace qx
