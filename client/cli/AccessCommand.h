#pragma once

#include <string>

namespace qxcli {

// `qxfile access PATH IDENTITY`: the effective access a user or a group has
// to an item, permission by permission.
class AccessCommand {
 public:
  struct Options {
    std::string path;
    std::string identity;
    bool json = false;
  };

  static int run(const Options& options);
};

}  // namespace qxcli
