#include "client/cli/EntryList.h"

#include "model/QXAclPermission.h"
#include "platform/foundation/String.h"
#include "platform/foundation/TreeNode.h"

namespace qxcli {

namespace {

constexpr int32_t kFolderExecuteLeaf = 0x1000;  // "Traverse Folder" of a pseudo-entry

// The records of a pseudo-entry's three leaves (read, write, execute).
std::vector<QXAclPermissionPtr> leavesOf(const QXAclEntryPtr& entry) {
  std::vector<QXAclPermissionPtr> leaves;
  if (!entry || !entry->permissions()) return leaves;
  for (const auto& node : *entry->permissions()) {
    auto tree = qx::cast<qx::TreeNode>(node);
    leaves.push_back(tree ? tree->representedObjectAs<QXAclPermission>() : nullptr);
  }
  return leaves;
}

bool isMarker(const qx::ObjectPtr& object, const char* marker) {
  auto text = qx::cast<qx::String>(object);
  return text && text->str() == marker;
}

}  // namespace

std::optional<EntryList> EntryList::fromArray(const qx::ArrayPtr& entries, std::string* problem) {
  auto fail = [&](const char* why) -> std::optional<EntryList> {
    if (problem) *problem = why;
    return std::nullopt;
  };
  if (!entries || entries->count() < 5 || !isMarker(entries->objectAtIndex(0), "ACL")) {
    return fail("The service's entries do not begin with \"ACL\".");
  }
  EntryList list;
  std::size_t index = 1;
  for (; index < entries->count() && !isMarker(entries->objectAtIndex(index), "POSIX"); ++index) {
    auto entry = entries->objectAs<QXAclEntry>(index);
    if (!entry || !entry->isAcl()) return fail("The service's ACL entries are malformed.");
    list.acl_.push_back(entry);
  }
  if (entries->count() != index + 4) {
    return fail("The service's entries lack the owner, group and everyone entries.");
  }
  list.owner_ = entries->objectAs<QXAclEntry>(index + 1);
  list.group_ = entries->objectAs<QXAclEntry>(index + 2);
  list.everyone_ = entries->objectAs<QXAclEntry>(index + 3);
  for (const auto& pseudo : {list.owner_, list.group_, list.everyone_}) {
    auto leaves = leavesOf(pseudo);
    if (leaves.size() != 3 || !leaves[0] || !leaves[1] || !leaves[2]) {
      return fail("The service's owner, group and everyone entries are malformed.");
    }
  }
  list.folder_ = leavesOf(list.owner_)[2]->permission() == kFolderExecuteLeaf;
  return list;
}

qx::ArrayPtr EntryList::toArray() const {
  std::vector<qx::ObjectPtr> objects{qx::str("ACL")};
  for (const auto& entry : acl_) objects.push_back(entry);
  objects.push_back(qx::str("POSIX"));
  objects.push_back(owner_);
  objects.push_back(group_);
  objects.push_back(everyone_);
  return qx::Array::make(std::move(objects));
}

unsigned EntryList::mode() const {
  unsigned mode = 0;
  unsigned bit = 0400;
  for (const auto& pseudo : {owner_, group_, everyone_}) {
    for (const auto& leaf : leavesOf(pseudo)) {
      if (leaf && leaf->state() == 1) mode |= bit;
      bit >>= 1;
    }
  }
  return mode;
}

void EntryList::setMode(unsigned mode) {
  unsigned bit = 0400;
  for (const auto& pseudo : {owner_, group_, everyone_}) {
    for (const auto& leaf : leavesOf(pseudo)) {
      if (leaf) leaf->setState((mode & bit) ? 1 : 0);
      bit >>= 1;
    }
  }
}

std::string EntryList::modeString(unsigned mode) {
  std::string text = "rwxrwxrwx";
  for (int i = 0; i < 9; ++i) {
    if (!(mode & (0400u >> i))) text[i] = '-';
  }
  return text;
}

}  // namespace qxcli
