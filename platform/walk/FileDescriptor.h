#pragma once

namespace qx {

// Owns one open file descriptor and closes it when it goes away. Move-only.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor();

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  // Gives up ownership without closing.
  int release();
  // Closes the descriptor now: 0, or -1 with errno set by close(2). Closing an
  // empty holder succeeds.
  int close();
  // Closes the current descriptor, ignoring failures and keeping errno, and
  // takes `fd`.
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

}  // namespace qx
