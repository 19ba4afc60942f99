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
// On the wire it is an NSURL whose NS.base and NS.relative make the file URL
// of the kept path: NS.base is the URL of the item's folder, ending in '/' (one
// object, shared by every reference into that folder within an archive), and
// NS.relative is the item's percent-encoded name; the identity is under two
// more keys, the integers "qx.device" and "qx.inode". The root, with no folder,
// has no NS.base and NS.relative "file:///". A reference without a kept path
// is written in the older form, which decoding also takes: NS.relative is
// "file:///.file/id=<dev>.<ino>" (decimal), with the kept path, when there is
// one, as the plain string of its file URL under "qx.path".
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
  // Decodes the older form, whose NS.relative is `relative`; nil (and the
  // coder failed) when the identity or the "qx.path" value is malformed.
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder, std::string_view relative);
  // Whether the NSURL being decoded carries an identity under its own keys.
  static bool hasIdentityKeys(const KeyedUnarchiver& coder);
  // Decodes that identity for the kept path its NS.base and NS.relative name;
  // nil (and the coder failed) when a key is missing or not an integer.
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder, std::string keptPath);

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
