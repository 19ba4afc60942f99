#include "acl/QXAclWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "acl/QXAclPropagation.h"
#include "acl/QXAclStep.h"
#include "acl/QXAclWriteMessage.h"
#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXOperation.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/TreeNode.h"
#include "platform/foundation/Uuid.h"
#include "platform/membership/Membership.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/ItemAcl.h"

namespace {

using qx::ErrorPtr;
using qx::xacl::acl_entry_t;
using qx::xacl::acl_flagset_t;
using qx::xacl::acl_permset_t;
using qx::xacl::acl_t;

namespace W = QXAclWriteMessage;
namespace M = QXAclMessage;

// The records are read the way a message to nil reads: a missing record or
// node answers 0 for every number and nil for every object.
QXAclPermissionPtr recordOf(const qx::ObjectPtr& node) {
  auto treeNode = qx::cast<qx::TreeNode>(node);
  return treeNode ? treeNode->representedObjectAs<QXAclPermission>() : nullptr;
}

int32_t permissionOf(const qx::ObjectPtr& node) {
  auto record = recordOf(node);
  return record ? record->permission() : 0;
}

int64_t stateOf(const qx::ObjectPtr& node) {
  auto record = recordOf(node);
  return record ? record->state() : 0;
}

const std::vector<qx::TreeNodePtr>& childrenOf(const qx::ObjectPtr& node) {
  static const std::vector<qx::TreeNodePtr> none;
  auto treeNode = qx::cast<qx::TreeNode>(node);
  return treeNode ? treeNode->childNodes() : none;
}

const std::vector<qx::ObjectPtr>& nodesOf(const QXAclEntryPtr& entry) {
  static const std::vector<qx::ObjectPtr> none;
  return entry && entry->permissions() ? entry->permissions()->objects() : none;
}

// Parses the UUID's canonical string, as the platform's callers do.
bool parseUuid(const qx::UuidPtr& uuid, uuid_t out) {
  return uuid && uuid_parse(uuid->UUIDString().c_str(), out) == 0;
}

// ---- Building an ACL ----

// One entry of the ACL being built, filled from one record.
class EntryWriter {
 public:
  EntryWriter(acl_t* acl, const char* path, qx::ObjectPtr* appliesTo)
      : acl_(acl), path_(path), appliesTo_(appliesTo) {}

  ErrorPtr write(const QXAclEntryPtr& record) {
    if (qx::xacl::acl_create_entry(acl_, &entry_) != 0) return fail(W::kCreateEntry);
    if (qx::xacl::acl_get_permset(entry_, &permset_) != 0) return fail(M::kPermset);
    if (qx::xacl::acl_get_flagset_np(entry_, &flagset_) != 0) return fail(M::kFlagset);
    if (qx::xacl::acl_set_tag_type(entry_, record ? record->tag() : 0) != 0) {
      return fail(W::kSetTag);
    }
    uuid_t qualifier;
    if (!parseUuid(record ? record->uuid() : nullptr, qualifier)) {
      return QXAclStep::error(kQXUnparsableUuidError, W::kParseQualifier, path_);
    }
    if (qx::xacl::acl_set_qualifier(entry_, qualifier) != 0) return fail(W::kSetQualifier);
    if (ErrorPtr failure = writePermissions(record)) return failure;
    return writeFlags(record);
  }

 private:
  ErrorPtr fail(const char* format) const { return QXAclStep::error(errno, format, path_); }

  // Every group child that is not off adds its bit; the "Applies to" node is
  // remembered for the flags, also for the entries that follow.
  ErrorPtr writePermissions(const QXAclEntryPtr& record) {
    if (qx::xacl::acl_clear_perms(permset_) != 0) return fail(W::kClearPerms);
    for (const qx::ObjectPtr& node : nodesOf(record)) {
      if (permissionOf(node) == kQXAppliesToPermission) {
        *appliesTo_ = node;
        continue;
      }
      for (const qx::TreeNodePtr& child : childrenOf(node)) {
        if (stateOf(child) == 0) continue;
        auto perm = static_cast<qx::xacl::acl_perm_t>(permissionOf(child));
        if (qx::xacl::acl_add_perm(permset_, perm) != 0) return fail(W::kAddPerm);
      }
    }
    if (qx::xacl::acl_set_permset(entry_, permset_) != 0) return fail(W::kSetPermset);
    return nullptr;
  }

