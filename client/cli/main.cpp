#include <cstdio>
#include <exception>

#include "client/cli/CommandLine.h"
#include "client/cli/ExitCode.h"

int main(int argc, char** argv) {
  try {
    return qxcli::CommandLine::run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qxfile: %s\n", error.what());
    return qxcli::kExitFailed;
  }
}
