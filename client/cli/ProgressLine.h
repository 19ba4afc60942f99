#pragma once

#include <chrono>
#include <mutex>
#include <string>

namespace qxcli {

// A line of progress that rewrites itself in place on a terminal. It shows
// nothing when standard output is not a terminal or when it is not wanted
// (JSON output), and it is gone before the results are printed.
class ProgressLine {
 public:
  explicit ProgressLine(bool wanted);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  bool active() const { return active_; }
  // Redraws at most every 100 ms, unless `now`. May be called from any thread.
  void show(const std::string& text, bool now = false);
  // Erases the line.
  void clear();

 private:
  const bool active_;
  std::mutex mutex_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace qxcli