  ErrorPtr writeFlags(const QXAclEntryPtr& record) {
    if (qx::xacl::acl_clear_flags_np(flagset_) != 0) return fail(W::kClearFlags);
    if (record && record->inherited() &&
        qx::xacl::acl_add_flag_np(flagset_, qx::xacl::ACL_ENTRY_INHERITED) != 0) {
      return fail(W::kAddFlag);
    }
    for (const qx::TreeNodePtr& child : childrenOf(*appliesTo_)) {
      auto flag = static_cast<qx::xacl::acl_flag_t>(permissionOf(child));
      if (!flagSelected(flag, stateOf(child))) continue;
      if (qx::xacl::acl_add_flag_np(flagset_, flag) != 0) return fail(W::kAddFlag);
    }
    if (qx::xacl::acl_set_flagset_np(entry_, flagset_) != 0) return fail(W::kSetFlagset);
    return nullptr;
  }

  // "This item" on means the entry is not inherit-only, and "All descendants"
  // on means inheritance is not limited to one level: their flags are set when
  // the choice is off. A mixed choice sets nothing.
  static bool flagSelected(qx::xacl::acl_flag_t flag, int64_t state) {
    if (flag == kQXAclEntryOnlyInherit || flag == kQXAclEntryLimitInherit) return state == 0;
    return state == 1;
  }

  acl_t* acl_;
  const char* path_;
  qx::ObjectPtr* appliesTo_;
  acl_entry_t entry_ = nullptr;
  acl_permset_t permset_ = nullptr;
  acl_flagset_t flagset_ = nullptr;
};

// ---- Applying entries to one item ----

struct SplitEntries {
  qx::MutableArrayPtr acl;
  std::vector<QXAclEntryPtr> posix;
};

SplitEntries splitEntries(const qx::ArrayPtr& entries) {
  std::size_t capacity = entries ? entries->count() : 0;
  SplitEntries split{qx::MutableArray::make(capacity), {}};
  split.posix.reserve(capacity);
  if (!entries) return split;
  for (const qx::ObjectPtr& object : *entries) {
    auto entry = qx::cast<QXAclEntry>(object);
    if (!entry) continue;
    if (entry->isAcl()) {
      split.acl->addObject(entry);
    } else {
      split.posix.push_back(entry);
    }
  }
  return split;
}

// The mode bits, owner and group that the pseudo-entries ask for.
struct PosixSettings {
  mode_t mode;
  uid_t owner;
  gid_t group;
};

constexpr mode_t kModeBitTable[9] = {S_IRUSR, S_IWUSR, S_IXUSR, S_IRGRP, S_IWGRP,
                                     S_IXGRP, S_IROTH, S_IWOTH, S_IXOTH};

// Mode bits by the position of each node among all pseudo-entries' nodes;
// identities in order, the first for the owner and the second for the group,
// whatever type they resolve to. Slots without an identity keep the item's
// own values; nodes and identities beyond those have no meaning.
ErrorPtr readPosixSettings(const std::vector<QXAclEntryPtr>& pseudoEntries, const char* path,
                           PosixSettings* settings) {
  std::size_t position = 0;
  int identities = 0;
  for (const QXAclEntryPtr& pseudo : pseudoEntries) {
    for (const qx::ObjectPtr& node : nodesOf(pseudo)) {
      if (position < std::size(kModeBitTable)) {
        mode_t bit = kModeBitTable[position];
        settings->mode = stateOf(node) == 1 ? (settings->mode | bit) : (settings->mode & ~bit);
      }
      ++position;
    }
    if (!pseudo->uuid() || identities >= 2) continue;
    const bool owner = identities == 0;
    uuid_t uuid;
    if (!parseUuid(pseudo->uuid(), uuid)) {
      return QXAclStep::error(kQXUnparsableUuidError, owner ? W::kParseOwner : W::kParseGroup,
                              path);
    }
    id_t id = 0;
    int type = 0;
    if (int status = qx::mbr_uuid_to_id(uuid, &id, &type)) {
      return QXAclStep::error(status, owner ? M::kOwner : M::kGroup, path);
    }
    if (owner) {
      settings->owner = static_cast<uid_t>(id);
    } else {
      settings->group = static_cast<gid_t>(id);
    }
    ++identities;
  }
  return nullptr;
}

// `mode` is the item's present mode bits, the owning group's from its POSIX ACL entry.
ErrorPtr applyPosixSettings(const PosixSettings& wanted, mode_t mode, const struct stat& st,
                            const char* path) {
  if (wanted.mode != mode && qx::xacl::ItemAcl::setModeBits(path, wanted.mode) != 0) {
    return QXAclStep::error(errno, W::kSetMode, path);
  }
  if (wanted.owner != st.st_uid &&
      fchownat(AT_FDCWD, path, wanted.owner, static_cast<gid_t>(-1), AT_SYMLINK_NOFOLLOW) != 0) {
    return QXAclStep::error(errno, W::kSetOwner, path);
  }
  if (wanted.group != st.st_gid &&
      fchownat(AT_FDCWD, path, static_cast<uid_t>(-1), wanted.group, AT_SYMLINK_NOFOLLOW) != 0) {
    return QXAclStep::error(errno, W::kSetGroup, path);
  }
  return nullptr;
}

ErrorPtr writeAcl(const qx::ArrayPtr& aclEntries, const char* path) {
  acl_t acl = nullptr;
  ErrorPtr failure;
  if (!QXAclWriter::getAcl(&acl, aclEntries, path, &failure)) return failure;
  if (qx::xacl::acl_set_link_np(path, qx::xacl::ACL_TYPE_EXTENDED, acl) != 0) {
    failure = QXAclStep::error(errno, W::kSetAcl, path);
  }
  if (qx::xacl::acl_free(acl) != 0 && !failure) {
    failure = QXAclStep::error(errno, M::kReleaseStorage, path);
  }
  return failure;
}

ErrorPtr saveEntries(const qx::ArrayPtr& entries, const char* path) {
  SplitEntries split = splitEntries(entries);
  struct stat st;
  if (lstat(path, &st) != 0) return QXAclStep::error(errno, M::kStat, path);
  mode_t mode = 0;
  if (qx::xacl::ItemAcl::modeBits(path, st, &mode) != 0) {
    return QXAclStep::error(errno, M::kStat, path);
  }
  PosixSettings wanted{mode, st.st_uid, st.st_gid};
  if (ErrorPtr failure = readPosixSettings(split.posix, path, &wanted)) return failure;
  if (ErrorPtr failure = applyPosixSettings(wanted, mode, st, path)) return failure;
  return writeAcl(split.acl, path);
}

}  // namespace

