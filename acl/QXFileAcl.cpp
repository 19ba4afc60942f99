#include "acl/QXFileAcl.h"

#include <sys/stat.h>

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
#include "platform/xacl/AclHandle.h"
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

// Calls `visit(group, row)` for every row of the permission table shown for
// the item's kind, in table order; stops at the first error it answers.
template <class Visit>
ErrorPtr forEachRow(bool isFolder, Visit&& visit) {
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, isFolder)) continue;
      if (ErrorPtr failure = visit(*group, *row)) return failure;
    }
  }
  return nullptr;
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

// Whether the entry names `identity` itself or a group it belongs to. The
// qualifier is given back before the answer counts.
ErrorPtr entryApplies(acl_entry_t entry, const uuid_t identity, const std::string& path,
                      bool* applies) {
  QualifierHandle qualifier(qx::xacl::acl_get_qualifier(entry));
  if (!qualifier) return QXAclStep::error(errno, M::kQualifier, path);
  *applies = uuid_compare(bytesOf(qualifier), identity) == 0;
  if (!*applies) {
    int member = 0;
    if (int status = qx::mbr_check_membership(identity, bytesOf(qualifier), &member)) {
      return QXAclStep::error(status, M::kMembership, path);
    }
    *applies = member != 0;
  }
  if (qx::xacl::acl_free(qualifier.release()) != 0)
    return QXAclStep::error(errno, M::kReleaseQualifier, path);
  return nullptr;
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

// Which mode bits speak for `identity`: the owner's, the group's (the group
// itself or a member of it) or the others'.
ErrorPtr classify(const uuid_t identity, const ItemOwners& owners, const std::string& path,
                  PosixClass* out) {
  if (uuid_compare(identity, owners.owner) == 0) {
    *out = PosixClass::Owner;
  } else if (uuid_compare(identity, owners.group) == 0) {
    *out = PosixClass::Group;
  } else {
    int member = 0;
    if (int status = qx::mbr_check_membership(identity, owners.group, &member)) {
      return QXAclStep::error(status, M::kMembership, path);
    }
    *out = member ? PosixClass::Group : PosixClass::Other;
  }
  return nullptr;
}

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
  const mode_t mode = owners.st.st_mode;
  result.addObject(qx::str("POSIX"));
  result.addObject(
      posixEntry(qx::Uuid::withBytes(owners.owner), leaves, modeBits(mode, PosixClass::Owner)));
  result.addObject(
      posixEntry(qx::Uuid::withBytes(owners.group), leaves, modeBits(mode, PosixClass::Group)));
  result.addObject(posixEntry(nullptr, leaves, modeBits(mode, PosixClass::Other)));
  return nullptr;
}

// ---- Traversal check ----

enum class SearchVerdict { Undecided, Allowed, Denied };

// The first applying entry of the folder's ACL that names search decides.
ErrorPtr searchByAcl(const std::string& path, const uuid_t identity, SearchVerdict* verdict) {
  *verdict = SearchVerdict::Undecided;
  AclHandle acl;
  if (ErrorPtr failure = readAcl(path, &acl)) return failure;
  if (!acl) return nullptr;
  ErrorPtr failure = forEachEntry(acl.get(), path, [&](acl_entry_t entry, Walk& next) -> ErrorPtr {
    bool applies = false;
    if (ErrorPtr f = entryApplies(entry, identity, path, &applies)) return f;
    if (!applies) return nullptr;
    acl_permset_t permset = nullptr;
    if (qx::xacl::acl_get_permset(entry, &permset) != 0) {
      return QXAclStep::error(errno, M::kPermset, path);
    }
    int search = qx::xacl::acl_get_perm_np(permset, qx::xacl::ACL_SEARCH);
    if (search == -1) return QXAclStep::error(errno, M::kPermission, path);
    if (search == 0) return nullptr;
    acl_tag_t tag = qx::xacl::ACL_UNDEFINED_TAG;
    if (qx::xacl::acl_get_tag_type(entry, &tag) != 0) return QXAclStep::error(errno, M::kTag, path);
    *verdict = tag == qx::xacl::ACL_EXTENDED_DENY ? SearchVerdict::Denied : SearchVerdict::Allowed;
    next = Walk::Stop;
    return nullptr;
  });
  releaseAcl(acl, path, failure);
  return failure;
}

