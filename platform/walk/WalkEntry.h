#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string_view>

namespace qx {

// What a walk entry is, with the values of the platform's fts_info.
enum class WalkInfo : int {
  D = 1,        // folder, before its contents
  DC = 2,       // folder that would close a cycle (same device and inode as an ancestor)
  Default = 3,  // anything that is not a folder, regular file or symbolic link
  DNR = 4,      // folder that cannot be read; no postorder visit follows
  Dot = 5,      // "." or ".." (never produced: those names are not visited)
  DP = 6,       // folder, after its contents
  Err = 7,      // error; errnum() tells which
  F = 8,        // regular file
  Init = 9,     // never returned
  NS = 10,      // the entry's lstat failed; errnum() tells why
  NSOK = 11,    // never produced: every entry is examined
  SL = 12,      // symbolic link (never followed)
  SLNONE = 13,  // never produced by a physical walk
  W = 14,       // never produced
};

// "FTS_D", "FTS_DP", ...: for messages and test output.
std::string_view walkInfoName(WalkInfo info);

// One item visited by a TreeWalk (the fts entry record). It is a view owned by
// the walk and valid until the next call of TreeWalk::read().
//
// To act on the item without following a path that may have changed since the
// item was examined, use parentFd() with accessName() in the *at calls
// (fchmodat, fchownat, fstatat with AT_SYMLINK_NOFOLLOW). For a top-level item
// parentFd() is AT_FDCWD and accessName() is the path as given to the walk.
class WalkEntry {
 public:
  WalkInfo info() const { return info_; }
  int infoValue() const { return static_cast<int>(info_); }
  // The error number of DNR and NS entries (fts_errno); 0 otherwise.
  int errnum() const { return errnum_; }
  // 0 for a top-level item, one more for every folder below it.
  int level() const { return level_; }
  // The item's lstat data (fts_statp); all zero for NS entries.
  const struct stat* statp() const { return stat_; }
  // The full path: the top-level path as given, then "/" and a name per level.
  const char* path() const { return path_; }
  std::size_t pathLength() const { return pathLength_; }
  // The item's name (fts_name). A top-level item's name is the last component
  // of its path once it is visited; while top-level items are being ordered by
  // a comparator, it is the whole path as given.
  const char* name() const { return name_; }
  std::size_t nameLength() const { return nameLength_; }
  std::string_view nameView() const { return {name_, nameLength_}; }
  // Descriptor of the folder holding the item (AT_FDCWD for a top-level item)
  // and the name to use with it.
  int parentFd() const { return parentFd_; }
  const char* accessName() const { return accessName_; }

 private:
  friend class TreeWalk;
  friend class FolderContents;

  WalkInfo info_ = WalkInfo::Init;
  int errnum_ = 0;
  int level_ = 0;
  int parentFd_ = -1;
  const struct stat* stat_ = nullptr;
  const char* path_ = "";
  std::size_t pathLength_ = 0;
  const char* name_ = "";
  std::size_t nameLength_ = 0;
  const char* accessName_ = "";
};

}  // namespace qx