bool QXAclWriter::getAcl(acl_t* acl, const qx::ArrayPtr& entries, const char* path,
                         ErrorPtr* error) {
  const std::size_t count = entries ? entries->count() : 0;
  qx::xacl::AclHandle built(qx::xacl::acl_init(static_cast<int>(count + 1)));
  if (!built) {
    QXAclStep::setOut(error, QXAclStep::error(errno, W::kInit, path));
    return false;
  }
  acl_t handle = built.get();
  qx::ObjectPtr appliesTo;  // kept from one entry to the next on purpose
  for (std::size_t i = 0; i < count; ++i) {
    EntryWriter writer(&handle, path, &appliesTo);
    if (ErrorPtr failure = writer.write(entries->objectAs<QXAclEntry>(i))) {
      QXAclStep::setOut(error, failure);
      return false;  // `built` releases the partial ACL
    }
  }
  // A caller that does not take the ACL leaves it to be released here.
  if (acl) *acl = built.release();
  QXAclStep::setOut(error, ErrorPtr());
  return true;
}

bool QXAclWriter::setEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url, ErrorPtr* error) {
  const std::string path = url ? url->fileSystemRepresentation() : std::string();
  ErrorPtr failure = saveEntries(entries, path.c_str());
  if (failure) failure = QXOperation::errorWithError(failure, W::kSaveTitle);
  QXAclStep::setOut(error, failure);
  return !failure;
}

bool QXAclWriter::propagateEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url,
                                   ErrorPtr* error, const std::function<bool()>& shouldStop) {
  return QXAclPropagation::run(entries, url, error, shouldStop);
}
