#include "rename/QXFileRename.h"

#include <fcntl.h>
#include <stdio.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "model/QXOperation.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/String.h"
#include "platform/foundation/Url.h"

using qx::ArrayPtr;
using qx::ErrorPtr;
using qx::StringPtr;
using qx::UrlPtr;

namespace {

constexpr std::string_view kRenameTitle = "Error renaming files";
// The question comes after the 31st rename, and again every 31 renames.
constexpr int kRenamesBeforeQuestion = 30;

// What one item came to: the errno of the failing step, or its new URL and the
// name it had before.
struct ItemResult {
  int errnum = 0;
  UrlPtr newUrl;
  StringPtr previousName;

  static ItemResult failed(int errnum) {
    ItemResult result;
    result.errnum = errnum;
    return result;
  }
};

bool hasNul(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

// "/" would name another folder and line breaks make names that cannot be shown
// or typed; every other byte is kept. (The replacements add nothing a later
// rule would replace, so one pass does what three would.)
std::string cleanedName(std::string name) {
  for (char& c : name) {
    if (c == '/') {
      c = ':';
    } else if (c == '\n' || c == '\r') {
      c = ' ';
    }
  }
  return name;
}

bool needsCleaning(const std::string& name) {
  return std::strpbrk(name.c_str(), "/\n\r") != nullptr;
}

// Refuses to replace an existing item where the file system can refuse; where
// it cannot (renameat2 answers EINVAL or ENOSYS), a plain rename, which
// replaces. 0, or the errno of the call that failed.
int renameWithoutReplacing(const char* from, const char* to) {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  return ::rename(from, to) == 0 ? 0 : errno;
}

// The path of `name` in the folder of `path`. Names are exact bytes and
// nothing redirects a path here, so the folder part of the path is what the
// parent-folder resource value would answer.
std::size_t lastSlash(std::string_view path) {
  const void* slash = memrchr(path.data(), '/', path.size());
  return slash == nullptr ? std::string_view::npos : static_cast<const char*>(slash) - path.data();
}

std::string siblingPath(const std::string& path, std::string_view name) {
  const std::size_t slash = lastSlash(path);
  const std::size_t folderSize = slash == 0 || slash == std::string::npos ? 1 : slash + 1;
  std::string sibling;
  sibling.reserve(folderSize + name.size());
  if (folderSize == 1) {
    sibling += '/';
  } else {
    sibling.append(path, 0, folderSize);
  }
  sibling.append(name);
  return sibling;
}

// The last component of an absolute, normalised path ("/" for the root).
std::string_view lastComponent(std::string_view path) {
  if (path == "/") return path;
  return path.substr(lastSlash(path) + 1);
}

// The item is not examined before the rename: the rename itself examines it
// and fails with the errno an lstat would give (an item gone, a folder that
// cannot be searched), and a second lookup of the path would cost a sixth of
// the rename.
ItemResult renameItem(const UrlPtr& url, const StringPtr& name) {
  // No name (names shorter than urls, or not a string) is refused, and so is a
  // path or name that a system call would cut short at a NUL byte.
  if (!url || !name || hasNul(name->str())) return ItemResult::failed(EINVAL);
  // Empty for a URL that is not a file URL and for a file reference whose
  // item is gone.
  const std::string oldPath = url->fileSystemRepresentation();
  if (!url->isFileURL() || oldPath.empty() || hasNul(oldPath)) return ItemResult::failed(EINVAL);

  const std::string& given = name->str();
  std::string newPath =
      needsCleaning(given) ? siblingPath(oldPath, cleanedName(given)) : siblingPath(oldPath, given);
  // The path of a file URL that is not a reference is normal, and so is that
  // of a non-empty name beside it: the URL made for it keeps it as it is. An
  // empty name leaves a trailing slash, which the URL drops, so that it names
  // the folder; the item renamed to is always the one the new URL names.
  UrlPtr newUrl;
  if (given.empty() || url->isFileReferenceURL()) {
    newUrl = qx::Url::fileURLWithPath(newPath);
    newPath = newUrl->fileSystemRepresentation();
  }
  if (int failed = renameWithoutReplacing(oldPath.c_str(), newPath.c_str()))
    return ItemResult::failed(failed);
  if (!newUrl) newUrl = qx::Url::fileURLWithPathBeside(*url, std::move(newPath));
  return {0, std::move(newUrl), qx::str(std::string(lastComponent(oldPath)))};
}

ErrorPtr renameError(int errnum, const UrlPtr& url) {
  const std::string path = url ? url->fileSystemRepresentation() : std::string();
  const char* bytes = path.c_str();
  ErrorPtr step = QXOperation::errorWithErrno(
      errnum, QXOperation::stepDescription("Couldn't rename file at path \"%s\".", bytes), bytes);
  return QXOperation::errorWithError(step, std::string(kRenameTitle));
}

}  // namespace

QXFileRename::Result QXFileRename::renameUrls(const ArrayPtr& urls, const ArrayPtr& names,
                                              const ShouldStop& shouldStop, ErrorPtr* error) {
  const std::size_t count = urls ? urls->count() : 0;
  auto renamedUrls = qx::MutableArray::make(count);
  auto previousNames = qx::MutableArray::make(count);
  ErrorPtr failure;
  int renamesSinceQuestion = 0;

  for (std::size_t i = 0; i < count; ++i) {
    UrlPtr url = urls->objectAs<qx::Url>(i);
    ItemResult item = renameItem(url, names ? names->objectAs<qx::String>(i) : nullptr);
    if (item.errnum != 0) {
      failure = renameError(item.errnum, url);
      break;
    }
    renamedUrls->addObject(std::move(item.newUrl));
    previousNames->addObject(std::move(item.previousName));

    if (renamesSinceQuestion < kRenamesBeforeQuestion) {
      ++renamesSinceQuestion;
      continue;
    }
    renamesSinceQuestion = 0;
    if (!shouldStop || shouldStop()) break;
  }

  if (error) *error = failure;
  return {std::move(renamedUrls), std::move(previousNames)};
}
