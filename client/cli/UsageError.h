#pragma once

#include <stdexcept>
#include <string>

namespace qxcli {

// A command line that cannot be carried out as written: an unknown user, a
// permission name that does not exist, an entry position past the end. The
// command prints it and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace qxcli
