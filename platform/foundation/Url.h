#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/Error.h"
#include "platform/foundation/Object.h"
#include "platform/foundation/String.h"

namespace qx {

// Resource keys understood by Url::getResourceValue.
inline constexpr std::string_view kURLIsDirectoryKey = "NSURLIsDirectoryKey";
inline constexpr std::string_view kURLNameKey = "NSURLNameKey";
inline constexpr std::string_view kURLParentDirectoryURLKey = "NSURLParentDirectoryURLKey";

// A URL (NSURL). File URLs carry their path exactly, as bytes, in the
// percent-encoded string "file:///...". Resource values are read from the item
// itself: symbolic links are never followed.
class Url : public Object, public std::enable_shared_from_this<Url> {
  QX_DECLARE_CLASS()

 public:
  // A file URL for `path`; a relative path is taken from the current folder.
  // Repeated and trailing slashes are dropped ("/a//b/" names "/a/b").
  static std::shared_ptr<Url> fileURLWithPath(std::string_view path);
  // fileURLWithPath(path), made without encoding the folder again when `path`
  // is a name in the folder of `neighbour` and neighbour's string is the one
  // fileURLWithPath gives for its path: the string is then neighbour's up to
  // its last '/' and the encoded name.
  static std::shared_ptr<Url> fileURLWithPathBeside(const Url& neighbour, std::string path);
  // Parses an absolute URL string ("file:///tmp/a%20b", "https://host/x"); nil
  // when it has no scheme.
  static std::shared_ptr<Url> URLWithString(std::string_view string);
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);

  explicit Url(std::string absoluteString);

  const std::string& absoluteString() const { return string_; }
  bool isFileURL() const { return isFile_; }
  virtual bool isFileReferenceURL() const { return false; }
  // A file reference URL (FileReferenceUrl) for the item this file URL names,
  // made from its lstat; the URL itself when it is one already; nil when the
  // item cannot be examined (errno tells why) or this is not a file URL.
  std::shared_ptr<Url> fileReferenceURL() const;

  // The decoded path of a file URL ("" for other URLs), absolute and normal
  // (no repeated or trailing slash) unless it is a file reference, which
  // answers the item's present path, or "" when the item is gone.
  virtual std::string path() const { return path_; }
  // The path as the NUL-terminated bytes that system calls take.
  std::string fileSystemRepresentation() const { return path(); }
  std::string lastPathComponent() const;
  std::shared_ptr<Url> URLByAppendingPathComponent(std::string_view component) const;

  // NSURLIsDirectoryKey: nullopt when the item cannot be examined.
  std::optional<bool> isDirectory() const;
  // NSURLNameKey: the item's name; nil when the item cannot be examined.
  StringPtr name() const;
  // NSURLParentDirectoryURLKey: nil for the root and for items that cannot be
  // examined.
  std::shared_ptr<Url> parentDirectory() const;
  // The key-based form of the three above: false (and `error` set, when given)
  // when the value cannot be had.
  bool getResourceValue(ObjectPtr* value, std::string_view key, ErrorPtr* error = nullptr) const;

  bool isEqual(const Object& other) const override;
  std::size_t hash() const override { return std::hash<std::string>()(string_); }
  std::string description() const override { return string_; }
  void encodeWithCoder(KeyedArchiver& coder) const override;

  // "/a b" -> "/a%20b" and back; decoding nullopt for a malformed escape.
  static std::string percentEncodePath(std::string_view path);
  static std::optional<std::string> percentDecode(std::string_view text);
  // The path a "file://..." string names, as a file URL made from it would
  // answer it; nullopt for any other string, and for one whose path holds a
  // NUL byte.
  static std::optional<std::string> pathOfFileURLString(std::string_view string);

 protected:
  // A file URL whose string a subclass has made itself (a file reference):
  // nothing is parsed, and path() is the subclass's.
  struct FileUrlString {
    std::string absoluteString;
  };
  explicit Url(FileUrlString string) : string_(std::move(string.absoluteString)), isFile_(true) {}

 private:
  struct MadeFromPath {
    explicit MadeFromPath() = default;
  };

 public:
  // fileURLWithPath's: the string and the path it encodes, made together, so
  // that nothing is parsed back.
  Url(MadeFromPath, std::string absoluteString, std::string path)
      : string_(std::move(absoluteString)),
        path_(std::move(path)),
        isFile_(true),
        madeFromPath_(true) {}

 private:
  std::string string_;
  std::string path_;
  bool isFile_ = false;
  // string_ is what fileURLWithPath(path_) makes: "file://" and path_
  // percent-encoded, path_ normal.
  bool madeFromPath_ = false;
};

using UrlPtr = std::shared_ptr<Url>;

}  // namespace qx
