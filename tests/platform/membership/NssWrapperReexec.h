#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace qx::test {

// Makes the test process see only the users and groups of `fixtureDir`/passwd and
// `fixtureDir`/group: unless nss_wrapper is already set up, the process re-executes itself
// with LD_PRELOAD=`library` and NSS_WRAPPER_PASSWD/GROUP set. Called from a constructor
// function, before main, so the tests never run against the machine's users.
// `tsanSuppressions` names the thread sanitizer's suppressions for the wrapper itself.
inline void reexecWithNssWrapper(const char* library, const std::string& fixtureDir,
                                 const std::string& tsanSuppressions) {
  if (getenv("NSS_WRAPPER_PASSWD") != nullptr || getenv("QX_NSS_WRAPPER_REEXEC") != nullptr) {
    return;
  }
  std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
  std::string raw((std::istreambuf_iterator<char>(cmdline)), std::istreambuf_iterator<char>());
  std::vector<std::string> args;
  for (size_t start = 0; start < raw.size();) {
    size_t end = raw.find('\0', start);
    if (end == std::string::npos) end = raw.size();
    args.push_back(raw.substr(start, end - start));
    start = end + 1;
  }
  if (args.empty()) return;
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  std::string preload = library;
  if (const char* existing = getenv("LD_PRELOAD"); existing != nullptr && *existing != '\0') {
    preload = std::string(existing) + ":" + preload;
  }
  // A sanitizer runtime wants to be loaded first; the wrapper library comes before it here.
  std::string asan = "verify_asan_link_order=0";
  if (const char* existing = getenv("ASAN_OPTIONS"); existing != nullptr && *existing != '\0') {
    asan = std::string(existing) + ":" + asan;
  }
  std::string tsan = "suppressions=" + tsanSuppressions;
  if (const char* existing = getenv("TSAN_OPTIONS"); existing != nullptr && *existing != '\0') {
    tsan = std::string(existing) + ":" + tsan;
  }
  setenv("LD_PRELOAD", preload.c_str(), 1);
  setenv("TSAN_OPTIONS", tsan.c_str(), 1);
  setenv("ASAN_OPTIONS", asan.c_str(), 1);
  setenv("NSS_WRAPPER_PASSWD", (fixtureDir + "/passwd").c_str(), 1);
  setenv("NSS_WRAPPER_GROUP", (fixtureDir + "/group").c_str(), 1);
  setenv("QX_NSS_WRAPPER_REEXEC", "1", 1);
  execv("/proc/self/exe", argv.data());
  // Not reached unless exec failed; the tests then report that the users are missing.
}

}  // namespace qx::test
