#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/foundation/Url.h"

namespace qx {

// A file reference URL: names an item by its identity on its volume (device
// and inode) rather than by its path, so it stays valid when the item is
// renamed in its folder. It keeps the path at which it was made; path()
// answers the item's present path: the kept path while it still names the same
// item, else the entry of the kept path's folder that is the item (a rename in
// place), else "" (the item is gone or was moved elsewhere).
//
// On the wire it is an NSURL whose NS.relative is "file:///.file/id=<dev>.<ino>"
// (decimal), with the extra key "qx.path" holding the plain file URL string of
// the kept path.
class FileReferenceUrl final : public Url {
 public:
  FileReferenceUrl(std::uint64_t device, std::uint64_t inode, std::string keptPath);

  // From lstat(path): nil, with errno set, when the item cannot be examined.
  static std::shared_ptr<FileReferenceUrl> withPath(const std::string& path);
  // From fstatat(folderFd, name, AT_SYMLINK_NOFOLLOW); `path` is the item's
  // full path, kept as given. Nil, with errno set, on failure.
  static std::shared_ptr<FileReferenceUrl> withName(int folderFd, const char* name,
                                                    std::string path);
  static std::shared_ptr<FileReferenceUrl> withStat(const struct stat& st, std::string path) {
    return std::make_shared<FileReferenceUrl>(st.st_dev, st.st_ino, std::move(path));
  }

  // True for "file:///.file/id=..." strings.
  static bool isReferenceString(std::string_view string);
  // Decodes the reference whose NS.relative is `relative`; nil (and the coder
  // failed) when the identity or the "qx.path" value is malformed.
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder, std::string_view relative);

  bool isFileReferenceURL() const override { return true; }
  std::string path() const override;
  const std::string& keptPath() const { return keptPath_; }
  std::uint64_t device() const { return device_; }
  std::uint64_t inode() const { return inode_; }

  void encodeWithCoder(KeyedArchiver& coder) const override;

 private:
  bool isAt(const std::string& path) const;
  std::string findInKeptFolder() const;

  std::uint64_t device_;
  std::uint64_t inode_;
  std::string keptPath_;
};

using FileReferenceUrlPtr = std::shared_ptr<FileReferenceUrl>;

}  // namespace qx
