#include "platform/foundation/Url.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/MutableDictionary.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

QX_DEFINE_CLASS(Url, "NSURL", Object)

namespace {

constexpr std::string_view kFileScheme = "file://";

std::string currentFolder() {
  char buffer[PATH_MAX];
  if (getcwd(buffer, sizeof buffer) == nullptr) return "/";
  return buffer;
}

// Drops repeated and trailing slashes; keeps "/" for the root.
std::string normalisePath(std::string_view path) {
  std::string out(path.size(), '\0');
  char* start = out.data();
  char* end = start;
  for (char c : path) {
    if (c == '/' && end != start && end[-1] == '/') continue;
    *end++ = c;
  }
  while (end - start > 1 && end[-1] == '/') --end;
  out.resize(static_cast<std::size_t>(end - start));
  return out;
}

// The bytes a path keeps as they are in a file URL string, as a table: this
// is asked about every byte of every path (a batch rename makes a URL per
// item), and a search of the list of marks for each byte cost more than the
// copy.
constexpr std::array<bool, 256> kUnreservedInPath = [] {
  std::array<bool, 256> table{};
  for (int c = 'a'; c <= 'z'; ++c) table[c] = true;
  for (int c = 'A'; c <= 'Z'; ++c) table[c] = true;
  for (int c = '0'; c <= '9'; ++c) table[c] = true;
  for (char c : std::string_view("-._~!$&'()*+,;=:@/")) table[static_cast<unsigned char>(c)] = true;
  return table;
}();

bool isUnreservedInPath(unsigned char c) {
  return kUnreservedInPath[c];
}

// Appends `path` percent-encoded: the runs of bytes that stay as they are are
// copied whole, so a path that needs no escape is one scan and one copy.
void appendPercentEncoded(std::string& out, std::string_view path) {
  static const char digits[] = "0123456789ABCDEF";
  std::size_t run = 0;
  for (std::size_t i = 0; i < path.size(); ++i) {
    auto c = static_cast<unsigned char>(path[i]);
    if (isUnreservedInPath(c)) continue;
    out.append(path.substr(run, i - run));
    const char escape[] = {'%', digits[c >> 4], digits[c & 15]};
    out.append(escape, sizeof escape);
    run = i + 1;
  }
  out.append(path.substr(run));
}

// Whether an absolute path is its own normal form (no repeated or trailing
// slash), as nearly every path the service makes or receives is: such a path
// skips normalisePath, which would give it back unchanged.
bool isNormalPath(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  if (path.size() > 1 && path.back() == '/') return false;
  return path.find("//") == std::string_view::npos;
}

// The size of `text` up to and including its last '/'; 0 when it has none.
std::size_t throughLastSlash(std::string_view text) {
  const void* slash = memrchr(text.data(), '/', text.size());
  return slash == nullptr ? 0 : static_cast<const char*>(slash) - text.data() + 1;
}

// Whether `string` is "file://" and a normal path in which no byte needed an
// escape: the string fileURLWithPath makes for that path.
bool isPlainFileString(std::string_view string) {
  if (!string.starts_with(kFileScheme)) return false;
  std::string_view path = string.substr(kFileScheme.size());
  for (char c : path) {
    if (!isUnreservedInPath(static_cast<unsigned char>(c))) return false;
  }
  return isNormalPath(path);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool hasScheme(std::string_view text) {
  auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  for (std::size_t i = 0; i < colon; ++i) {
    char c = text[i];
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
              (i > 0 && ((c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'));
    if (!ok) return false;
  }
  return true;
}

ErrorPtr noSuchItem(const std::string& path, int number) {
  auto info = MutableDictionary::make();
  info->setObject(Error::errorWithDomain(kPOSIXErrorDomain, number), kUnderlyingErrorKey);
  info->setObject(Url::fileURLWithPath(path), kURLErrorKey);
  return Error::errorWithDomain(kCocoaErrorDomain, number == ENOENT ? 260 : 256, info);
}

}  // namespace

Url::Url(std::string absoluteString) : string_(std::move(absoluteString)) {
  if (isPlainFileString(string_)) {
    path_ = string_.substr(kFileScheme.size());
    isFile_ = true;
    madeFromPath_ = true;
    return;
  }
  if (auto path = pathOfFileURLString(string_)) {
    path_ = std::move(*path);
    isFile_ = true;
  }
}

std::optional<std::string> Url::pathOfFileURLString(std::string_view string) {
  if (!string.starts_with(kFileScheme)) return std::nullopt;
  std::string_view rest = string.substr(kFileScheme.size());
  // "file://localhost/x" and "file:///x" both name /x.
  auto slash = rest.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  std::string_view encoded = rest.substr(slash);
  if (isNormalPath(encoded) &&
      encoded.find_first_of(std::string_view("%\0", 2)) == std::string_view::npos)
    return std::string(encoded);
  auto decoded = percentDecode(encoded);
  // An encoded NUL byte would cut the path short at every system call, which
  // would then act on another item than the one named: such a string names
  // no file.
  if (!decoded || decoded->find('\0') != std::string::npos) return std::nullopt;
  return normalisePath(*decoded);
}

std::shared_ptr<Url> Url::fileURLWithPath(std::string_view path) {
  std::string normal;
  if (isNormalPath(path)) {
    normal = path;
  } else if (!path.empty() && path.front() == '/') {
    normal = normalisePath(path);
  } else {
    normal = normalisePath(currentFolder() + "/" + std::string(path));
  }
  std::string string;
  string.reserve(kFileScheme.size() + normal.size() + 16);
  string.append(kFileScheme);
  appendPercentEncoded(string, normal);
  return ObjectArena::make<Url>(MadeFromPath{}, std::move(string), std::move(normal));
}

// A batch rename makes one URL per item beside the old one: encoding only the
// name saves encoding the folder's path again for each item. '/' is never
// escaped, so the last '/' of the string is the one that ends the folder.
std::shared_ptr<Url> Url::fileURLWithPathBeside(const Url& neighbour, std::string path) {
  if (!neighbour.madeFromPath_) return fileURLWithPath(path);
  const std::string_view folder(neighbour.path_.data(), throughLastSlash(neighbour.path_));
  if (path.size() <= folder.size() || !path.starts_with(folder)) return fileURLWithPath(path);
  const std::string_view name = std::string_view(path).substr(folder.size());
  if (name.find('/') != std::string_view::npos) return fileURLWithPath(path);

  const std::string_view encodedFolder(neighbour.string_.data(),
                                       throughLastSlash(neighbour.string_));
  std::string string;
  string.reserve(encodedFolder.size() + name.size() + 16);
  string.append(encodedFolder);
  appendPercentEncoded(string, name);
  return ObjectArena::make<Url>(MadeFromPath{}, std::move(string), std::move(path));
}

std::shared_ptr<Url> Url::URLWithString(std::string_view string) {
  if (!hasScheme(string)) return nullptr;
  return ObjectArena::make<Url>(std::string(string));
}

ObjectPtr Url::initWithCoder(KeyedUnarchiver& coder) {
  auto base = cast<Url>(coder.decodeObjectOfClassForKey(Url::classInfo(), "NS.base"));
  std::string_view relative;
  bool hasRelative = coder.decodeStringObjectForKey("NS.relative", relative);
  if (coder.hasFailed()) return nullptr;
  if (!hasRelative) {
    coder.failWithError("NSURL without an NS.relative string");
    return nullptr;
  }
  if (FileReferenceUrl::isReferenceString(relative)) {
    return FileReferenceUrl::initWithCoder(coder, relative);
  }
  bool reference = FileReferenceUrl::hasIdentityKeys(coder);
  if (base && !hasScheme(relative)) {
    // A path relative to a file URL base, which names a folder. A file
    // reference as the base would be looked up on disk while decoding.
    auto decoded = percentDecode(relative);
    if (!decoded || decoded->find('\0') != std::string::npos || !base->isFileURL() ||
        base->isFileReferenceURL()) {
      coder.failWithError("NSURL with a relative string that does not resolve");
      return nullptr;
    }
    std::string path = base->path();
    path += '/';
    path += *decoded;
    // A listing's items are names in a folder: their joined paths are nearly
    // always normal already.
    if (!isNormalPath(path)) path = normalisePath(path);
    if (reference) return FileReferenceUrl::initWithCoder(coder, std::move(path));
    return fileURLWithPath(path);
  }
  auto url = URLWithString(relative);
  if (!url) {
    coder.failWithError("NSURL string without a scheme");
    return nullptr;
  }
  if (!reference) return url;
  if (!url->isFileURL()) {
    coder.failWithError("NSURL file reference that names no file");
    return nullptr;
  }
  return FileReferenceUrl::initWithCoder(coder, url->path());
}

std::shared_ptr<Url> Url::fileReferenceURL() const {
  if (isFileReferenceURL()) {
    return std::const_pointer_cast<Url>(shared_from_this());
  }
  if (!isFileURL()) {
    errno = EINVAL;
    return nullptr;
  }
  return FileReferenceUrl::withPath(path());
}

std::string Url::lastPathComponent() const {
  std::string p = path();
  if (p == "/") return p;
  auto slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::shared_ptr<Url> Url::URLByAppendingPathComponent(std::string_view component) const {
  std::string base = path();
  if (base != "/") base += '/';
  return fileURLWithPath(base + std::string(component));
}

std::optional<bool> Url::isDirectory() const {
  struct stat st;
  std::string p = path();
  if (!isFileURL() || p.empty() || lstat(p.c_str(), &st) != 0) return std::nullopt;
  return S_ISDIR(st.st_mode);
}

StringPtr Url::name() const {
  struct stat st;
  std::string p = path();
  if (!isFileURL() || p.empty() || lstat(p.c_str(), &st) != 0) return nullptr;
  return str(lastPathComponent());
}

std::shared_ptr<Url> Url::parentDirectory() const {
  struct stat st;
  std::string p = path();
  if (!isFileURL() || p.empty() || p == "/" || lstat(p.c_str(), &st) != 0) return nullptr;
  auto slash = p.rfind('/');
  return fileURLWithPath(slash == 0 ? "/" : p.substr(0, slash));
}

bool Url::getResourceValue(ObjectPtr* value, std::string_view key, ErrorPtr* error) const {
  ObjectPtr result;
  if (key == kURLIsDirectoryKey) {
    if (auto directory = isDirectory()) result = Number::numberWithBool(*directory);
  } else if (key == kURLNameKey) {
    result = name();
  } else if (key == kURLParentDirectoryURLKey) {
    result = parentDirectory();
    // The root has no parent, and that is not a failure.
    if (!result && path() == "/") {
      if (value) *value = nullptr;
      if (error) *error = nullptr;
      return true;
    }
  }
  int number = errno;
  if (value) *value = result;
  if (error) *error = result ? nullptr : noSuchItem(path(), number ? number : ENOENT);
  return result != nullptr;
}

bool Url::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Url*>(&other);
  return that != nullptr && that->string_ == string_;
}

void Url::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(nullptr, "NS.base");
  coder.encodeStringObject(string_, "NS.relative");
}

std::string Url::percentEncodePath(std::string_view path) {
  std::string out;
  out.reserve(path.size() + 8);
  appendPercentEncoded(out, path);
  return out;
}

std::optional<std::string> Url::percentDecode(std::string_view text) {
  if (text.find('%') == std::string_view::npos) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    int high = hexValue(text[i + 1]);
    int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

}  // namespace qx
