#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qxcli {

// Names the items of a size tree. The service reports items by index path
// only: the position of each item among its siblings in the order the walk
// visited them, which is ascending byte order of the names (of the paths as
// given, for the items asked for). The same order of a folder's present
// contents gives each position its path. With several items asked for, the
// root is their sum and has no path of its own.
class SizePaths {
 public:
  explicit SizePaths(std::vector<std::string> requested);

  // The items asked for, in the order the walk visits them.
  const std::vector<std::string>& topItems() const { return top_; }
  bool hasArtificialRoot() const { return top_.size() > 1; }

  // Nullopt for the artificial root and for positions that the folder's
  // present contents do not have.
  std::optional<std::string> pathAt(const std::vector<uint64_t>& indexPath);
  static bool isFolder(const std::string& path);

 private:
  const std::vector<std::string>& contentsOf(const std::string& folder);

  std::vector<std::string> top_;
  std::map<std::string, std::vector<std::string>> contents_;
};

}  // namespace qxcli
