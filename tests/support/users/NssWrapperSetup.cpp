// The test binary sees the users and groups of QX_TEST_USERS only.
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

// Makes the test process see only the users and groups of QX_TEST_USERS/passwd and
// QX_TEST_USERS/group: unless nss_wrapper is already set up, the process re-executes itself
// with the wrapper library preloaded and NSS_WRAPPER_PASSWD/GROUP set. Runs before main, so
// the tests never run against the machine's users.
__attribute__((constructor(101))) void useTestUsers() {
  if (getenv("NSS_WRAPPER_PASSWD") != nullptr || getenv("QX_NSS_WRAPPER_REEXEC") != nullptr) return;
  std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> args;
  for (std::string arg; std::getline(cmdline, arg, '\0');) args.push_back(arg);
  if (args.empty()) return;
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  // Adds `value` after what the variable already holds, separated by a colon.
  auto append = [](const char* name, const std::string& value) {
    const char* existing = getenv(name);
    setenv(name, (existing && *existing ? existing + (":" + value) : value).c_str(), 1);
  };
  append("LD_PRELOAD", QX_NSS_WRAPPER_LIBRARY);
  // The thread sanitizer's suppressions for the wrapper itself.
  append("TSAN_OPTIONS",
         "suppressions=" QX_SOURCE_DIR "/tests/platform/membership/nss-wrapper.tsan.supp");
  // A sanitizer runtime wants to be loaded first; the wrapper library comes before it here.
  append("ASAN_OPTIONS", "verify_asan_link_order=0");
  setenv("NSS_WRAPPER_PASSWD", QX_TEST_USERS "/passwd", 1);
  setenv("NSS_WRAPPER_GROUP", QX_TEST_USERS "/group", 1);
  setenv("QX_NSS_WRAPPER_REEXEC", "1", 1);
  execv("/proc/self/exe", argv.data());
  // Not reached unless exec failed; the tests then report that the users are missing.
}

}  // namespace
