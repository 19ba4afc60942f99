#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "client/cli/CommandLine.h"
#include "client/cli/ExitCode.h"

namespace {

// Output that never reached its file (a full disk, a closed pipe) must not
// pass for success: the command fails, and says so, unless it failed already.
int withOutputWritten(int status) {
  int failure = std::fflush(stdout) != 0 ? errno : 0;
  if (failure == 0 && !std::ferror(stdout)) return status;
  if (failure != 0) {
    std::fprintf(stderr, "qxfile: couldn't write the output: %s\n", std::strerror(failure));
  } else {
    std::fprintf(stderr, "qxfile: couldn't write the output.\n");
  }
  return status == qxcli::kExitOk ? qxcli::kExitFailed : status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return withOutputWritten(qxcli::CommandLine::run(argc, argv));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qxfile: %s\n", error.what());
    return withOutputWritten(qxcli::kExitFailed);
  }
}
