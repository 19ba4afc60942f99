#pragma once

namespace qxcli {

// Parses the command line and runs the subcommand it names. Answers the exit
// status: 0 done, 1 the operation failed, 2 the command line was wrong, 130
// stopped with Ctrl-C.
class CommandLine {
 public:
  static int run(int argc, char** argv);
};

}  // namespace qxcli
