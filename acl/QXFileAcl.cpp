#include "acl/QXFileAcl.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <string>

#include "acl/QXAclStep.h"
#include "acl/QXAclWriter.h"
#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXOperation.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/String.h"
#include "platform/membership/Membership.h"
#include "platform/xacl/AccessEvaluator.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclMembership.h"
#include "platform/xacl/ItemAcl.h"
#include "platform/xacl/PosixMapping.h"
#include "platform/xacl/xacl.h"

namespace {

namespace M = QXAclMessage;
using qx::ErrorPtr;
using qx::xacl::acl_entry_t;
using qx::xacl::acl_flagset_t;
using qx::xacl::acl_permset_t;
using qx::xacl::acl_t;
using qx::xacl::acl_tag_t;
using qx::xacl::AclHandle;
using qx::xacl::QualifierHandle;

// ---- Permission trees ----

QXTreeNodePtr makeNode(const char* name, uint32_t value, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, value, state));
}

void addChild(const QXTreeNodePtr& parent, const QXTreeNodePtr& child) {
  parent->mutableChildNodes().addObject(child);
}

// ---- Reading an ACL ----

const unsigned char* bytesOf(const QualifierHandle& qualifier) {
  return static_cast<const unsigned char*>(qualifier.get());
}

// The item's extended ACL into `acl`, which stays empty when the item has none.
ErrorPtr readAcl(const std::string& path, AclHandle* acl) {
  errno = 0;
  acl_t found = qx::xacl::acl_get_link_np(path.c_str(), qx::xacl::ACL_TYPE_EXTENDED);
  if (found) {
    acl->reset(found);
    return nullptr;
  }
  if (errno == ENOENT) return nullptr;
  return QXAclStep::error(errno, M::kAcl, path);
}

// Gives the ACL back; a failure to do so is reported only when nothing failed before.
void releaseAcl(AclHandle& acl, const std::string& path, ErrorPtr& failure) {
  if (qx::xacl::acl_free(acl.release()) != 0 && !failure)
    failure = QXAclStep::error(errno, M::kReleaseStorage, path);
}

enum class Walk { Continue, Stop };

// Calls `visit(entry, next)` on each entry in ACL order until it sets `next`
// to Stop or answers an error. Running past the last entry (EINVAL) ends the
// walk normally.
template <class Visit>
ErrorPtr forEachEntry(acl_t acl, const std::string& path, Visit&& visit) {
  for (int id = qx::xacl::ACL_FIRST_ENTRY;; id = qx::xacl::ACL_NEXT_ENTRY) {
    acl_entry_t entry = nullptr;
    errno = 0;
    if (qx::xacl::acl_get_entry(acl, id, &entry) != 0) {
      return errno == EINVAL ? nullptr : QXAclStep::error(errno, M::kEntry, path);
    }
    Walk next = Walk::Continue;
    if (ErrorPtr failure = visit(entry, next)) return failure;
    if (next == Walk::Stop) return nullptr;
  }
}

struct EntryHandles {
  acl_tag_t tag = qx::xacl::ACL_UNDEFINED_TAG;
  acl_permset_t permset = nullptr;
};

ErrorPtr readTagAndPermset(acl_entry_t entry, const std::string& path, EntryHandles* out) {
  if (qx::xacl::acl_get_tag_type(entry, &out->tag) != 0) {
    return QXAclStep::error(errno, M::kTag, path);
  }
  if (qx::xacl::acl_get_permset(entry, &out->permset) != 0) {
    return QXAclStep::error(errno, M::kPermset, path);
  }
  return nullptr;
}

// ---- POSIX owner, group and mode ----

struct ItemOwners {
  struct stat st {};
  uuid_t owner{};
  uuid_t group{};
};

struct OwnerMessages {
  const char* owner;
  const char* group;
};

