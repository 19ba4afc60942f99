#include "acl/QXAclAttribute.h"

#include <fcntl.h>
#include <linux/types.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "platform/xacl/Acl.h"
#include "platform/xacl/AclCodec.h"

namespace {

// The system call numbers are the same on every architecture Debian builds for.
constexpr long kSetxattrat = 463;
constexpr long kRemovexattrat = 466;

struct XattrArgs {
  __aligned_u64 value;
  __u32 size;
  __u32 flags;
};

// Cleared once the kernel answers that it has no descriptor-relative attribute calls.
std::atomic<bool> atCallsAvailable{true};

// The result of one attempt with the descriptor-relative calls: done (0 or -1 with errno), or
// not possible here. EPERM also tries the other way, in case a system call filter refuses
// calls it does not know; a real EPERM comes back from there as well.
enum class Attempt { Done, Unavailable };

Attempt attempt(long result, int* outcome) {
  if (result == 0) {
    *outcome = 0;
    return Attempt::Done;
  }
  if (errno == ENOSYS) atCallsAvailable.store(false, std::memory_order_relaxed);
  if (errno == ENOSYS || errno == EPERM) return Attempt::Unavailable;
  *outcome = -1;
  return Attempt::Done;
}

bool canCarryAttribute(const struct stat& st) {
  return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode);
}

bool removeAt(int folderFd, const char* name, int* outcome,
              const char* attribute = qx::xacl::kAclAttributeName) {
  long result = syscall(kRemovexattrat, folderFd, name, AT_SYMLINK_NOFOLLOW, attribute);
  // Nothing to remove is what was asked for.
  if (result != 0 && (errno == ENODATA || errno == ENOTSUP)) result = 0;
  return attempt(result, outcome) == Attempt::Done;
}

bool writeAt(int folderFd, const char* name, const std::vector<uint8_t>& bytes, int* outcome,
             const char* attribute = qx::xacl::kAclAttributeName) {
  XattrArgs args{reinterpret_cast<uintptr_t>(bytes.data()), static_cast<__u32>(bytes.size()), 0};
  long result =
      syscall(kSetxattrat, folderFd, name, AT_SYMLINK_NOFOLLOW, attribute, &args, sizeof args);
  return attempt(result, outcome) == Attempt::Done;
}

// The attribute's bytes, as acl_set_link_np would store them: 0 or an error number.
int encode(qx::xacl::acl_t acl, std::vector<uint8_t>* bytes) {
  try {
    return qx::xacl::AclCodec::encode(*acl, *bytes);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

}  // namespace

std::string QXAclAttribute::pathThroughFolder(int folderFd, const char* name) {
  std::string path = "/proc/self/fd/";
  path += std::to_string(folderFd);
  path += '/';
  path += name;
  return path;
}

int QXAclAttribute::setAt(int folderFd, const char* name, const struct stat& st,
                          qx::xacl::acl_t acl) {
  if (acl == nullptr || !acl->valid()) {
    errno = EINVAL;
    return -1;
  }
  if (atCallsAvailable.load(std::memory_order_relaxed)) {
    int outcome = 0;
    if (acl->size() == 0) {
      if (!canCarryAttribute(st) || removeAt(folderFd, name, &outcome)) return outcome;
    } else {
      std::vector<uint8_t> bytes;
      if (int error = encode(acl, &bytes)) {
        errno = error;
        return -1;
      }
      if (!canCarryAttribute(st)) {
        errno = ENOTSUP;
        return -1;
      }
      if (writeAt(folderFd, name, bytes, &outcome)) return outcome;
    }
  }
  return qx::xacl::acl_set_link_np(pathThroughFolder(folderFd, name).c_str(),
                                   qx::xacl::ACL_TYPE_EXTENDED, acl);
}

int QXAclAttribute::setAttributeAt(int folderFd, const char* name, const char* attribute,
                                   const std::vector<uint8_t>* bytes) {
  if (atCallsAvailable.load(std::memory_order_relaxed)) {
    int outcome = 0;
    const bool done = bytes ? writeAt(folderFd, name, *bytes, &outcome, attribute)
                            : removeAt(folderFd, name, &outcome, attribute);
    if (done) return outcome;
  }
  const std::string path = pathThroughFolder(folderFd, name);
  if (bytes) return lsetxattr(path.c_str(), attribute, bytes->data(), bytes->size(), 0);
  if (lremovexattr(path.c_str(), attribute) == 0) return 0;
  return errno == ENODATA || errno == ENOTSUP ? 0 : -1;
}
