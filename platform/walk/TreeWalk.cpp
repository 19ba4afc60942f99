#include "platform/walk/TreeWalk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/walk/FileDescriptor.h"

namespace qx {

namespace {

constexpr std::size_t kBufferWords = 128 * 1024 / sizeof(std::uint64_t);
constexpr int kSupportedOptions = TreeWalk::NoChdir | TreeWalk::Physical | TreeWalk::XDev;

// The name a top-level item is visited under: the part of its path after the
// last slash, unless that slash is the path's only character.
std::size_t visitedNameOffset(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos || (slash == 0 && path.size() == 1)) return 0;
  return slash + 1;
}

bool sameItem(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

// A folder on the current path whose contents are being visited.
struct TreeWalk::Folder {
  FileDescriptor fd;
  struct stat st;          // its own lstat data, for its DP entry
  std::string name;        // its visited name
  std::string accessName;  // the name to use with its parent's descriptor
  int level = 0;
  std::size_t pathLength = 0;   // length of its own path
  std::size_t childPrefix = 0;  // length of its path with the separating slash
  FolderContents contents;
  std::size_t next = 0;
};

TreeWalk::TreeWalk(int options, Comparator compare)
    : options_(options), compare_(compare), buffer_(new std::uint64_t[kBufferWords]) {}

TreeWalk::~TreeWalk() {
  close();
}

std::unique_ptr<TreeWalk> TreeWalk::open(const std::vector<std::string>& paths, int options,
                                         Comparator compare) {
  if ((options & Physical) == 0 || (options & ~kSupportedOptions) != 0) {
    errno = EINVAL;
    return nullptr;
  }
  std::unique_ptr<TreeWalk> walk(new TreeWalk(options, compare));
  walk->roots_.reserve(paths.size());
  int saved = errno;
  for (const std::string& path : paths) {
    if (path.empty()) {
      errno = ENOENT;
      return nullptr;
    }
    Root root{path, {}, WalkInfo::NS, 0, visitedNameOffset(path)};
    if (lstat(path.c_str(), &root.st) != 0) {
      root.errnum = errno;
      std::memset(&root.st, 0, sizeof root.st);
    } else {
      root.info = FolderContents::kindOf(root.st);
    }
    walk->roots_.push_back(std::move(root));
  }
  errno = saved;
  if (compare != nullptr && walk->roots_.size() > 1) {
    // Top-level items are ordered under their whole paths.
    auto view = [](const Root& root) {
      WalkEntry entry;
      entry.info_ = root.info;
      entry.errnum_ = root.errnum;
      entry.stat_ = &root.st;
      entry.name_ = entry.path_ = entry.accessName_ = root.path.c_str();
      entry.nameLength_ = entry.pathLength_ = root.path.size();
      entry.parentFd_ = AT_FDCWD;
      return entry;
    };
    std::stable_sort(walk->roots_.begin(), walk->roots_.end(), [&](const Root& a, const Root& b) {
      WalkEntry left = view(a);
      WalkEntry right = view(b);
      return compare(&left, &right) < 0;
    });
  }
  return walk;
}

const WalkEntry* TreeWalk::read() {
  if (done_) return nullptr;
  if (finished_) recycle(std::move(finished_));
  if (!started_) {
    started_ = true;
    return nextRoot();
  }
  Instruction instruction = instruction_;
  instruction_ = NoInstr;
  if (current_.info_ == WalkInfo::D) return descend(instruction);
  return advance();
}

int TreeWalk::set(const WalkEntry* entry, Instruction instruction) {
  if (instruction == Again || instruction == Follow) {
    errno = ENOTSUP;
    return -1;
  }
  if ((instruction != NoInstr && instruction != Skip) || entry != &current_ || !started_ || done_) {
    errno = EINVAL;
    return -1;
  }
  instruction_ = instruction;
  return 0;
}

int TreeWalk::close() {
  int result = 0;
  int number = 0;
  auto closeFolder = [&](std::unique_ptr<Folder>& folder) {
    if (folder && folder->fd.close() != 0 && result == 0) {
      result = -1;
      number = errno;
    }
  };
  for (auto& folder : stack_) closeFolder(folder);
  closeFolder(finished_);
  stack_.clear();
  spare_.clear();
  finished_.reset();
  firstOpenLevel_ = 0;
  done_ = true;
  if (result != 0) errno = number;
  return result;
}

const WalkEntry* TreeWalk::nextRoot() {
  if (nextRoot_ >= roots_.size()) {
    done_ = true;
    errno = 0;
    return nullptr;
  }
  const Root& root = roots_[nextRoot_++];
  path_ = root.path;
  rootDevice_ = root.st.st_dev;
  current_ = WalkEntry();
  current_.info_ = root.info;
  current_.errnum_ = root.errnum;
  current_.level_ = 0;
  current_.parentFd_ = AT_FDCWD;
  current_.stat_ = &root.st;
  current_.path_ = path_.c_str();
  current_.pathLength_ = path_.size();
  current_.name_ = root.path.c_str() + root.nameOffset;
  current_.nameLength_ = root.path.size() - root.nameOffset;
  current_.accessName_ = root.path.c_str();
  if (root.errnum != 0) errno = root.errnum;
  return &current_;
}

const WalkEntry* TreeWalk::descend(Instruction instruction) {
  const struct stat& st = *current_.stat_;
  if (instruction == Skip || ((options_ & XDev) != 0 && st.st_dev != rootDevice_)) {
    current_.info_ = WalkInfo::DP;
    return &current_;
  }
  int fd = openFolder(current_.parentFd_, current_.accessName_, st);
  if (fd < 0) return report(WalkInfo::DNR, -fd);
  std::unique_ptr<Folder> folder = takeFolder();
  folder->fd.reset(fd);
  if (int number = folder->contents.read(fd, reinterpret_cast<char*>(buffer_.get()),
                                         kBufferWords * sizeof(std::uint64_t))) {
    recycle(std::move(folder));
    return report(WalkInfo::DNR, number);
  }
  if (folder->contents.empty()) {
    recycle(std::move(folder));
    current_.info_ = WalkInfo::DP;
    return &current_;
  }
  markCycles(folder->contents, st);
  folder->contents.sort(compare_, current_.level_ + 1);
  folder->st = st;
  folder->name.assign(current_.name_, current_.nameLength_);
  folder->accessName = current_.accessName_;
  folder->level = current_.level_;
  folder->pathLength = path_.size();
  // A path that ends with a slash gets no second one before its children.
  std::size_t length = path_.size();
  if (length > 0 && path_[length - 1] == '/') --length;
  path_.resize(length);
  path_.push_back('/');
  folder->childPrefix = path_.size();
  folder->next = 0;
  if (stack_.empty()) firstOpenLevel_ = 0;
  stack_.push_back(std::move(folder));
  limitOpenLevels();
  return visitChild(*stack_.back());
}

const WalkEntry* TreeWalk::advance() {
  if (stack_.empty()) return nextRoot();
  Folder& top = *stack_.back();
  if (top.next < top.contents.count()) return visitChild(top);
  return leaveFolder();
}

const WalkEntry* TreeWalk::visitChild(Folder& folder) {
  FolderContents::Child& child = folder.contents.at(folder.next++);
  const char* name = folder.contents.nameOf(child);
  path_.resize(folder.childPrefix);
  path_.append(name, child.nameLength);
  current_.info_ = child.info;
  current_.errnum_ = child.errnum;
  current_.level_ = folder.level + 1;
  current_.parentFd_ = folder.fd.get();
  current_.stat_ = &child.st;
  current_.path_ = path_.c_str();
  current_.pathLength_ = path_.size();
  current_.name_ = name;
  current_.nameLength_ = child.nameLength;
  current_.accessName_ = name;
  if (child.errnum != 0) errno = child.errnum;
  return &current_;
}

const WalkEntry* TreeWalk::leaveFolder() {
  std::unique_ptr<Folder> folder = std::move(stack_.back());
  stack_.pop_back();
  int parentFd = AT_FDCWD;
  if (!stack_.empty()) {
    if (stack_.size() - 1 < firstOpenLevel_) {
      if (int number = reopenParentOf(*folder)) {
        recycle(std::move(folder));
        return stop(number);
      }
      firstOpenLevel_ = stack_.size() - 1;
    }
    parentFd = stack_.back()->fd.get();
  } else {
    firstOpenLevel_ = 0;
  }
  folder->fd.reset();
  path_.resize(folder->pathLength);
  current_.info_ = WalkInfo::DP;
  current_.errnum_ = 0;
  current_.level_ = folder->level;
  current_.parentFd_ = parentFd;
  current_.stat_ = &folder->st;
  current_.path_ = path_.c_str();
  current_.pathLength_ = path_.size();
  current_.name_ = folder->name.c_str();
  current_.nameLength_ = folder->name.size();
  current_.accessName_ = folder->accessName.c_str();
  finished_ = std::move(folder);
  return &current_;
}

const WalkEntry* TreeWalk::report(WalkInfo info, int number) {
  current_.info_ = info;
  current_.errnum_ = number;
  errno = number;
  return &current_;
}

const WalkEntry* TreeWalk::stop(int number) {
  close();
  errno = number;
  return nullptr;
}

// Opens the folder `name` of `parentFd` without following a symbolic link and
// checks that it is the item examined before. The descriptor, or -errno.
int TreeWalk::openFolder(int parentFd, const char* name, const struct stat& expected) {
  int saved = errno;
  int fd;
  for (;;) {
    fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) break;
    int number = errno;
    if ((number == EMFILE || number == ENFILE) && closeOutermostLevel()) continue;
    return -number;
  }
  FileDescriptor opened(fd);
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  // Something else now stands under the name: the folder examined is gone.
  if (!sameItem(st, expected)) return -ENOENT;
  errno = saved;
  return opened.release();
}

void TreeWalk::markCycles(FolderContents& contents, const struct stat& folder) const {
  for (std::size_t i = 0; i < contents.count(); ++i) {
    FolderContents::Child& child = contents.at(i);
    if (child.info != WalkInfo::D) continue;
    bool cycle = sameItem(child.st, folder);
    for (std::size_t level = 0; !cycle && level < stack_.size(); ++level) {
      cycle = sameItem(child.st, stack_[level]->st);
    }
    if (cycle) child.info = WalkInfo::DC;
  }
}

bool TreeWalk::closeOutermostLevel() {
  if (firstOpenLevel_ + 1 >= stack_.size()) return false;
  stack_[firstOpenLevel_]->fd.reset();
  ++firstOpenLevel_;
  return true;
}

void TreeWalk::limitOpenLevels() {
  while (stack_.size() - firstOpenLevel_ > kOpenLevelLimit && closeOutermostLevel()) {
  }
}

// Reopens the folder that holds `folder` through "..", and checks that it is
// the folder entered on the way down. 0, or an error number.
int TreeWalk::reopenParentOf(Folder& folder) {
  Folder& parent = *stack_.back();
  int saved = errno;
  int fd = openat(folder.fd.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  FileDescriptor opened(fd);
  struct stat st;
  if (fstat(fd, &st) != 0) return errno;
  if (!sameItem(st, parent.st)) return ENOENT;
  parent.fd = std::move(opened);
  errno = saved;
  return 0;
}

std::unique_ptr<TreeWalk::Folder> TreeWalk::takeFolder() {
  if (spare_.empty()) return std::make_unique<Folder>();
  std::unique_ptr<Folder> folder = std::move(spare_.back());
  spare_.pop_back();
  return folder;
}

void TreeWalk::recycle(std::unique_ptr<Folder> folder) {
  folder->fd.reset();
  folder->contents.clear();
  spare_.push_back(std::move(folder));
}

}  // namespace qx
