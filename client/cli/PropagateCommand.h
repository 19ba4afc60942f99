#pragma once

#include <string>

namespace qxcli {

// `qxfile propagate FOLDER`: gives everything below a folder the folder's
// ACL, mode, owner and group, as the folder has them now.
class PropagateCommand {
 public:
  struct Options {
    std::string path;
    bool json = false;
  };

  static int run(const Options& options);
};

}  // namespace qxcli
