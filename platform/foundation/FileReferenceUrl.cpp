#include "platform/foundation/FileReferenceUrl.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/LinuxDirent64.h"
#include "platform/foundation/ObjectArena.h"
#include "platform/foundation/String.h"

namespace qx {

namespace {

constexpr std::string_view kReferencePrefix = "file:///.file/id=";
constexpr std::string_view kPathKey = "qx.path";
constexpr std::string_view kDeviceKey = "qx.device";
constexpr std::string_view kInodeKey = "qx.inode";

std::string referenceString(std::uint64_t device, std::uint64_t inode) {
  std::string text(kReferencePrefix);
  char digits[20];
  text.append(digits, std::to_chars(digits, std::end(digits), device).ptr);
  text += '.';
  text.append(digits, std::to_chars(digits, std::end(digits), inode).ptr);
  return text;
}

bool parseNumber(std::string_view text, std::uint64_t& value) {
  if (text.empty()) return false;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

// A name as a relative URL string: percent-encoded like a path, and with ':'
// escaped too, so that no name reads as a scheme.
std::string relativeStringOfName(std::string_view name) {
  std::string path = Url::percentEncodePath(name);
  if (path.find(':') == std::string::npos) return path;
  std::string encoded;
  for (char c : path) {
    if (c == ':') {
      encoded += "%3A";
    } else {
      encoded += c;
    }
  }
  return encoded;
}

}  // namespace

FileReferenceUrl::FileReferenceUrl(std::uint64_t device, std::uint64_t inode, std::string keptPath)
    : Url(FileUrlString{referenceString(device, inode)}),
      device_(device),
      inode_(inode),
      keptPath_(std::move(keptPath)) {}

std::shared_ptr<FileReferenceUrl> FileReferenceUrl::withPath(const std::string& path) {
  struct stat st;
  if (path.empty() || lstat(path.c_str(), &st) != 0) {
    if (path.empty()) errno = ENOENT;
    return nullptr;
  }
  return withStat(st, path);
}

std::shared_ptr<FileReferenceUrl> FileReferenceUrl::withName(int folderFd, const char* name,
                                                             std::string path) {
  struct stat st;
  if (fstatat(folderFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return nullptr;
  return withStat(st, std::move(path));
}

bool FileReferenceUrl::isReferenceString(std::string_view string) {
  return string.starts_with(kReferencePrefix);
}

ObjectPtr FileReferenceUrl::initWithCoder(KeyedUnarchiver& coder, std::string_view relative) {
  std::string_view identity = relative.substr(kReferencePrefix.size());
  auto dot = identity.find('.');
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  if (dot == std::string_view::npos || !parseNumber(identity.substr(0, dot), device) ||
      !parseNumber(identity.substr(dot + 1), inode)) {
    coder.failWithError("NSURL file reference with a malformed identity");
    return nullptr;
  }
  std::string kept;
  if (coder.containsValueForKey(kPathKey)) {
    std::string_view string;
    bool hasString = coder.decodeStringObjectForKey(kPathKey, string);
    if (coder.hasFailed()) return nullptr;
    auto path =
        hasString && !isReferenceString(string) ? pathOfFileURLString(string) : std::nullopt;
    if (!path) {
      coder.failWithError("NSURL file reference whose qx.path is not a file URL");
      return nullptr;
    }
    kept = std::move(*path);
  }
  return ObjectArena::make<FileReferenceUrl>(device, inode, std::move(kept));
}

bool FileReferenceUrl::hasIdentityKeys(const KeyedUnarchiver& coder) {
  return coder.containsValueForKey(kInodeKey) || coder.containsValueForKey(kDeviceKey);
}

ObjectPtr FileReferenceUrl::initWithCoder(KeyedUnarchiver& coder, std::string keptPath) {
  if (!coder.containsValueForKey(kDeviceKey) || !coder.containsValueForKey(kInodeKey)) {
    coder.failWithError("NSURL file reference without both qx.device and qx.inode");
    return nullptr;
  }
  // Both are unsigned 64-bit numbers, stored as the plist's signed integers.
  auto device = static_cast<std::uint64_t>(coder.decodeIntegerForKey(kDeviceKey));
  auto inode = static_cast<std::uint64_t>(coder.decodeIntegerForKey(kInodeKey));
  if (coder.hasFailed()) return nullptr;
  return ObjectArena::make<FileReferenceUrl>(device, inode, std::move(keptPath));
}

std::string FileReferenceUrl::path() const {
  if (keptPath_.empty()) return "";
  if (isAt(keptPath_)) return keptPath_;
  return findInKeptFolder();
}

bool FileReferenceUrl::isAt(const std::string& path) const {
  int saved = errno;
  struct stat st;
  bool same = lstat(path.c_str(), &st) == 0 && st.st_dev == device_ && st.st_ino == inode_;
  errno = saved;
  return same;
}

// Looks for the item among the entries of the kept path's folder.
std::string FileReferenceUrl::findInKeptFolder() const {
  auto slash = keptPath_.rfind('/');
  if (slash == std::string::npos || keptPath_ == "/") return "";
  std::string folder = slash == 0 ? "/" : keptPath_.substr(0, slash);
  int saved = errno;
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    errno = saved;
    return "";
  }
  std::string found;
  alignas(8) char buffer[32 * 1024];
  constexpr std::size_t kNameOffset = kLinuxDirent64NameOffset;
  long got;
  while (found.empty() && (got = syscall(SYS_getdents64, fd, buffer, sizeof buffer)) > 0) {
    for (std::size_t offset = 0; offset + kNameOffset < static_cast<std::size_t>(got);) {
      LinuxDirent64 record;
      std::memcpy(&record, buffer + offset, kNameOffset);
      if (record.d_reclen <= kNameOffset ||
          offset + record.d_reclen > static_cast<std::size_t>(got)) {
        break;
      }
      const char* name = buffer + offset + kNameOffset;
      std::size_t length = strnlen(name, record.d_reclen - kNameOffset);
      offset += record.d_reclen;
      if (record.d_ino != inode_) continue;
      struct stat st;
      if (fstatat(fd, std::string(name, length).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          st.st_dev == device_ && st.st_ino == inode_) {
        found = (folder == "/" ? "" : folder) + "/" + std::string(name, length);
        break;
      }
    }
  }
  close(fd);
  errno = saved;
  return found;
}

void FileReferenceUrl::encodeWithCoder(KeyedArchiver& coder) const {
  if (keptPath_.empty() || keptPath_.front() != '/') {
    // Without a kept path there is no URL to write but the identity's own.
    Url::encodeWithCoder(coder);
    return;
  }
  if (keptPath_ == "/") {
    coder.encodeObject(nullptr, "NS.base");
    coder.encodeStringObject("file:///", "NS.relative");
  } else {
    // The folder's URL ends with '/', so that the name resolves inside it.
    auto slash = keptPath_.rfind('/');
    std::string_view folder = std::string_view(keptPath_).substr(0, slash + 1);
    coder.encodeSharedObjectOfClass(Url::classInfo(), folder, "NS.base", [&](KeyedArchiver& base) {
      base.encodeObject(nullptr, "NS.base");
      base.encodeStringObject("file://" + percentEncodePath(folder), "NS.relative");
    });
    coder.encodeStringObject(relativeStringOfName(std::string_view(keptPath_).substr(slash + 1)),
                             "NS.relative");
  }
  coder.encodeInteger(static_cast<int64_t>(device_), kDeviceKey);
  coder.encodeInteger(static_cast<int64_t>(inode_), kInodeKey);
}

}  // namespace qx
