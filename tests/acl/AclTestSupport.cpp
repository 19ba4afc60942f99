#include "tests/acl/AclTestSupport.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>

#include "model/QXAclTables.h"
#include "model/QXTreeNode.h"
#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclText.h"
#include "tests/platform/xacl/XaclTestSupport.h"

namespace qxacltest {

qx::UuidPtr userUuid(uid_t uid) {
  uint8_t bytes[16];
  qx::IdentityUuid::forUser(uid, bytes);
  return qx::Uuid::withBytes(bytes);
}

qx::UuidPtr groupUuid(gid_t gid) {
  uint8_t bytes[16];
  qx::IdentityUuid::forGroup(gid, bytes);
  return qx::Uuid::withBytes(bytes);
}

std::string AclTree::ownedFile(const std::string& name, mode_t mode, uid_t uid, gid_t gid) const {
  file(name);
  if (lchown(path(name).c_str(), uid, gid) == 0) chmod(path(name).c_str(), mode);
  return path(name);
}

std::string AclTree::ownedFolder(const std::string& name, mode_t mode, uid_t uid, gid_t gid) const {
  folder(name, 0700);
  if (lchown(path(name).c_str(), uid, gid) == 0) chmod(path(name).c_str(), mode);
  return path(name);
}

AclHandle aclOf(const std::vector<Ace>& entries) {
  AclHandle acl(acl_init(static_cast<int>(entries.size())));
  for (const Ace& ace : entries) {
    qx::xacl::test::addEntry(acl.get(), ace.tag, ace.who ? ace.who->bytes().data() : nullptr,
                             ace.perms, ace.flags);
  }
  return acl;
}

std::string aclText(const std::vector<Ace>& entries) {
  return aclText(aclOf(entries).get());
}

std::string aclText(acl_t acl) {
  return AclText::format(acl).value_or("not an ACL");
}

bool setAcl(const std::string& path, const std::vector<Ace>& entries) {
  return acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, aclOf(entries).get()) == 0;
}

std::string storedAcl(const std::string& path) {
  AclHandle acl(acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED));
  return acl ? aclText(acl.get()) : "no ACL";
}

bool hasAclAttribute(const std::string& path) {
  return lgetxattr(path.c_str(), kAclAttributeName, nullptr, 0) >= 0;
}

bool setDamagedAcl(const std::string& path) {
  const char junk[] = "not an access control list";
  return lsetxattr(path.c_str(), kAclAttributeName, junk, sizeof junk, 0) == 0;
}

QXAclPermissionPtr recordOf(const qx::ObjectPtr& node) {
  auto tree = qx::cast<qx::TreeNode>(node);
  return tree ? tree->representedObjectAs<QXAclPermission>() : nullptr;
}

std::string nameOf(const qx::ObjectPtr& node) {
  auto record = recordOf(node);
  return record && record->name() ? record->name()->str() : "<nil>";
}

std::vector<Leaf> childrenOf(const qx::ObjectPtr& node) {
  std::vector<Leaf> leaves;
  auto tree = qx::cast<qx::TreeNode>(node);
  if (!tree) return leaves;
  for (const auto& child : tree->childNodes()) {
    auto record = recordOf(child);
    leaves.push_back({nameOf(child), record ? static_cast<uint32_t>(record->permission()) : -1,
                      record ? record->state() : -99});
  }
  return leaves;
}

std::map<std::string, int64_t> leafStates(const qx::ArrayPtr& groups) {
  std::map<std::string, int64_t> states;
  for (const auto& group : *groups) {
    for (const Leaf& leaf : childrenOf(group)) states[leaf.name] = leaf.state;
  }
  return states;
}

QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, permission, state));
}

