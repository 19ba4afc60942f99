#pragma once

#include <grp.h>
#include <stdlib.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/xacl/xacl.h"

namespace qx::xacl::test {

// A fresh folder under the system's temporary folder, removed with its contents at the end.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qx-xacl-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

using Uuid = std::array<unsigned char, 16>;

inline Uuid uuidOf(const char* text) {
  Uuid u{};
  uuid_parse(text, u.data());
  return u;
}

inline std::string textOf(const void* uuid) {
  char text[37];
  uuid_unparse_upper(static_cast<const unsigned char*>(uuid), text);
  return text;
}

inline void putWord(std::vector<uint8_t>& bytes, uint32_t word) {
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(word >> shift));
}

// The stored form built by hand, independently of the codec under test.
struct RawEntry {
  Uuid qualifier;
  uint32_t flagsWord;
  uint32_t rights;
};

inline std::vector<uint8_t> rawAcl(const std::vector<RawEntry>& entries,
                                   uint32_t magic = 0x012cc16d, uint32_t aclFlags = 0) {
  std::vector<uint8_t> bytes;
  putWord(bytes, magic);
  putWord(bytes, static_cast<uint32_t>(entries.size()));
  putWord(bytes, aclFlags);
  for (const RawEntry& entry : entries) {
    bytes.insert(bytes.end(), entry.qualifier.begin(), entry.qualifier.end());
    putWord(bytes, entry.flagsWord);
    putWord(bytes, entry.rights);
  }
  return bytes;
}

inline bool writeRaw(const std::string& path, const std::vector<uint8_t>& bytes) {
  return lsetxattr(path.c_str(), kAclAttributeName, bytes.data(), bytes.size(), 0) == 0;
}

// The attribute's bytes; empty with errno set when it cannot be read.
inline std::vector<uint8_t> readRaw(const std::string& path) {
  std::vector<uint8_t> bytes(65536);
  ssize_t n = lgetxattr(path.c_str(), kAclAttributeName, bytes.data(), bytes.size());
  bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return bytes;
}

// Runs `body` in a child process with the given unprivileged ids and returns what it returned
// (an errno value, 0 for success), or -1 when the child could not run.
inline int runAs(uid_t uid, gid_t gid, const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(255);
    _exit(body() & 0xff);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status) == 255 ? -1 : WEXITSTATUS(status);
}

}  // namespace qx::xacl::test
