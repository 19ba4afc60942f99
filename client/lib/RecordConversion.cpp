#include "client/lib/RecordConversion.h"

#include "client/lib/IdentityNameCache.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXFileSizeItem.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/String.h"
#include "platform/foundation/TreeNode.h"
#include "platform/foundation/Url.h"
#include "platform/membership/IdentityUuid.h"
#include "protocol/QXFileResponse.h"

namespace qxfile {

static_assert(kReadData == kQXAclReadData && kWriteData == kQXAclWriteData &&
              kExecute == kQXAclExecute && kDelete == kQXAclDelete &&
              kAppendData == kQXAclAppendData && kDeleteChild == kQXAclDeleteChild &&
              kReadAttributes == kQXAclReadAttributes &&
              kWriteAttributes == kQXAclWriteAttributes &&
              kReadExtAttributes == kQXAclReadExtAttributes &&
              kWriteExtAttributes == kQXAclWriteExtAttributes &&
              kReadSecurity == kQXAclReadSecurity && kWriteSecurity == kQXAclWriteSecurity &&
              kChangeOwner == kQXAclChangeOwner);
static_assert(kFileInherit == kQXAclEntryFileInherit &&
              kDirectoryInherit == kQXAclEntryDirectoryInherit &&
              kLimitInherit == kQXAclEntryLimitInherit && kOnlyInherit == kQXAclEntryOnlyInherit);

namespace {

struct PosixLeaf {
  const char* name;
  uint32_t value;
};
constexpr PosixLeaf kFileLeaves[3] = {{"Read", 2}, {"Write", 4}, {"Execute File", 8}};
constexpr PosixLeaf kFolderLeaves[3] = {
    {"Read", 0x80}, {"Write", 0x100}, {"Traverse Folder", 0x1000}};

QXAclPermissionPtr recordOf(const qx::ObjectPtr& node) {
  auto tree = qx::cast<qx::TreeNode>(node);
  return tree ? tree->representedObjectAs<QXAclPermission>() : nullptr;
}

QXTreeNodePtr nodeFor(const char* name, uint32_t value, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, value, state));
}

bool isMarker(const qx::ObjectPtr& object, const char* marker) {
  auto text = qx::cast<qx::String>(object);
  return text && text->str() == marker;
}

// Visits the leaves of the three groups, or of the "Applies to" node.
template <class Visit>
void forEachLeaf(const QXAclEntry& entry, bool appliesToNode, Visit visit) {
  if (!entry.permissions()) return;
  for (const auto& top : *entry.permissions()) {
    auto record = recordOf(top);
    auto tree = qx::cast<qx::TreeNode>(top);
    if (!record || !tree) continue;
    if ((record->permission() == kQXAppliesToPermission) != appliesToNode) continue;
    for (const auto& child : tree->childNodes()) {
      if (auto leaf = recordOf(child)) visit(*leaf);
    }
  }
}

// The "Applies to" rows invert "only" and "limit": "This item" is on unless
// only inherited; "All descendants" is on unless inheritance stops at children.
bool flagRowOn(uint32_t flag, uint32_t flags) {
  switch (flag) {
    case kOnlyInherit:
      return !(flags & kOnlyInherit);
    case kLimitInherit:
      return !(flags & kLimitInherit) && (flags & kDirectoryInherit);
    default:
      return flags & flag;
  }
}

qx::ArrayPtr permissionTree(uint32_t rights, uint32_t flags, bool folder) {
  std::vector<qx::ObjectPtr> nodes;
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto node = nodeFor(group->name, kQXGroupNodePermission, 0);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (QXAclRowApplies(*row, folder))
        node->mutableChildNodes().addObject(
            nodeFor(row->name, row->value, (rights & row->value) != 0));
    }
    QXAclEntry::resolveStateForPermissionNode(node);
    nodes.push_back(node);
  }
  if (folder) {
    auto node = nodeFor("Applies to", kQXAppliesToPermission, 0);
    for (const QXAclFlagRow* row = acl_flags; row->name; ++row)
      node->mutableChildNodes().addObject(
          nodeFor(row->name, row->flag, flagRowOn(row->flag, flags)));
    QXAclEntry::resolveStateForPermissionNode(node);
    nodes.push_back(node);
  }
  return qx::Array::make(std::move(nodes));
}

