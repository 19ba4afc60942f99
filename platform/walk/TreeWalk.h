#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/walk/FolderContents.h"
#include "platform/walk/WalkEntry.h"

namespace qx {

// A physical walk of file hierarchies in the manner of the platform's fts, made
// safe for trees that other users can change while the walk runs.
//
// Every folder is opened relative to its parent's descriptor with O_NOFOLLOW
// and checked against the device and inode that its lstat showed, so a folder
// swapped for a symbolic link or for another folder is reported as unreadable
// (DNR) and never entered. Items are examined with fstatat through their
// folder's descriptor, and each entry offers that descriptor with the item's
// name for changes made with the *at calls.
//
// Visiting order and entry kinds are those of fts with FTS_PHYSICAL: a folder
// as D before its contents and DP after them; DNR (and no DP) for a folder that
// cannot be opened or read; NS when an item cannot be examined; DC for a folder
// with the device and inode of one of its ancestors; SL for every symbolic
// link; F for regular files and Default for everything else. Siblings come in
// the file system's order, or sorted by the comparator, which also orders the
// top-level paths. With XDev a folder on another device than its top-level
// item is reported as D and then DP without being entered.
//
// Descriptors: one per folder on the current path, at most kOpenLevelLimit of
// them; deeper walks close the outermost ones and reopen them through ".."
// (checked against their identity) on the way back. A folder's contents are
// read completely when it is entered.
class TreeWalk {
 public:
  // fts option values. Physical is required; NoChdir is accepted and has no
  // effect (the walk never changes the working directory); the others are
  // refused with EINVAL.
  enum Option : int {
    ComFollow = 0x01,
    Logical = 0x02,
    NoChdir = 0x04,
    NoStat = 0x08,
    Physical = 0x10,
    SeeDot = 0x20,
    XDev = 0x40,
  };
  // fts_set instruction values; only NoInstr and Skip are supported.
  enum Instruction : int { Again = 1, Follow = 2, NoInstr = 3, Skip = 4 };

  using Comparator = FolderContents::Comparator;

  static constexpr std::size_t kOpenLevelLimit = 256;

  // Examines the top-level paths and prepares the walk (fts_open). nullptr
  // with errno set when the options are not supported (EINVAL) or a path is
  // empty (ENOENT). A path that cannot be examined is not an error here: it is
  // visited as an NS entry.
  static std::unique_ptr<TreeWalk> open(const std::vector<std::string>& paths, int options,
                                        Comparator compare = nullptr);

  TreeWalk(const TreeWalk&) = delete;
  TreeWalk& operator=(const TreeWalk&) = delete;
  ~TreeWalk();

  // The next entry (fts_read), valid until the next call. At the end of the
  // walk: nullptr with errno 0. When the walk cannot go on (a folder left
  // through ".." is no longer the one entered): nullptr with errno set, and
  // every later call returns nullptr. Entries carrying an error number (DNR,
  // NS) also leave it in errno; otherwise errno is left alone.
  const WalkEntry* read();
  // Gives an instruction for the entry just read (fts_set): Skip on a folder's
  // D entry makes the next read() report its DP without entering it. 0, or -1
  // with errno: EINVAL for another entry or an unknown instruction, ENOTSUP for
  // Again and Follow.
  int set(const WalkEntry* entry, Instruction instruction);
  // Ends the walk and closes its descriptors (fts_close): 0, or -1 with errno.
  int close();

 private:
  struct Root {
    std::string path;
    struct stat st;
    WalkInfo info;
    int errnum;
    std::size_t nameOffset;  // where the name visited for this item starts in `path`
  };
  struct Folder;

  TreeWalk(int options, Comparator compare);

  const WalkEntry* nextRoot();
  const WalkEntry* descend(Instruction instruction);
  const WalkEntry* advance();
  const WalkEntry* visitChild(Folder& folder);
  const WalkEntry* leaveFolder();
  const WalkEntry* stop(int number);
  const WalkEntry* report(WalkInfo info, int number);

  int openFolder(int parentFd, const char* name, const struct stat& expected);
  void markCycles(FolderContents& contents, const struct stat& folder) const;
  bool closeOutermostLevel();
  void limitOpenLevels();
  int reopenParentOf(Folder& folder);
  std::unique_ptr<Folder> takeFolder();
  void recycle(std::unique_ptr<Folder> folder);

  int options_;
  Comparator compare_;
  std::vector<Root> roots_;
  std::size_t nextRoot_ = 0;
  std::vector<std::unique_ptr<Folder>> stack_;
  std::size_t firstOpenLevel_ = 0;  // stack_[firstOpenLevel_...] hold open descriptors
  std::vector<std::unique_ptr<Folder>> spare_;
  std::unique_ptr<Folder> finished_;  // the folder whose DP entry is current
  std::unique_ptr<std::uint64_t[]> buffer_;
  std::string path_;
  WalkEntry current_;
  Instruction instruction_ = NoInstr;
  dev_t rootDevice_ = 0;
  bool started_ = false;
  bool done_ = false;
};

}  // namespace qx
