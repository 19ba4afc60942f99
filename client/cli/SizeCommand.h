#pragma once

#include <string>
#include <vector>

namespace qxcli {

// `qxfile size PATH...`: the total size of each item and of all of them, with
// a progress line while the service counts; `--all` adds every folder below.
class SizeCommand {
 public:
  struct Options {
    std::vector<std::string> paths;
    bool all = false;
    bool json = false;
  };

  static int run(const Options& options);
};

}  // namespace qxcli
