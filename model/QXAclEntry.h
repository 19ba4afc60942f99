#pragma once

#include <cstdint>
#include <memory>

#include "model/QXTreeNode.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Object.h"
#include "platform/foundation/Uuid.h"

// One ACL entry, or one POSIX owner / group / everyone pseudo-entry. The
// permissions are the top-level nodes of a tree of QXTreeNodes whose
// represented objects are QXAclPermissions.
class QXAclEntry final : public qx::Object {
  QX_DECLARE_CLASS()

 public:
  // No identity, tag 0 (undefined), no permissions: isAcl() is false.
  QXAclEntry() : QXAclEntry(nullptr, 0, nullptr, false) {}
  QXAclEntry(qx::UuidPtr uuid, int32_t tag, qx::ArrayPtr permissions, bool inherited)
      : tag_(tag), uuid_(std::move(uuid)) {
    setPermissions(std::move(permissions));
    setInherited(inherited);
  }

  static std::shared_ptr<QXAclEntry> make(qx::UuidPtr uuid, int32_t tag, qx::ArrayPtr permissions,
                                          bool inherited) {
    return std::make_shared<QXAclEntry>(std::move(uuid), tag, std::move(permissions), inherited);
  }
  static constexpr bool supportsSecureCoding() { return true; }
  static qx::ObjectPtr initWithCoder(qx::KeyedUnarchiver& coder);
  void encodeWithCoder(qx::KeyedArchiver& coder) const override;

  // nil for the everyone pseudo-entry.
  const qx::UuidPtr& uuid() const { return uuid_; }
  void setUuid(qx::UuidPtr uuid) { uuid_ = std::move(uuid); }
  // 1 allow, 2 deny; 1 for pseudo-entries.
  int32_t tag() const { return tag_; }
  void setTag(int32_t tag) { tag_ = tag; }
  const qx::ArrayPtr& permissions() const { return permissions_; }
  void setPermissions(qx::ArrayPtr permissions) { permissions_ = std::move(permissions); }
  bool inherited() const { return inherited_; }
  void setInherited(bool inherited) { inherited_ = inherited; }

  // A real ACL entry: its first top-level node has children (a POSIX
  // pseudo-entry's first node, "Read", is a leaf).
  bool isAcl() const;

  // Turns an entry read from a folder into the entry for a file inside it:
  // folder row names become file row names, "Delete Subfolders and Files" and
  // the "Applies to" node go. The nodes are shared with the old tree, which
  // changes too; group states are left as they were. An entry without the
  // folder shape is left untouched and answers false.
  bool convertParentToFileEntry();

  // Sets the node's state from its children's (one level): 0 without
  // children, their common state when they agree, else -1.
  static void resolveStateForPermissionNode(const qx::TreeNodePtr& node);

  std::string description() const override;

 private:
  bool inherited_ = false;
  int32_t tag_;
  qx::UuidPtr uuid_;
  qx::ArrayPtr permissions_;
};

using QXAclEntryPtr = std::shared_ptr<QXAclEntry>;
