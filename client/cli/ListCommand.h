#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qxcli {

// `qxfile ls FOLDER [INDEX...]`: a folder's contents and, following the
// positions given, the contents of the folders below it, one level each.
class ListCommand {
 public:
  struct Options {
    std::string path;
    std::vector<uint64_t> indexes;
    bool json = false;
  };

  static int run(const Options& options);
};

}  // namespace qxcli