AclEntry aclEntry(const QXAclEntry& entry) {
  AclEntry typed{RecordConversion::identity(entry.uuid()),
                 entry.tag() == qx::xacl::ACL_EXTENDED_DENY, entry.inherited(), 0, 0};
  forEachLeaf(entry, false, [&](const QXAclPermission& leaf) {
    if (leaf.state() != 0) typed.rights |= static_cast<uint32_t>(leaf.permission());
  });
  forEachLeaf(entry, true, [&](const QXAclPermission& leaf) {
    uint32_t flag = static_cast<uint32_t>(leaf.permission());
    bool inverted = flag == kOnlyInherit || flag == kLimitInherit;
    if (leaf.state() == (inverted ? 0 : 1)) typed.inheritance |= flag;
  });
  // "All descendants" is off whenever child folders inherit nothing: only
  // there does it say that inheritance stops at the children.
  if (!(typed.inheritance & kDirectoryInherit)) typed.inheritance &= ~kLimitInherit;
  return typed;
}

// A pseudo-entry's three leaves, or nullopt when it has another shape.
std::optional<PosixEntry> posixEntry(const QXAclEntryPtr& entry, bool* folder) {
  if (!entry || !entry->permissions() || entry->permissions()->count() != 3) return std::nullopt;
  PosixEntry typed{entry->uuid() ? RecordConversion::identity(entry->uuid())
                                 : Identity{Identity::Kind::Everyone, 0, "", ""},
                   0};
  unsigned bit = 4;
  for (const auto& node : *entry->permissions()) {
    auto leaf = recordOf(node);
    if (!leaf) return std::nullopt;
    if (leaf->state() == 1) typed.bits |= bit;
    if (bit == 1) *folder = leaf->permission() == static_cast<int32_t>(kFolderLeaves[2].value);
    bit >>= 1;
  }
  return typed;
}

QXAclEntryPtr posixRecord(const PosixEntry& entry, bool folder) {
  const auto& leaves = folder ? kFolderLeaves : kFileLeaves;
  std::vector<qx::ObjectPtr> nodes;
  for (int i = 0; i < 3; ++i)
    nodes.push_back(nodeFor(leaves[i].name, leaves[i].value, (entry.bits >> (2 - i)) & 1));
  auto uuid = entry.identity.kind == Identity::Kind::Everyone
                  ? nullptr
                  : RecordConversion::uuid(entry.identity);
  return QXAclEntry::make(uuid, qx::xacl::ACL_EXTENDED_ALLOW, qx::Array::make(std::move(nodes)),
                          false);
}

}  // namespace

Identity Identity::user(uint32_t uid) {
  return Identity{Kind::User, uid, IdentityNameCache::userName(uid),
                  RecordConversion::uuid({Kind::User, uid, "", ""})->UUIDString()};
}

Identity Identity::group(uint32_t gid) {
  return Identity{Kind::Group, gid, IdentityNameCache::groupName(gid),
                  RecordConversion::uuid({Kind::Group, gid, "", ""})->UUIDString()};
}

std::optional<Error> RecordConversion::error(const qx::ErrorPtr& error) {
  if (!error) return std::nullopt;
  Error typed{error->domain(), error->code(), error->localizedDescription(),
              error->localizedRecoverySuggestion(), std::nullopt};
  if (auto url = error->userInfo()->objectForKeyAs<qx::Url>(qx::kURLErrorKey))
    typed.path = url->path();
  return typed;
}

Error RecordConversion::malformed(const char* what) {
  return Error{std::string(qx::kCocoaErrorDomain), qx::kCoderReadCorruptError,
               std::string("The service's ") + what + " are malformed.", std::nullopt,
               std::nullopt};
}

Identity RecordConversion::identity(const qx::UuidPtr& uuid) {
  if (!uuid) return Identity{Identity::Kind::Everyone, 0, "", ""};
  auto decoded = qx::IdentityUuid::decode(uuid->bytes().data());
  if (!decoded) return Identity{Identity::Kind::Other, 0, "", uuid->UUIDString()};
  auto typed =
      decoded->type == qx::ID_TYPE_UID ? Identity::user(decoded->id) : Identity::group(decoded->id);
  typed.uuid = uuid->UUIDString();
  return typed;
}

qx::UuidPtr RecordConversion::uuid(const Identity& identity) {
  uuid_t bytes{};
  switch (identity.kind) {
    case Identity::Kind::User:
      qx::IdentityUuid::forUser(identity.id, bytes);
      return qx::Uuid::withBytes(bytes);
    case Identity::Kind::Group:
      qx::IdentityUuid::forGroup(identity.id, bytes);
      return qx::Uuid::withBytes(bytes);
    case Identity::Kind::Everyone:
      return nullptr;
    case Identity::Kind::Other:
      break;
  }
  return qx::Uuid::withString(identity.uuid);
}

