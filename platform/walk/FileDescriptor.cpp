#include "platform/walk/FileDescriptor.h"

#include <unistd.h>

#include <cerrno>

namespace qx {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

FileDescriptor::~FileDescriptor() {
  reset();
}

int FileDescriptor::release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

int FileDescriptor::close() {
  if (fd_ < 0) return 0;
  // Linux releases the descriptor even when close(2) reports an error, so it
  // is never retried.
  return ::close(release());
}

void FileDescriptor::reset(int fd) {
  if (fd_ >= 0 && fd_ != fd) {
    int saved = errno;
    ::close(fd_);
    errno = saved;
  }
  fd_ = fd;
}

}  // namespace qx