QXAclEntryPtr aclEntry(const Ace& ace, bool folder) {
  auto permissions = qx::MutableArray::make(4);
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = node(group->name, kQXGroupNodePermission, 0);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, folder)) continue;
      groupNode->mutableChildNodes().addObject(
          node(row->name, row->value, (ace.perms & row->value) ? 1 : 0));
    }
    QXAclEntry::resolveStateForPermissionNode(groupNode);
    permissions->addObject(groupNode);
  }
  if (folder) {
    const bool childFolders = (ace.flags & ACL_ENTRY_DIRECTORY_INHERIT) != 0;
    const std::pair<const char*, bool> children[] = {
        {"This item", (ace.flags & ACL_ENTRY_ONLY_INHERIT) == 0},
        {"Child files", (ace.flags & ACL_ENTRY_FILE_INHERIT) != 0},
        {"Child folders", childFolders},
        {"All descendants", childFolders && (ace.flags & ACL_ENTRY_LIMIT_INHERIT) == 0}};
    const uint32_t flags[] = {ACL_ENTRY_ONLY_INHERIT, ACL_ENTRY_FILE_INHERIT,
                              ACL_ENTRY_DIRECTORY_INHERIT, ACL_ENTRY_LIMIT_INHERIT};
    auto appliesTo = node("Applies to", kQXAppliesToPermission, 0);
    for (int i = 0; i < 4; ++i) {
      appliesTo->mutableChildNodes().addObject(
          node(children[i].first, flags[i], children[i].second ? 1 : 0));
    }
    QXAclEntry::resolveStateForPermissionNode(appliesTo);
    permissions->addObject(appliesTo);
  }
  return QXAclEntry::make(ace.who, ace.tag, permissions->copy(),
                          (ace.flags & ACL_ENTRY_INHERITED) != 0);
}

std::vector<qx::ObjectPtr> pseudoEntries(mode_t mode, uid_t owner, gid_t group, bool folder) {
  std::vector<qx::ObjectPtr> entries;
  const qx::UuidPtr identities[3] = {userUuid(owner), groupUuid(group), nullptr};
  for (int who = 0; who < 3; ++who) {
    auto bit = [&](int value) -> int64_t { return (mode >> (6 - 3 * who)) & value ? 1 : 0; };
    auto permissions = qx::Array::make(
        {node("Read", folder ? 0x80 : 2, bit(4)), node("Write", folder ? 0x100 : 4, bit(2)),
         node(folder ? "Traverse Folder" : "Execute File", folder ? 0x1000 : 8, bit(1))});
    entries.push_back(QXAclEntry::make(identities[who], 1, permissions, false));
  }
  return entries;
}

qx::ArrayPtr listing(const std::vector<qx::ObjectPtr>& aclEntries,
                     const std::vector<qx::ObjectPtr>& pseudo) {
  auto array = qx::MutableArray::make();
  array->addObject(qx::str("ACL"));
  for (const auto& entry : aclEntries) array->addObject(entry);
  array->addObject(qx::str("POSIX"));
  for (const auto& entry : pseudo) array->addObject(entry);
  return array;
}

std::string nodeText(const qx::ObjectPtr& object) {
  auto hex = [](int64_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return std::string(text);
  };
  auto record = recordOf(object);
  std::string text =
      nameOf(object) + ":" + hex(record->permission()) + "=" + std::to_string(record->state());
  for (const Leaf& leaf : childrenOf(object)) {
    text += ", " + leaf.name + ":" + hex(leaf.value) + "=" + std::to_string(leaf.state);
  }
  return text;
}

// A listing as text, markers and records alike, so that a difference shows where it is.
std::string listingText(const qx::ArrayPtr& entries) {
  std::string text;
  for (const qx::ObjectPtr& object : *entries) {
    auto entry = qx::cast<QXAclEntry>(object);
    if (!entry) {
      text += qx::cast<qx::String>(object)->str() + "\n";
      continue;
    }
    text += (entry->uuid() ? entry->uuid()->UUIDString() : "everyone") + " tag " +
            std::to_string(entry->tag()) + (entry->inherited() ? " inherited" : "") + ":";
    for (const qx::ObjectPtr& node : *entry->permissions()) text += " [" + nodeText(node) + "]";
    text += "\n";
  }
  return text;
}

void expectError(const qx::ErrorPtr& error, int64_t code, const std::string& description,
                 const std::optional<std::string>& suggestion) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), qx::kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), code);
  EXPECT_EQ(error->localizedDescription(), description);
  if (suggestion) {
    EXPECT_EQ(error->localizedRecoverySuggestion(), *suggestion);
  }
}

std::string outcome(bool result, const qx::ErrorPtr& error) {
  if (result && !error) return "ok";
  if (!error) return "failed without an error";
  return std::to_string(error->code()) + "\n" + error->localizedDescription() + "\n" +
         error->localizedRecoverySuggestion().value_or("<none>");
}

}  // namespace qxacltest
