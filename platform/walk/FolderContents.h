#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/walk/WalkEntry.h"

namespace qx {

// The entries of one folder, read completely when the walk enters the folder:
// names in one arena, and for each entry its lstat result taken through the
// folder's descriptor. Reading everything at once lets the walk keep only the
// descriptors of the folders on the current path open.
class FolderContents {
 public:
  using Comparator = int (*)(const WalkEntry* a, const WalkEntry* b);

  struct Child {
    struct stat st;
    std::uint32_t nameOffset;
    std::uint16_t nameLength;
    WalkInfo info;
    int errnum;
  };

  // The kind of an item from its lstat data: D, SL, F or Default.
  static WalkInfo kindOf(const struct stat& st);

  // Reads every entry of the folder open at `fd` except "." and "..", in the
  // order the file system returns them, using `buffer` for getdents64, and
  // examines each with fstatat(fd, name, AT_SYMLINK_NOFOLLOW). Returns 0, or
  // the error number of a failed read, in which case the contents are empty.
  // errno is left as it was.
  int read(int fd, char* buffer, std::size_t bufferSize);
  // Orders the entries with `compare`, which sees each entry's name, stat data,
  // kind and `level`.
  void sort(Comparator compare, int level);
  void clear();

  std::size_t count() const { return children_.size(); }
  bool empty() const { return children_.empty(); }
  // The entry at `position` in visiting order.
  Child& at(std::size_t position) { return children_[sorted_ ? order_[position] : position]; }
  const char* nameOf(const Child& child) const { return names_.data() + child.nameOffset; }

 private:
  int append(const char* name, std::size_t length);
  void examine(int fd);

  std::vector<Child> children_;
  std::vector<char> names_;
  std::vector<std::uint32_t> order_;
  bool sorted_ = false;
};

}  // namespace qx
