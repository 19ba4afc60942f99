#pragma once

#include <string>
#include <vector>

namespace qxcli {

// `qxfile rename PATH NEWNAME [PATH NEWNAME ...]`: renames each item in its
// own folder, never over an existing item, stopping at the first failure or
// at Ctrl-C.
class RenameCommand {
 public:
  struct Options {
    std::vector<std::string> pairs;  // path, new name, path, new name, ...
    bool json = false;
  };

  static int run(const Options& options);
};

}  // namespace qxcli
