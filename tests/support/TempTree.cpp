#include "tests/support/TempTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace qx::test {

namespace {

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Creates the folders missing above `path` with mode 0755, as mkdir -p would; answers `path`.
std::string parents(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (mkdir(folder.c_str(), 0755) == 0) chmod(folder.c_str(), 0755);
  }
  return path;
}

}  // namespace

TempTree::TempTree(const std::string& prefix) {
  std::string pattern = "/tmp/" + prefix + "-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  check(mkdtemp(buffer.data()) != nullptr, "mkdtemp");
  root_ = buffer.data();
  check(chmod(root_.c_str(), 0755) == 0, "chmod");
}

TempTree::~TempTree() {
  // Give every folder its permissions back first so that nothing is left behind.
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(
           root_, std::filesystem::directory_options::skip_permission_denied, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_directory(error) && !it->is_symlink(error)) chmod(it->path().c_str(), 0755);
  }
  std::filesystem::remove_all(root_, error);
}

void TempTree::folder(const std::string& relative, mode_t mode) const {
  const std::string p = parents(path(relative));
  check(mkdir(p.c_str(), 0755) == 0, "mkdir " + p);
  check(chmod(p.c_str(), mode) == 0, "chmod " + p);
}

void TempTree::file(const std::string& relative, const std::string& contents) const {
  const std::string p = parents(path(relative));
  int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  check(fd >= 0, "create " + p);
  bool written =
      write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size());
  int savedErrno = errno;
  ::close(fd);
  errno = savedErrno;
  check(written, "write " + p);
}

void TempTree::link(const std::string& relative, const std::string& target) const {
  const std::string p = parents(path(relative));
  check(symlink(target.c_str(), p.c_str()) == 0, "symlink " + p);
}

void TempTree::fifo(const std::string& relative) const {
  const std::string p = parents(path(relative));
  check(mkfifo(p.c_str(), 0644) == 0, "mkfifo " + p);
}

}  // namespace qx::test
