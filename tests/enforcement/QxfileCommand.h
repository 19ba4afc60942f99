#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace qx::test {

// Runs the qxfile command built beside the tests, as a person would, and
// keeps what it printed.
class QxfileCommand {
 public:
  struct Outcome {
    int status = -1;  // the exit status; 1000 + the signal that ended it
    std::string out;
    std::string err;
    // Standard output as JSON; a null document when it is not.
    nlohmann::json json() const;
  };

  static Outcome run(std::vector<std::string> args);
};

std::ostream& operator<<(std::ostream& stream, const QxfileCommand::Outcome& run);

}  // namespace qx::test
