#include "acl/QXAclPropagation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "acl/QXAclAttribute.h"
#include "acl/QXAclStep.h"
#include "acl/QXAclWriteMessage.h"
#include "acl/QXAclWriter.h"
#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "model/QXOperation.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/MutableArray.h"
#include "platform/walk/TreeWalk.h"
#include "platform/xacl/Acl.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/ItemAcl.h"
#include "platform/xacl/PosixAclCodec.h"

namespace {

using qx::ErrorPtr;
using qx::WalkEntry;
using qx::WalkInfo;
using qx::xacl::acl_t;

constexpr mode_t kPermissionBits = 0777;

namespace W = QXAclWriteMessage;

// The ACL entries at the front of the request, up to its first pseudo-entry.
qx::MutableArrayPtr collectAclEntries(const qx::ArrayPtr& entries) {
  auto collected = qx::MutableArray::make(entries ? entries->count() : 0);
  if (!entries) return collected;
  for (const qx::ObjectPtr& object : *entries) {
    auto entry = qx::cast<QXAclEntry>(object);
    if (!entry) continue;
    if (!entry->isAcl()) break;
    collected->addObject(entry);
  }
  return collected;
}

// Copies of the entries, through an archive so that the request's own records
// and trees stay as they are, each turned into the entry for a file.
ErrorPtr makeFileEntries(const qx::ArrayPtr& aclEntries, qx::MutableArrayPtr* fileEntries) {
  registerModelClasses();
  *fileEntries = qx::MutableArray::make(aclEntries->count());
  for (const qx::ObjectPtr& entry : *aclEntries) {
    qx::DataPtr archive = qx::KeyedArchiver::archivedDataWithRootObject(entry);
    ErrorPtr failure;
    auto copy =
        qx::cast<QXAclEntry>(qx::KeyedUnarchiver::unarchiveObjectWithData(*archive, &failure));
    if (!copy) {
      return failure
                 ? failure
                 : qx::Error::errorWithDomain(qx::kCocoaErrorDomain, qx::kCoderReadCorruptError);
    }
    copy->convertParentToFileEntry();
    (*fileEntries)->addObject(copy);
  }
  return nullptr;
}

#ifdef SYS_fchmodat2
constexpr long kFchmodat2 = SYS_fchmodat2;
#else
constexpr long kFchmodat2 = 452;  // the same number on every architecture Debian builds for
#endif

// fchmodat with AT_SYMLINK_NOFOLLOW. Kernels from 6.6 on take the flag in one call
// (fchmodat2); glibc 2.36 emulates it with four (open, stat, chmod through /proc, close), which
// would dominate the cost of a propagation. Without the call (ENOSYS), or where a filter
// refuses it (EPERM, which the emulation then confirms or not), glibc's way is taken.
int changeMode(int folderFd, const char* name, mode_t mode) {
  static std::atomic<bool> unavailable{false};
  if (!unavailable.load(std::memory_order_relaxed)) {
    if (syscall(kFchmodat2, folderFd, name, mode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
    if (errno == ENOSYS) unavailable.store(true, std::memory_order_relaxed);
    if (errno != ENOSYS && errno != EPERM) return -1;
  }
  return fchmodat(folderFd, name, mode, AT_SYMLINK_NOFOLLOW);
}

// The POSIX ACLs one kind of item receives, in the kernel's attribute form. They depend only on
// the entries and on the recorded owner, group and mode, so they are computed once per walk
// and written as raw attribute bytes through the item's folder: libacl offers no call relative
// to a folder descriptor, and converting the same ACL again for every item would dominate.
struct EnforcedBytes {
  bool empty = true;    // no extended entries: writing clears rather than sets
  mode_t statMode = 0;  // the permission bits st_mode then shows (the mask as group bits)
  std::vector<uint8_t> access;
  std::optional<std::vector<uint8_t>> defaults;

  static EnforcedBytes of(acl_t acl, uid_t owner, gid_t group, mode_t mode, bool isFolder) {
    const qx::xacl::ExtendedEntries entries = acl->entries();
    const qx::xacl::PosixMapping::Enforced enforced =
        qx::xacl::ItemAcl::enforcing(entries, {owner, group, mode, isFolder});
    EnforcedBytes bytes;
    bytes.empty = entries.empty();
    bytes.statMode = enforced.access.statModeBits();
    bytes.access = qx::xacl::PosixAclCodec::encode(enforced.access);
    if (enforced.defaults) bytes.defaults = qx::xacl::PosixAclCodec::encode(*enforced.defaults);
    return bytes;
  }
};

bool carriesAcls(const struct stat& st) {
  return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode);
}

// One walk over the tree below a folder, with the settings it hands down.
class TreeUpdate {
 public:
  TreeUpdate(std::string top, acl_t folderAcl, acl_t fileAcl,
             const std::function<bool()>& shouldStop)
      : top_(std::move(top)), folderAcl_(folderAcl), fileAcl_(fileAcl), shouldStop_(shouldStop) {}

  ErrorPtr run() {
    auto walk = qx::TreeWalk::open({top_}, qx::TreeWalk::Physical | qx::TreeWalk::NoChdir);
    if (!walk) return QXAclStep::error(errno, W::kReadHierarchy, top_.c_str());
    ErrorPtr failure = visitAll(*walk);
    if (walk->close() != 0 && !failure) {
      failure = QXAclStep::error(errno, W::kCloseWalk, top_.c_str());
    }
    return failure;
  }

 private:
  ErrorPtr visitAll(qx::TreeWalk& walk) {
    while (const WalkEntry* entry = walk.read()) {
      if (shouldStop_ && shouldStop_()) {
        return QXAclStep::error(ECANCELED, W::kWalkFailed, top_.c_str());
      }
      if (ErrorPtr failure = visit(*entry)) return failure;
    }
    // A walk that ends normally leaves errno at 0.
    if (errno != 0) return QXAclStep::error(errno, W::kWalkFailed, top_.c_str());
    return nullptr;
  }

  ErrorPtr visit(const WalkEntry& entry) {
    switch (entry.info()) {
      case WalkInfo::D:
        return entry.level() == 0 ? record(*entry.statp()) : nullptr;
      case WalkInfo::DP:
        return entry.level() == 0 ? nullptr : apply(entry, folderAcl_);
      case WalkInfo::DNR:
        return QXAclStep::error(entry.errnum(), W::kReadFolder, entry.path());
      case WalkInfo::Err:
      case WalkInfo::NS:
        return QXAclStep::error(entry.errnum(), W::kGetItem, entry.path());
      default:
        // Only a folder has descendants: any other top item changes nothing.
        if (entry.level() == 0) return QXAclStep::error(ENOTDIR, W::kReadHierarchy, entry.path());
        return apply(entry, fileAcl_);
    }
  }

  ErrorPtr record(const struct stat& st) {
    if (qx::xacl::ItemAcl::modeBits(top_.c_str(), st, &mode_) != 0) {
      return QXAclStep::error(errno, QXAclMessage::kStat, top_.c_str());
    }
    owner_ = st.st_uid;
    group_ = st.st_gid;
    folderBytes_ = EnforcedBytes::of(folderAcl_, owner_, group_, mode_, true);
    fileBytes_ = EnforcedBytes::of(fileAcl_, owner_, group_, mode_, false);
    return nullptr;
  }

  // The POSIX ACLs of a file or folder, written before its stored ACL. Where the file system
  // has no POSIX ACLs, clearing them is a success and setting them fails with ENOTSUP.
  static int writePosix(int folder, const char* name, bool isFolder, const EnforcedBytes& bytes) {
    auto tolerated = [&bytes](int error) {
      return (bytes.empty && (error == ENOTSUP || error == ENODATA)) ||
             (!bytes.empty && error == ENODATA);
    };
    if (QXAclAttribute::setAttributeAt(folder, name, qx::xacl::ItemAcl::kPosixAccess,
                                       &bytes.access) != 0 &&
        !tolerated(errno)) {
      return -1;
    }
    if (!isFolder) return 0;
    const std::vector<uint8_t>* defaults = bytes.defaults ? &*bytes.defaults : nullptr;
    if (QXAclAttribute::setAttributeAt(folder, name, qx::xacl::ItemAcl::kPosixDefault, defaults) !=
            0 &&
        !tolerated(errno)) {
      return -1;
    }
    return 0;
  }

  // Mode, owner, group, then ACL, each only when it differs, all through the
  // item's folder. A symbolic link keeps its mode and ACL: Linux neither
  // stores nor consults them.
  ErrorPtr apply(const WalkEntry& entry, acl_t acl) const {
    const struct stat& st = *entry.statp();
    const bool link = S_ISLNK(st.st_mode);
    const int folder = entry.parentFd();
    const char* name = entry.accessName();
    const bool isFolder = S_ISDIR(st.st_mode);
    const EnforcedBytes& bytes = isFolder ? folderBytes_ : fileBytes_;
    // The mode a file or folder ends with shows the mask in its group bits; the ACL write
    // below sets them again with the group entry.
    const mode_t mode = carriesAcls(st) ? bytes.statMode : mode_;
    if (!link && mode != (st.st_mode & kPermissionBits) && changeMode(folder, name, mode) != 0) {
      return QXAclStep::error(errno, W::kSetMode, entry.path());
    }
    if (owner_ != st.st_uid &&
        fchownat(folder, name, owner_, static_cast<gid_t>(-1), AT_SYMLINK_NOFOLLOW) != 0) {
      return QXAclStep::error(errno, W::kSetOwner, entry.path());
    }
    if (group_ != st.st_gid &&
        fchownat(folder, name, static_cast<uid_t>(-1), group_, AT_SYMLINK_NOFOLLOW) != 0) {
      return QXAclStep::error(errno, W::kSetGroup, entry.path());
    }
    if (carriesAcls(st) && writePosix(folder, name, isFolder, bytes) != 0) {
      return QXAclStep::error(errno, W::kSetAcl, entry.path());
    }
    if (!link && QXAclAttribute::setAt(folder, name, st, acl) != 0) {
      return QXAclStep::error(errno, W::kSetAcl, entry.path());
    }
    return nullptr;
  }

  std::string top_;
  acl_t folderAcl_;
  acl_t fileAcl_;
  const std::function<bool()>& shouldStop_;
  mode_t mode_ = 0;
  uid_t owner_ = 0;
  gid_t group_ = 0;
  EnforcedBytes folderBytes_, fileBytes_;
};

// Gives an ACL back; only the first error of the operation is kept.
void releaseAcl(qx::xacl::AclHandle& acl, const char* path, ErrorPtr& failure) {
  if (qx::xacl::acl_free(acl.release()) != 0 && !failure) {
    failure = QXAclStep::error(errno, QXAclMessage::kReleaseStorage, path);
  }
}

ErrorPtr propagate(const qx::ArrayPtr& entries, const std::string& top,
                   const std::function<bool()>& shouldStop) {
  qx::MutableArrayPtr aclEntries = collectAclEntries(entries);
  qx::MutableArrayPtr fileEntries;
  if (ErrorPtr failure = makeFileEntries(aclEntries, &fileEntries)) return failure;

  ErrorPtr failure;
  acl_t acl = nullptr;
  if (!QXAclWriter::getAcl(&acl, aclEntries, top.c_str(), &failure)) return failure;
  qx::xacl::AclHandle folderAcl(acl);
  if (!QXAclWriter::getAcl(&acl, fileEntries, top.c_str(), &failure)) {
    releaseAcl(folderAcl, top.c_str(), failure);
    return failure;
  }
  qx::xacl::AclHandle fileAcl(acl);

  failure = TreeUpdate(top, folderAcl.get(), fileAcl.get(), shouldStop).run();
  releaseAcl(fileAcl, top.c_str(), failure);
  releaseAcl(folderAcl, top.c_str(), failure);
  return failure;
}

}  // namespace

bool QXAclPropagation::run(const qx::ArrayPtr& entries, const qx::UrlPtr& url, ErrorPtr* error,
                           const std::function<bool()>& shouldStop) {
  const std::string top = url ? url->fileSystemRepresentation() : std::string();
  ErrorPtr failure = propagate(entries, top, shouldStop);
  if (failure) failure = QXOperation::errorWithError(failure, W::kPropagateTitle);
  QXAclStep::setOut(error, failure);
  return !failure;
}
