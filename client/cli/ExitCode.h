#pragma once

namespace qxcli {

// The command's exit statuses.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,        // the operation failed (the service's error, a lost connection)
  kExitUsage = 2,         // the command line was wrong
  kExitInterrupted = 130  // stopped with Ctrl-C; what was done before is reported
};

}  // namespace qxcli
