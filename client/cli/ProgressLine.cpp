#include "client/cli/ProgressLine.h"

#include <unistd.h>

#include <cstdio>

namespace qxcli {

ProgressLine::ProgressLine(bool wanted) : active_(wanted && ::isatty(STDOUT_FILENO) == 1) {}

ProgressLine::~ProgressLine() {
  clear();
}

void ProgressLine::show(const std::string& text, bool now) {
  if (!active_) return;
  std::lock_guard lock(mutex_);
  auto time = std::chrono::steady_clock::now();
  if (!now && shown_ && time - last_ < std::chrono::milliseconds(100)) return;
  last_ = time;
  shown_ = true;
  // Back to the start of the line, erase it, write the new text.
  std::fprintf(stdout, "\r\033[K%s", text.c_str());
  std::fflush(stdout);
}

void ProgressLine::clear() {
  if (!active_) return;
  std::lock_guard lock(mutex_);
  if (!shown_) return;
  shown_ = false;
  std::fputs("\r\033[K", stdout);
  std::fflush(stdout);
}

}  // namespace qxcli
