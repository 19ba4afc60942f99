#include "tests/enforcement/QxfileCommand.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/support/ChildProcess.h"
#include "tests/support/TempTree.h"

namespace qx::test {

namespace {

std::string contentOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

}  // namespace

nlohmann::json QxfileCommand::Outcome::json() const {
  nlohmann::json document = nlohmann::json::parse(out, nullptr, false);
  EXPECT_FALSE(document.is_discarded()) << "not JSON: " << out;
  return document.is_discarded() ? nlohmann::json() : document;
}

QxfileCommand::Outcome QxfileCommand::run(std::vector<std::string> args,
                                          const std::function<void(pid_t)>& whileRunning,
                                          const std::string& outTo) {
  // A folder of each run's own, also for runs in children that never return.
  const TempTree output("qx-cli-output");
  const std::string out = outTo.empty() ? output.path("out") : outTo;
  const std::string err = output.path("err");
  args.insert(args.begin(), QX_CLI_EXECUTABLE);
  const int status = ChildProcess::run(std::move(args), out, err, whileRunning);
  return {status, outTo.empty() ? contentOf(out) : "", contentOf(err)};
}

std::ostream& operator<<(std::ostream& stream, const QxfileCommand::Outcome& run) {
  return stream << "status " << run.status << "\nstdout:\n" << run.out << "stderr:\n" << run.err;
}

}  // namespace qx::test