ErrorPtr readOwners(const std::string& path, OwnerMessages messages, ItemOwners* out) {
  if (lstat(path.c_str(), &out->st) != 0) return QXAclStep::error(errno, M::kStat, path);
  if (int status = qx::mbr_uid_to_uuid(out->st.st_uid, out->owner)) {
    return QXAclStep::error(status, messages.owner, path);
  }
  if (int status = qx::mbr_gid_to_uuid(out->st.st_gid, out->group)) {
    return QXAclStep::error(status, messages.group, path);
  }
  return nullptr;
}

enum class PosixClass { Owner, Group, Other };

struct ModeBits {
  bool read, write, execute;
};

ModeBits modeBits(mode_t mode, PosixClass cls) {
  const int shift = cls == PosixClass::Owner ? 6 : cls == PosixClass::Group ? 3 : 0;
  return {(mode & (S_IROTH << shift)) != 0, (mode & (S_IWOTH << shift)) != 0,
          (mode & (S_IXOTH << shift)) != 0};
}

// ---- Entry listing ----

int64_t appliesToState(uint32_t flag, int isSet, bool childFoldersOn) {
  switch (flag) {
    case kQXAclEntryOnlyInherit:
      return isSet ? 0 : 1;
    case kQXAclEntryLimitInherit:
      return !isSet && childFoldersOn ? 1 : 0;
    default:
      return isSet ? 1 : 0;
  }
}

ErrorPtr appendAppliesTo(acl_flagset_t flagset, const std::string& path,
                         qx::MutableArray& permissions) {
  auto appliesTo = makeNode("Applies to", kQXAppliesToPermission, 0);
  bool childFoldersOn = false;
  for (const QXAclFlagRow* row = acl_flags; row->name; ++row) {
    int isSet = qx::xacl::acl_get_flag_np(flagset, row->flag);
    if (isSet == -1) return QXAclStep::error(errno, M::kFlag, path);
    int64_t state = appliesToState(row->flag, isSet, childFoldersOn);
    if (row->flag == kQXAclEntryDirectoryInherit) childFoldersOn = state == 1;
    addChild(appliesTo, makeNode(row->name, row->flag, state));
  }
  QXAclEntry::resolveStateForPermissionNode(appliesTo);
  permissions.addObject(appliesTo);
  return nullptr;
}

ErrorPtr appendPermissionGroups(acl_permset_t permset, bool isFolder, const std::string& path,
                                qx::MutableArray& permissions) {
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = makeNode(group->name, kQXGroupNodePermission, 0);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, isFolder)) continue;
      int granted = qx::xacl::acl_get_perm_np(permset, row->value);
      if (granted == -1) return QXAclStep::error(errno, M::kPermission, path);
      addChild(groupNode, makeNode(row->name, row->value, granted ? 1 : 0));
    }
    QXAclEntry::resolveStateForPermissionNode(groupNode);
    permissions.addObject(groupNode);
  }
  return nullptr;
}

ErrorPtr appendAclEntry(acl_entry_t entry, bool isFolder, const std::string& path,
                        qx::MutableArray& result) {
  char uuidText[37];
  {
    QualifierHandle qualifier(qx::xacl::acl_get_qualifier(entry));
    if (!qualifier) return QXAclStep::error(errno, M::kQualifier, path);
    uuid_unparse(bytesOf(qualifier), uuidText);
    if (qx::xacl::acl_free(qualifier.release()) != 0)
      return QXAclStep::error(errno, M::kReleaseQualifier, path);
  }
  EntryHandles handles;
  if (ErrorPtr failure = readTagAndPermset(entry, path, &handles)) return failure;
  acl_flagset_t flagset = nullptr;
  if (qx::xacl::acl_get_flagset_np(entry, &flagset) != 0) {
    return QXAclStep::error(errno, M::kFlagset, path);
  }

  auto permissions = qx::MutableArray::make(4);
  if (ErrorPtr failure = appendPermissionGroups(handles.permset, isFolder, path, *permissions)) {
    return failure;
  }
  if (isFolder) {
    if (ErrorPtr failure = appendAppliesTo(flagset, path, *permissions)) return failure;
  }
  int inherited = qx::xacl::acl_get_flag_np(flagset, kQXAclEntryInherited);
  if (inherited == -1) return QXAclStep::error(errno, M::kFlag, path);

  result.addObject(
      QXAclEntry::make(qx::Uuid::withString(uuidText), handles.tag, permissions, inherited != 0));
  return nullptr;
}

