#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "client/cli/Output.h"
#include "qxfile/Records.h"

namespace qxcli {

// `qxfile acl show|add|remove|owner|group|mode`: reads an item's entries,
// changes them as asked, writes them back and shows the result.
class AclCommand {
 public:
  struct Options {
    std::string path;
    bool json = false;
    // add
    std::string tag;              // allow or deny
    std::string identity;         // user:NAME, group:NAME, uid:N, gid:N
    std::string rights;           // comma-separated permission names
    std::string inherit;          // comma-separated file, dir, limit, only
    std::optional<long long> at;  // position of the new entry
    // remove: a position or an identity; owner, group: the identity; mode: octal
    std::string value;
  };

  static int show(const Options& options);
  static int add(const Options& options);
  static int remove(const Options& options);
  static int owner(const Options& options);
  static int group(const Options& options);
  static int mode(const Options& options);

  // The listing of the item at `path`, as `show` prints it.
  static void print(const std::string& path, const qxfile::AclListing& listing);
  static Output::Json toJson(const std::string& path, const qxfile::AclListing& listing);
  // "rwxr-x---"
  static std::string modeString(unsigned mode);
};

}  // namespace qxcli