std::optional<AclListing> RecordConversion::listing(const qx::ArrayPtr& entries) {
  if (!entries || entries->count() < 5 || !isMarker(entries->objectAtIndex(0), "ACL"))
    return std::nullopt;
  AclListing listing;
  std::size_t index = 1;
  for (; index < entries->count() && !isMarker(entries->objectAtIndex(index), "POSIX"); ++index) {
    auto entry = entries->objectAs<QXAclEntry>(index);
    if (!entry || !entry->isAcl()) return std::nullopt;
    listing.acl.push_back(aclEntry(*entry));
  }
  if (entries->count() != index + 4) return std::nullopt;
  auto owner = posixEntry(entries->objectAs<QXAclEntry>(index + 1), &listing.folder);
  auto group = posixEntry(entries->objectAs<QXAclEntry>(index + 2), &listing.folder);
  auto everyone = posixEntry(entries->objectAs<QXAclEntry>(index + 3), &listing.folder);
  if (!owner || !group || !everyone) return std::nullopt;
  listing.owner = *owner;
  listing.group = *group;
  listing.everyone = *everyone;
  return listing;
}

qx::ArrayPtr RecordConversion::entries(const AclListing& listing) {
  std::vector<qx::ObjectPtr> objects{qx::str("ACL")};
  for (const auto& entry : listing.acl) {
    objects.push_back(QXAclEntry::make(
        uuid(entry.identity),
        entry.deny ? qx::xacl::ACL_EXTENDED_DENY : qx::xacl::ACL_EXTENDED_ALLOW,
        permissionTree(entry.rights, entry.inheritance, listing.folder), entry.inherited));
  }
  objects.push_back(qx::str("POSIX"));
  for (const auto* pseudo : {&listing.owner, &listing.group, &listing.everyone})
    objects.push_back(posixRecord(*pseudo, listing.folder));
  return qx::Array::make(std::move(objects));
}

std::optional<EffectiveAccess> RecordConversion::access(const qx::ArrayPtr& groups) {
  if (!groups) return std::nullopt;
  EffectiveAccess access;
  for (const auto& object : *groups) {
    auto group = qx::cast<qx::TreeNode>(object);
    auto record = recordOf(object);
    if (!group || !record || !record->name()) return std::nullopt;
    EffectiveAccess::Group typed{record->name()->str(), {}};
    for (const auto& child : group->childNodes()) {
      auto leaf = recordOf(child);
      if (!leaf || !leaf->name()) return std::nullopt;
      typed.rights.push_back(
          {leaf->name()->str(), static_cast<uint32_t>(leaf->permission()), leaf->state() == 1});
    }
    access.groups.push_back(std::move(typed));
  }
  return access;
}

std::optional<std::vector<SizeUpdate>> RecordConversion::sizes(const qx::ArrayPtr& batch) {
  std::vector<SizeUpdate> updates;
  if (!batch) return updates;
  for (const auto& object : *batch) {
    auto record = qx::cast<qx::Dictionary>(object);
    auto indexPath =
        record ? record->objectForKeyAs<qx::IndexPath>(QXFileResponse::kIndexPathKey) : nullptr;
    auto item =
        record ? record->objectForKeyAs<QXFileSizeItem>(QXFileResponse::kFileSizeItemKey) : nullptr;
    if (!indexPath || !item) return std::nullopt;
    updates.push_back({indexPath->indexes(), item->size(), item->busy()});
  }
  return updates;
}

std::optional<std::vector<std::vector<FileRef>>> RecordConversion::levels(
    const qx::ArrayPtr& levels) {
  std::vector<std::vector<FileRef>> typed;
  if (!levels) return typed;
  for (const auto& object : *levels) {
    auto level = qx::cast<qx::Array>(object);
    if (!level) return std::nullopt;
    auto& items = typed.emplace_back();
    for (const auto& item : *level) {
      auto reference = qx::cast<qx::FileReferenceUrl>(item);
      if (!reference) return std::nullopt;
      items.push_back({reference->device(), reference->inode(), reference->keptPath()});
    }
  }
  return typed;
}

RenameResult RecordConversion::renamed(const qx::ArrayPtr& urls, const qx::ArrayPtr& names) {
  RenameResult result;
  for (const auto& object : urls ? *urls : *qx::Array::make()) {
    if (auto url = qx::cast<qx::Url>(object)) result.renamed.push_back(url->path());
  }
  for (const auto& object : names ? *names : *qx::Array::make()) {
    if (auto name = qx::cast<qx::String>(object)) result.previousNames.push_back(name->str());
  }
  return result;
}

}  // namespace qxfile