ErrorPtr appendAclEntries(const std::string& path, bool isFolder, qx::MutableArray& result) {
  AclHandle acl;
  if (ErrorPtr failure = readAcl(path, &acl)) return failure;
  if (!acl) return nullptr;
  ErrorPtr failure = forEachEntry(acl.get(), path, [&](acl_entry_t entry, Walk&) {
    return appendAclEntry(entry, isFolder, path, result);
  });
  releaseAcl(acl, path, failure);
  return failure;
}

struct PosixLeaf {
  const char* name;
  uint32_t value;
};

QXAclEntryPtr posixEntry(qx::UuidPtr uuid, const PosixLeaf (&leaves)[3], ModeBits bits) {
  auto permissions = qx::MutableArray::make(3);
  const bool states[3] = {bits.read, bits.write, bits.execute};
  for (int i = 0; i < 3; ++i) {
    permissions->addObject(makeNode(leaves[i].name, leaves[i].value, states[i] ? 1 : 0));
  }
  return QXAclEntry::make(std::move(uuid), qx::xacl::ACL_EXTENDED_ALLOW, permissions, false);
}

ErrorPtr appendPosixEntries(const std::string& path, bool isFolder, qx::MutableArray& result) {
  ItemOwners owners;
  if (ErrorPtr failure = readOwners(path, {M::kOwner, M::kGroup}, &owners)) return failure;
  static const PosixLeaf kFileLeaves[3] = {{"Read", 2}, {"Write", 4}, {"Execute File", 8}};
  static const PosixLeaf kFolderLeaves[3] = {
      {"Read", 0x80}, {"Write", 0x100}, {"Traverse Folder", 0x1000}};
  const auto& leaves = isFolder ? kFolderLeaves : kFileLeaves;
  // The owning group's bits are its POSIX ACL entry's, not the mask's.
  mode_t mode = 0;
  if (qx::xacl::ItemAcl::modeBits(path.c_str(), owners.st, &mode) != 0) {
    return QXAclStep::error(errno, M::kStat, path);
  }
  result.addObject(qx::str("POSIX"));
  result.addObject(
      posixEntry(qx::Uuid::withBytes(owners.owner), leaves, modeBits(mode, PosixClass::Owner)));
  result.addObject(
      posixEntry(qx::Uuid::withBytes(owners.group), leaves, modeBits(mode, PosixClass::Group)));
  result.addObject(posixEntry(nullptr, leaves, modeBits(mode, PosixClass::Other)));
  return nullptr;
}

// ---- The item's ACL as the rules see it ----

// Both layers of the item, read once: what is shown, the item's POSIX ACL, owner, group and
// mode bits. The ACL handle is given back with a checked release, as every reader does; its
// failure goes to `released`, for the caller to report once it has used what was read.
ErrorPtr readState(const std::string& path, qx::xacl::AclState* state, ErrorPtr* released) {
  errno = 0;
  AclHandle acl(qx::xacl::acl_get_link_state_np(path.c_str(), state));
  if (!acl && errno != ENOENT) return QXAclStep::error(errno, M::kAcl, path);
  if (acl) releaseAcl(acl, path, *released);
  if (!state->examined) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return QXAclStep::error(errno, M::kStat, path);
  }
  return nullptr;
}

const qx::xacl::ExtendedEntries& shownEntries(const qx::xacl::AclState& state) {
  static const qx::xacl::ExtendedEntries none;
  return state.source == qx::xacl::AclSource::None ? none : state.entries;
}

