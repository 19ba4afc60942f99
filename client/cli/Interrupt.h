#pragma once

namespace qxcli {

// Ctrl-C during a long operation. The first SIGINT only records that a stop
// was asked for: the operation's next question to the client is answered with
// "stop", and the command reports what was done. A second SIGINT ends the
// process at once, as it would without this.
class Interrupt {
 public:
  static void catchFirst();
  static bool requested();
};

}  // namespace qxcli