ErrorPtr searchByMode(const std::string& path, const uuid_t identity, bool* searchable) {
  ItemOwners owners;
  if (ErrorPtr failure = readOwners(path, {M::kOwnerIndentifier, M::kGroupIndentifier}, &owners)) {
    return failure;
  }
  PosixClass cls = PosixClass::Other;
  if (ErrorPtr failure = classify(identity, owners, path, &cls)) return failure;
  *searchable = modeBits(owners.st.st_mode, cls).execute;
  return nullptr;
}

// ---- Effective access ----

using Decisions = std::map<uint32_t, QXAclPermissionPtr>;

QXAclPermission* decided(const Decisions& decisions, uint32_t value) {
  auto it = decisions.find(value);
  return it == decisions.end() ? nullptr : it->second.get();
}

void decide(Decisions& decisions, const QXAclPermRow& row, int64_t state) {
  if (!decisions.count(row.value))
    decisions[row.value] = QXAclPermission::make(row.name, row.value, state);
}

void setDecided(Decisions& decisions, uint32_t value, int64_t state) {
  if (QXAclPermission* record = decided(decisions, value)) record->setState(state);
}

bool readAttributesOff(const Decisions& decisions) {
  QXAclPermission* record = decided(decisions, kQXAclReadAttributes);
  return !record || record->state() == 0;
}

// "Read Permissions" follows "Read Attributes": once an allowing entry has
// named it, a later denying entry takes it away unless attributes are readable.
class ReadSecurityRule {
 public:
  void entryNamedIt(bool allows, Decisions& decisions) {
    if (!remembered_) remembered_ = allows;
    if (*remembered_ && !allows && readAttributesOff(decisions)) {
      setDecided(decisions, kQXAclReadSecurity, 0);
    }
  }
  static void close(Decisions& decisions) {
    QXAclPermission* attributes = decided(decisions, kQXAclReadAttributes);
    if (attributes && attributes->state() == 0) setDecided(decisions, kQXAclReadSecurity, 0);
  }

 private:
  std::optional<bool> remembered_;
};

ErrorPtr decideByAcl(const std::string& path, const uuid_t identity, bool isFolder,
                     Decisions& decisions) {
  AclHandle acl;
  if (ErrorPtr failure = readAcl(path, &acl)) return failure;
  if (!acl) return nullptr;
  ReadSecurityRule readSecurity;
  ErrorPtr failure = forEachEntry(acl.get(), path, [&](acl_entry_t entry, Walk&) -> ErrorPtr {
    bool applies = false;
    if (ErrorPtr f = entryApplies(entry, identity, path, &applies)) return f;
    if (!applies) return nullptr;
    EntryHandles handles;
    if (ErrorPtr f = readTagAndPermset(entry, path, &handles)) return f;
    const bool allows = handles.tag == qx::xacl::ACL_EXTENDED_ALLOW;
    return forEachRow(isFolder, [&](const QXAclPermGroup&, const QXAclPermRow& row) -> ErrorPtr {
      int named = qx::xacl::acl_get_perm_np(handles.permset, row.value);
      if (named == -1) return QXAclStep::error(errno, M::kPermission, path);
      if (named == 0) return nullptr;
      decide(decisions, row, allows ? 1 : 0);
      if (row.value == kQXAclReadSecurity) readSecurity.entryNamedIt(allows, decisions);
      return nullptr;
    });
  });
  if (!failure) ReadSecurityRule::close(decisions);
  releaseAcl(acl, path, failure);
  return failure;
}

