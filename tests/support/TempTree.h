#pragma once

#include <sys/types.h>

#include <string>

namespace qx::test {

// A temporary folder under /tmp that is removed with everything in it at the
// end, even where a test took permissions away. Readable by the unprivileged
// user some tests switch to. Missing folders above an item are
// created; failures to build the tree throw.
class TempTree {
 public:
  // The folder is named `/tmp/<prefix>-XXXXXX`.
  explicit TempTree(const std::string& prefix);
  ~TempTree();
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  void folder(const std::string& relative, mode_t mode = 0755) const;
  void file(const std::string& relative, const std::string& contents = "") const;
  void link(const std::string& relative, const std::string& target) const;
  void fifo(const std::string& relative) const;

 private:
  std::string root_;
};

}  // namespace qx::test