// The kernel's answer for `bits` over the item's POSIX ACL.
bool kernelGrants(const qx::xacl::AclState& state, const qx::xacl::AclIdentity& identity,
                  uint16_t bits) {
  std::optional<uint32_t> uid;
  if (identity.kind == qx::xacl::AclIdentity::Kind::User) uid = identity.id;
  return state.access.permits(uid, identity.groups, state.item.owner, state.item.group, bits);
}

ErrorPtr membershipError(int status, const std::string& path) {
  return QXAclStep::error(status, M::kMembership, path);
}

// ---- Traversal check ----

enum class SearchVerdict { Undecided, Allowed, Denied };

// Whether the identity may search the folder: the first applying entry that names search
// decides, else the mode's execute bit. A folder whose ACL is a translation of its POSIX ACL
// answers as the kernel does.
ErrorPtr searchFolder(const std::string& path, const qx::xacl::AclIdentity& identity,
                      SearchVerdict* verdict) {
  using qx::xacl::AccessEvaluator;
  *verdict = SearchVerdict::Undecided;
  qx::xacl::AclState state;
  ErrorPtr released;
  if (ErrorPtr failure = readState(path, &state, &released)) return failure;
  AccessEvaluator::Search byEntries = AccessEvaluator::Search::Undecided;
  if (int status = AccessEvaluator::searchByEntries(shownEntries(state), identity, &byEntries)) {
    return membershipError(status, path);
  }
  if (byEntries == AccessEvaluator::Search::Denied) *verdict = SearchVerdict::Denied;
  if (released) return released;
  if (byEntries == AccessEvaluator::Search::Allowed) *verdict = SearchVerdict::Allowed;
  if (byEntries != AccessEvaluator::Search::Undecided) return nullptr;
  bool allowed = false;
  if (state.source == qx::xacl::AclSource::Translation) {
    allowed = kernelGrants(state, identity, qx::xacl::PosixAcl::kExecute);
  } else if (int status = AccessEvaluator::searchByMode(identity, state.item, &allowed)) {
    return membershipError(status, path);
  }
  *verdict = allowed ? SearchVerdict::Allowed : SearchVerdict::Denied;
  return nullptr;
}

ErrorPtr checkTraversable(const qx::UrlPtr& url, const qx::xacl::AclIdentity& identity,
                          bool* answer) {
  *answer = true;
  for (qx::UrlPtr folder = url ? url->parentDirectory() : nullptr; folder;
       folder = folder->parentDirectory()) {
    SearchVerdict verdict = SearchVerdict::Undecided;
    ErrorPtr failure = searchFolder(folder->fileSystemRepresentation(), identity, &verdict);
    if (verdict == SearchVerdict::Denied) *answer = false;
    // A folder the identity may search is settled; the walk goes on to its parent.
    if (failure || !*answer) return failure;
  }
  return nullptr;
}

// ---- Effective access ----

// The rights granted by the entries and the mode; on an item whose ACL is a translation, the
// rights that POSIX bits stand for as the kernel grants them.
ErrorPtr grantedRights(const std::string& path, const qx::xacl::AclIdentity& identity,
                       uint32_t* granted) {
  using qx::xacl::PosixMapping;
  qx::xacl::AclState state;
  ErrorPtr released;
  if (ErrorPtr failure = readState(path, &state, &released)) return failure;
  qx::xacl::AccessEvaluator::Decision d =
      qx::xacl::AccessEvaluator::evaluate(shownEntries(state), identity, state.item);
  if (d.status != 0) return membershipError(d.status, path);
  if (released) return released;
  *granted = d.granted;
  if (state.source != qx::xacl::AclSource::Translation) return nullptr;
  const bool folder = state.item.isFolder;
  for (uint16_t bit :
       {qx::xacl::PosixAcl::kRead, qx::xacl::PosixAcl::kWrite, qx::xacl::PosixAcl::kExecute}) {
    const uint32_t rights = PosixMapping::rightsOfBits(bit, folder);
    *granted = kernelGrants(state, identity, bit) ? (*granted | rights) : (*granted & ~rights);
  }
  if (folder && !(*granted & kQXAclExecute)) {
    *granted &= ~(kQXAclWriteData | kQXAclAppendData | kQXAclDeleteChild);
  }
  return nullptr;
}