int64_t posixState(uint32_t value, ModeBits bits, bool isOwner) {
  switch (value) {
    case kQXAclReadData:
    case kQXAclReadExtAttributes:
      return bits.read;
    case kQXAclWriteData:
    case kQXAclAppendData:
    case kQXAclDeleteChild:
    case kQXAclWriteExtAttributes:
      return bits.write;
    case kQXAclExecute:
      return bits.execute;
    case kQXAclDelete:
    case kQXAclReadAttributes:
    case kQXAclReadSecurity:
      return 1;
    case kQXAclWriteAttributes:
    case kQXAclWriteSecurity:
      return isOwner;
    default:  // "Change Owner"
      return 0;
  }
}

ErrorPtr decideByMode(const std::string& path, const uuid_t identity, bool isFolder,
                      Decisions& decisions) {
  ItemOwners owners;
  if (ErrorPtr failure = readOwners(path, {M::kOwnerIndentifier, M::kGroupIndentifier}, &owners)) {
    return failure;
  }
  PosixClass cls = PosixClass::Other;
  if (ErrorPtr failure = classify(identity, owners, path, &cls)) return failure;
  const ModeBits bits = modeBits(owners.st.st_mode, cls);
  forEachRow(isFolder, [&](const QXAclPermGroup&, const QXAclPermRow& row) -> ErrorPtr {
    decide(decisions, row, posixState(row.value, bits, cls == PosixClass::Owner));
    return nullptr;
  });
  // Nothing can be added to or removed from a folder that cannot be searched.
  QXAclPermission* search = decided(decisions, kQXAclExecute);
  if (isFolder && search && search->state() == 0) {
    for (uint32_t value : {kQXAclWriteData, kQXAclAppendData, kQXAclDeleteChild}) {
      setDecided(decisions, value, 0);
    }
  }
  return nullptr;
}

qx::ArrayPtr accessTree(const Decisions& decisions, bool isFolder) {
  auto result = qx::MutableArray::make(3);
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = makeNode(group->name, kQXGroupNodePermission, -1);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, isFolder)) continue;
      auto it = decisions.find(row->value);
      QXAclPermissionPtr record =
          it != decisions.end() ? it->second : QXAclPermission::make(row->name, row->value, 0);
      addChild(groupNode, QXTreeNode::treeNodeWithRepresentedObject(record));
    }
    result->addObject(groupNode);
  }
  return result->copy();
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
  ErrorPtr failure;
  for (qx::UrlPtr folder = url ? url->parentDirectory() : nullptr; folder;
       folder = folder->parentDirectory()) {
    const std::string path = folder->fileSystemRepresentation();
    SearchVerdict verdict = SearchVerdict::Undecided;
    failure = searchByAcl(path, uuid, &verdict);
    if (verdict == SearchVerdict::Denied) answer = false;
    if (failure || !answer) break;
    // A folder the ACL lets the identity search is settled; the walk goes on
    // to its parent.
    if (verdict == SearchVerdict::Undecided) {
      bool searchable = false;
      failure = searchByMode(path, uuid, &searchable);
      if (failure) break;
      if (!searchable) {
        answer = false;
        break;
      }
    }
  }
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
  Decisions decisions;
  const std::string path = pathOf(url);
  uuid_t identity{};
  const std::string uuidText = uuid ? uuid->UUIDString() : "";
  if (uuid_parse(uuidText.c_str(), identity) != 0) {
    return fail(
        QXOperation::errorWithErrno(kQXUnparsableUuidError, M::kSelectedUser, path.c_str()));
  }
  const bool isFolder = isFolderUrl(url);

  bool traversable = false;
  ErrorPtr traversalError;
  if (!getTraversable(&traversable, url, identity, &traversalError)) {
    if (!traversalError) {
      QXAclStep::setOut(error, ErrorPtr());
      return nullptr;
    }
    return fail(traversalError);
  }
  if (traversable) {
    if (ErrorPtr failure = decideByAcl(path, identity, isFolder, decisions)) return fail(failure);
    if (ErrorPtr failure = decideByMode(path, identity, isFolder, decisions)) return fail(failure);
  }
  QXAclStep::setOut(error, ErrorPtr());
  return accessTree(decisions, isFolder);
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
