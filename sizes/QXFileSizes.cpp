#include "sizes/QXFileSizes.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include "sizes/QXSizeCalculation.h"

namespace {

constexpr int64_t kForkSlack = 4096;
constexpr const char* kResourceForkAttribute = "user.com.apple.ResourceFork";

// The length of the item's resource fork attribute, asked without following
// a link. Paths too long for a system call are reached through the
// descriptor of the item's folder.
ssize_t resourceForkLength(const qx::WalkEntry* entry) {
  if (entry->pathLength() < PATH_MAX || entry->parentFd() < 0) {
    return lgetxattr(entry->path(), kResourceForkAttribute, nullptr, 0);
  }
  std::string viaFolder =
      "/proc/self/fd/" + std::to_string(entry->parentFd()) + "/" + entry->accessName();
  return lgetxattr(viaFolder.c_str(), kResourceForkAttribute, nullptr, 0);
}

bool meansNoFork(int number) {
  return number == ENODATA || number == ENOTSUP || number == EPERM || number == EACCES;
}

}  // namespace

std::optional<QXSizeUpdates> QXFileSizes::getSizesWithUrls(const qx::ArrayPtr& urls,
                                                           const Report& report,
                                                           qx::ErrorPtr* error) {
  QXSizeCalculation calculation(urls, report);
  return calculation.run(error);
}

std::shared_ptr<QXFileSizeItem> QXFileSizes::itemWithNode(const qx::WalkEntry* entry) {
  const struct stat* st = entry->statp();
  int64_t total = st->st_size;
  if (static_cast<int64_t>(st->st_blocks) * 512 - static_cast<int64_t>(st->st_size) >= kForkSlack) {
    ssize_t length = resourceForkLength(entry);
    if (length == -1 && !meansNoFork(errno)) return nullptr;
    if (length > 0) total += length;
  }
  return QXFileSizeItem::make(total);
}

int QXFileSizes::compare(const qx::WalkEntry* a, const qx::WalkEntry* b) {
  return std::strcmp(a->name(), b->name());
}