qx::ArrayPtr accessTree(uint32_t granted, bool isFolder) {
  auto result = qx::MutableArray::make(3);
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = makeNode(group->name, kQXGroupNodePermission, -1);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, isFolder)) continue;
      addChild(groupNode, makeNode(row->name, row->value, (granted & row->value) ? 1 : 0));
    }
    result->addObject(groupNode);
  }
  return result->copy();
}

qx::xacl::AclIdentity identityOf(const uuid_t uuid) {
  qx::xacl::AclUuid bytes;
  std::copy_n(uuid, bytes.size(), bytes.begin());
  return qx::xacl::AclMembership::resolve(bytes);
}

std::string pathOf(const qx::UrlPtr& url) {
  return url ? url->fileSystemRepresentation() : "";
}

bool isFolderUrl(const qx::UrlPtr& url) {
  return url && url->isDirectory().value_or(false);
}

}  // namespace

qx::ArrayPtr QXFileAcl::entriesForUrl(const qx::UrlPtr& url, qx::ErrorPtr* error) {
  auto result = qx::MutableArray::make();
  result->addObject(qx::str("ACL"));
  const bool isFolder = isFolderUrl(url);
  const std::string path = pathOf(url);

  ErrorPtr failure = appendAclEntries(path, isFolder, *result);
  if (!failure) failure = appendPosixEntries(path, isFolder, *result);
  if (failure) {
    QXAclStep::setOut(error, QXOperation::errorWithError(failure, M::kEntriesTitle));
    return nullptr;
  }
  QXAclStep::setOut(error, ErrorPtr());
  return result->copy();
}

bool QXFileAcl::getTraversable(bool* traversable, const qx::UrlPtr& url, const uuid_t uuid,
                               qx::ErrorPtr* error) {
  bool answer = true;
  ErrorPtr failure = checkTraversable(url, identityOf(uuid), &answer);
  QXAclStep::setOut(traversable, answer);
  QXAclStep::setOut(error, failure);
  return !failure;
}

qx::ArrayPtr QXFileAcl::accessForUrl(const qx::UrlPtr& url, const qx::UuidPtr& uuid,
                                     qx::ErrorPtr* error) {
  auto fail = [error](const ErrorPtr& failure) -> qx::ArrayPtr {
    QXAclStep::setOut(error, QXOperation::errorWithError(failure, M::kAccessTitle));
    return nullptr;
  };
  const std::string path = pathOf(url);
  uuid_t uuidBytes{};
  const std::string uuidText = uuid ? uuid->UUIDString() : "";
  if (uuid_parse(uuidText.c_str(), uuidBytes) != 0) {
    return fail(
        QXOperation::errorWithErrno(kQXUnparsableUuidError, M::kSelectedUser, path.c_str()));
  }
  const bool isFolder = isFolderUrl(url);
  // Memberships are resolved once for the whole request.
  const qx::xacl::AclIdentity identity = identityOf(uuidBytes);

  bool traversable = false;
  if (ErrorPtr failure = checkTraversable(url, identity, &traversable)) return fail(failure);
  uint32_t granted = 0;
  if (traversable) {
    if (ErrorPtr failure = grantedRights(path, identity, &granted)) return fail(failure);
  }
  QXAclStep::setOut(error, ErrorPtr());
  return accessTree(granted, isFolder);
}

bool QXFileAcl::getAcl(qx::xacl::acl_t* acl, const qx::ArrayPtr& entries, const char* path,
                       ErrorPtr* error) {
  return QXAclWriter::getAcl(acl, entries, path, error);
}

bool QXFileAcl::setEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url, ErrorPtr* error) {
  return QXAclWriter::setEntries(entries, url, error);
}

bool QXFileAcl::propagateEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url,
                                 ErrorPtr* error, const std::function<bool()>& shouldStop) {
  return QXAclWriter::propagateEntries(entries, url, error, shouldStop);
}
