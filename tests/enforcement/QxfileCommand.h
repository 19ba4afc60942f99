#pragma once

#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace qx::test {

// Runs the qxfile command built beside the tests, as a person would, and keeps what it printed.
class QxfileCommand {
 public:
  struct Outcome {
    int status = -1;  // the exit status; 1000 + the signal that ended it
    std::string out;
    std::string err;
    // Standard output as JSON; a null document (and a test failure) when it is not.
    nlohmann::json json() const;
  };

  // `whileRunning` is called with its pid once it has started. With `outTo`, standard output goes
  // there instead and is not read back.
  static Outcome run(std::vector<std::string> args,
                     const std::function<void(pid_t)>& whileRunning = {},
                     const std::string& outTo = "");
};

std::ostream& operator<<(std::ostream& stream, const QxfileCommand::Outcome& run);

}  // namespace qx::test
