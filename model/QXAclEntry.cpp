#include "model/QXAclEntry.h"

#include "model/QXAclPermission.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/MutableArray.h"

QX_DEFINE_CLASS(QXAclEntry, "QXAclEntry", qx::Object)

namespace {

const qx::ClassSet& permissionsClasses() {
  static const qx::ClassSet classes{&qx::Array::classInfo(), &QXTreeNode::classInfo(),
                                    &QXAclPermission::classInfo()};
  return classes;
}

QXAclPermissionPtr recordOf(const qx::TreeNodePtr& node) {
  return node ? node->representedObjectAs<QXAclPermission>() : nullptr;
}

// Child `index` of a node, or nil.
qx::TreeNodePtr childAt(const qx::TreeNodePtr& node, std::size_t index) {
  if (!node || index >= node->childNodes().size()) return nullptr;
  return node->childNodes()[index];
}

void convertChildToFilePermission(const qx::TreeNodePtr& node, std::size_t index) {
  if (auto record = recordOf(childAt(node, index))) record->convertToFilePermission();
}

}  // namespace

qx::ObjectPtr QXAclEntry::initWithCoder(qx::KeyedUnarchiver& coder) {
  auto uuid = qx::cast<qx::Uuid>(coder.decodeObjectOfClassForKey(qx::Uuid::classInfo(), "uuid"));
  auto tag = static_cast<uint32_t>(coder.decodeIntForKey("tag"));
  auto permissions =
      qx::cast<qx::Array>(coder.decodeObjectOfClassesForKey(permissionsClasses(), "permissions"));
  bool inherited = coder.decodeBoolForKey("inherited");
  if (coder.hasFailed()) return nullptr;
  return make(std::move(uuid), static_cast<int32_t>(tag), std::move(permissions), inherited);
}

void QXAclEntry::encodeWithCoder(qx::KeyedArchiver& coder) const {
  coder.encodeObject(uuid_, "uuid");
  coder.encodeInt(static_cast<int32_t>(static_cast<uint32_t>(tag_)), "tag");
  coder.encodeObject(permissions_, "permissions");
  coder.encodeBool(inherited_, "inherited");
}

bool QXAclEntry::isAcl() const {
  if (!permissions_ || permissions_->empty()) return false;
  auto first = permissions_->objectAs<qx::TreeNode>(0);
  return first && !first->isLeaf();
}

bool QXAclEntry::convertParentToFileEntry() {
  if (!permissions_ || permissions_->count() < 4) return false;
  auto read = permissions_->objectAs<qx::TreeNode>(0);
  auto write = permissions_->objectAs<qx::TreeNode>(1);
  if (!read || read->childNodes().size() < 2 || !write || write->childNodes().size() < 4) {
    return false;
  }

  auto converted = permissions_->mutableCopy();
  convertChildToFilePermission(read, 0);              // "List Folder Contents" -> "Read Data"
  convertChildToFilePermission(read, 1);              // "Traverse Folder" -> "Execute File"
  convertChildToFilePermission(write, 0);             // "Create Files" -> "Write Data"
  convertChildToFilePermission(write, 1);             // "Create Folder" -> "Append Data"
  write->mutableChildNodes().removeObjectAtIndex(3);  // "Delete Subfolders and Files"
  converted->removeObjectAtIndex(3);                  // "Applies to"
  setPermissions(converted->copy());
  return true;
}

void QXAclEntry::resolveStateForPermissionNode(const qx::TreeNodePtr& node) {
  if (!node) return;
  int64_t state = 0;
  bool first = true;
  for (const qx::TreeNodePtr& child : node->childNodes()) {
    QXAclPermissionPtr record = recordOf(child);
    int64_t childState = record ? record->state() : 0;
    if (!first && childState != state) {
      state = -1;
      break;
    }
    state = childState;
    first = false;
  }
  if (auto record = recordOf(node)) record->setState(state);
}

std::string QXAclEntry::description() const {
  return "<QXAclEntry " + (uuid_ ? uuid_->UUIDString() : std::string("(everyone)")) +
         " tag=" + std::to_string(tag_) + (inherited_ ? " inherited" : "") +
         (isAcl() ? " acl" : " posix") + ">";
}
