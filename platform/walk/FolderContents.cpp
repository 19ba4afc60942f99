#include "platform/walk/FolderContents.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>

#include "platform/foundation/LinuxDirent64.h"

namespace qx {

namespace {

constexpr std::size_t kNameOffset = kLinuxDirent64NameOffset;
constexpr std::size_t kKeptCapacity = 4096;

bool isDotOrDotDot(const char* name, std::size_t length) {
  return name[0] == '.' && (length == 1 || (length == 2 && name[1] == '.'));
}

}  // namespace

WalkInfo FolderContents::kindOf(const struct stat& st) {
  if (S_ISDIR(st.st_mode)) return WalkInfo::D;
  if (S_ISLNK(st.st_mode)) return WalkInfo::SL;
  if (S_ISREG(st.st_mode)) return WalkInfo::F;
  return WalkInfo::Default;
}

void FolderContents::clear() {
  // A very large folder's storage is given back rather than kept for the next.
  if (children_.capacity() > kKeptCapacity) {
    std::vector<Child>().swap(children_);
    std::vector<char>().swap(names_);
    std::vector<std::uint32_t>().swap(order_);
  }
  children_.clear();
  names_.clear();
  order_.clear();
  sorted_ = false;
}

int FolderContents::read(int fd, char* buffer, std::size_t bufferSize) {
  clear();
  int saved = errno;
  auto fail = [&](int number) {
    clear();
    errno = saved;
    return number;
  };
  for (;;) {
    long got = syscall(SYS_getdents64, fd, buffer, bufferSize);
    if (got == 0) break;
    if (got < 0) return fail(errno);
    std::size_t end = static_cast<std::size_t>(got);
    for (std::size_t offset = 0; offset < end;) {
      unsigned short recordLength;
      if (end - offset <= kNameOffset) return fail(EIO);
      std::memcpy(&recordLength, buffer + offset + offsetof(LinuxDirent64, d_reclen),
                  sizeof recordLength);
      if (recordLength <= kNameOffset || recordLength > end - offset) return fail(EIO);
      const char* name = buffer + offset + kNameOffset;
      std::size_t length = strnlen(name, recordLength - kNameOffset);
      offset += recordLength;
      if (length == 0 || isDotOrDotDot(name, length)) continue;
      if (int number = append(name, length)) return fail(number);
    }
  }
  examine(fd);
  errno = saved;
  return 0;
}

int FolderContents::append(const char* name, std::size_t length) {
  if (names_.size() + length + 1 > std::numeric_limits<std::uint32_t>::max() ||
      length > std::numeric_limits<std::uint16_t>::max()) {
    return EOVERFLOW;
  }
  Child child;
  child.nameOffset = static_cast<std::uint32_t>(names_.size());
  child.nameLength = static_cast<std::uint16_t>(length);
  child.info = WalkInfo::NS;
  child.errnum = 0;
  names_.insert(names_.end(), name, name + length);
  names_.push_back('\0');
  children_.push_back(child);
  return 0;
}

void FolderContents::examine(int fd) {
  for (Child& child : children_) {
    if (fstatat(fd, nameOf(child), &child.st, AT_SYMLINK_NOFOLLOW) != 0) {
      child.errnum = errno;
      std::memset(&child.st, 0, sizeof child.st);
      child.info = WalkInfo::NS;
    } else {
      child.info = kindOf(child.st);
    }
  }
}

void FolderContents::sort(Comparator compare, int level) {
  if (compare == nullptr || children_.size() < 2) return;
  order_.resize(children_.size());
  for (std::uint32_t i = 0; i < order_.size(); ++i) order_[i] = i;
  auto view = [&](std::uint32_t index) {
    const Child& child = children_[index];
    WalkEntry entry;
    entry.info_ = child.info;
    entry.errnum_ = child.errnum;
    entry.level_ = level;
    entry.stat_ = &child.st;
    entry.name_ = nameOf(child);
    entry.nameLength_ = child.nameLength;
    entry.accessName_ = entry.name_;
    return entry;
  };
  std::sort(order_.begin(), order_.end(), [&](std::uint32_t a, std::uint32_t b) {
    WalkEntry left = view(a);
    WalkEntry right = view(b);
    return compare(&left, &right) < 0;
  });
  sorted_ = true;
}

}  // namespace qx
