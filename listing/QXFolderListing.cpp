#include "listing/QXFolderListing.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "model/QXOperation.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Number.h"

namespace {

bool isPermissionError(int64_t code) {
  return code == EPERM || code == EACCES;
}

std::string quoted(const char* format, const std::string& path) {
  return QXOperation::stepDescription(format, path);
}

// stringByAppendingPathComponent: for the folder paths a URL answers ("" gives
// the folder's path with its separating slash).
std::string appendingComponent(const std::string& folder, const char* name) {
  if (folder.empty()) return name;
  return folder.back() == '/' ? folder + name : folder + "/" + name;
}

// opendir without following a symbolic link put in the folder's place since
// it was examined.
DIR* openFolder(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return nullptr;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    int number = errno;
    close(fd);
    errno = number;
  }
  return dir;
}

// The first 8 bytes at `p` as a big-endian number: comparing two of them
// orders the names they begin as strcmp would, up to those bytes.
uint64_t headOf(const char* p) {
  uint64_t head;
  std::memcpy(&head, p, sizeof head);
  return __builtin_bswap64(head);
}

}  // namespace

QXFolderListing::QXFolderListing(qx::UrlPtr url, qx::IndexPathPtr indexPath)
    : current_(std::move(url)),
      indexPath_(indexPath ? std::move(indexPath) : qx::IndexPath::make()),
      result_(qx::MutableArray::make()) {}

qx::ArrayPtr QXFolderListing::run(qx::ErrorPtr* error) {
  for (std::size_t level = 0; current_; ++level) {
    if (listLevel(level) == Step::Stop) break;
    if (level >= indexPath_->length()) break;
  }
  qx::ArrayPtr levels = result_->copy();
  if (hasHardError()) {
    levels = nullptr;
    recorded_ = QXOperation::errorWithError(recorded_, "Error retrieving folder's contents");
  }
  if (error) *error = recorded_;
  return levels;
}

QXFolderListing::Step QXFolderListing::listLevel(std::size_t level) {
  errno = 0;
  std::string path = current_->path();
  auto contents = qx::MutableArray::make();
  if (!isFolder()) return Step::Stop;
  DIR* dir = openFolder(path);
  if (dir == nullptr) {
    int number = errno;
    if (!isPermissionError(number) || !recorded_) {
      record(QXOperation::errorWithErrno(
          number, quoted("Couldn't open for listing folder at path \"%@\".", path), path.c_str()));
    }
    if (!isPermissionError(number)) return Step::Stop;
    // The same folder stays current: every further level comes out empty too.
    result_->addObject(contents);
    return Step::NextLevel;
  }
  readEntries(dir, path, *contents);
  if (closedir(dir) != 0 && !recorded_) {
    int number = errno;
    record(QXOperation::errorWithErrno(
        number, quoted("Couldn't close for listing folder at path \"%@\".", path), path.c_str()));
  }
  if (hasHardError()) return Step::Stop;
  result_->addObject(contents);
  return selectEntry(level, *contents, path);
}

bool QXFolderListing::isFolder() const {
  qx::ObjectPtr value;
  if (!current_->getResourceValue(&value, qx::kURLIsDirectoryKey)) return false;
  auto number = qx::cast<qx::Number>(value);
  return number && number->boolValue();
}

// Reads every entry but "." and "..", makes its file reference through the
// folder's descriptor, and leaves them sorted by path. Entries of one folder
// share its path as prefix, so their names give the same order. Names are
// bytes and always make a string here, so the "name cannot be made into a
// string" failure of other platforms cannot occur.
void QXFolderListing::readEntries(DIR* dir, const std::string& path, qx::MutableArray& contents) {
  // What the sort moves: plain numbers, the references stay where they are.
  struct Entry {
    uint64_t head;  // the name's first 8 bytes, big-endian: most comparisons end here
    std::size_t nameOffset;
    std::size_t index;  // in `references`
  };
  std::vector<Entry> entries;
  std::vector<qx::UrlPtr> references;
  std::string names;  // every name, NUL-terminated, side by side for the sort
  std::string prefix = appendingComponent(path, "");
  int fd = dirfd(dir);
  while (dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    std::size_t length = std::strlen(name);
    std::string itemPath;
    itemPath.reserve(prefix.size() + length);
    itemPath.append(prefix).append(name, length);
    auto reference = qx::FileReferenceUrl::withName(fd, name, std::move(itemPath));
    if (!reference) {
      std::string failed = prefix + name;
      record(QXOperation::errorWithErrno(
          ENOENT, quoted("Couldn't retrieve containing file at path \"%@\".", failed),
          failed.c_str()));
      break;
    }
    entries.push_back({0, names.size(), references.size()});
    references.push_back(std::move(reference));
    names.append(name, length + 1);
  }
  // The heads are read 8 bytes at a time, past the end of the last name too.
  names.append(sizeof(uint64_t), '\0');
  const char* base = names.data();
  for (Entry& entry : entries) entry.head = headOf(base + entry.nameOffset);
  // Names of one folder differ, so two equal heads hold no NUL (which would
  // end both names equal) and the names differ after them.
  std::sort(entries.begin(), entries.end(), [base](const Entry& a, const Entry& b) {
    if (a.head != b.head) return a.head < b.head;
    return std::strcmp(base + a.nameOffset + 8, base + b.nameOffset + 8) < 0;
  });
  contents.mutableObjects().reserve(entries.size());
  for (const Entry& entry : entries) contents.addObject(std::move(references[entry.index]));
}

QXFolderListing::Step QXFolderListing::selectEntry(std::size_t level,
                                                   const qx::MutableArray& contents,
                                                   const std::string& path) {
  uint64_t index = indexPath_->indexAtPosition(level);
  if (index == qx::kNotFound) return Step::NextLevel;
  if (index >= contents.count()) {
    std::string text = "Couldn't find item at position " + std::to_string(index) +
                       " in folder at path \"" + path + "\".";
    record(QXOperation::errorWithErrno(EINVAL, text, path.c_str()));
    return Step::Stop;
  }
  current_ = contents.objectAs<qx::Url>(index);
  return Step::NextLevel;
}

bool QXFolderListing::hasHardError() const {
  return recorded_ && !isPermissionError(recorded_->code());
}
