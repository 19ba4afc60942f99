#include "client/cli/SizePaths.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace qxcli {

SizePaths::SizePaths(std::vector<std::string> requested) : top_(std::move(requested)) {
  std::sort(top_.begin(), top_.end());
}

std::optional<std::string> SizePaths::pathAt(const std::vector<uint64_t>& indexPath) {
  std::size_t depth = 0;
  std::string path;
  if (hasArtificialRoot()) {
    if (indexPath.empty() || indexPath[0] >= top_.size()) return std::nullopt;
    path = top_[indexPath[0]];
    depth = 1;
  } else {
    if (top_.empty()) return std::nullopt;
    path = top_[0];
  }
  for (; depth < indexPath.size(); ++depth) {
    const auto& names = contentsOf(path);
    if (indexPath[depth] >= names.size()) return std::nullopt;
    path += (path == "/" ? "" : "/") + names[indexPath[depth]];
  }
  return path;
}

bool SizePaths::isFolder(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

const std::vector<std::string>& SizePaths::contentsOf(const std::string& folder) {
  auto cached = contents_.find(folder);
  if (cached != contents_.end()) return cached->second;
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
  while (dir) {
    const dirent* entry = ::readdir(dir.get());
    if (!entry) break;
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    names.emplace_back(entry->d_name);
  }
  // std::string compares bytes as unsigned, as strcmp does.
  std::sort(names.begin(), names.end());
  return contents_.emplace(folder, std::move(names)).first->second;
}

}  // namespace qxcli
