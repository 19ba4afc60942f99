#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model/QXAclEntry.h"
#include "platform/foundation/Array.h"

namespace qxcli {

// An item's entries as the service lists them ("ACL", the ACL entries,
// "POSIX", the owner, group and everyone pseudo-entries), taken apart for
// editing and put back together in the same shape.
class EntryList {
 public:
  // Nullopt, with `problem` set, when the array lacks that shape.
  static std::optional<EntryList> fromArray(const qx::ArrayPtr& entries, std::string* problem);
  qx::ArrayPtr toArray() const;

  // Whether the item is a folder: its pseudo-entries name "Traverse Folder".
  bool folder() const { return folder_; }
  std::vector<QXAclEntryPtr>& acl() { return acl_; }
  const std::vector<QXAclEntryPtr>& acl() const { return acl_; }
  const QXAclEntryPtr& owner() const { return owner_; }
  const QXAclEntryPtr& group() const { return group_; }
  const QXAclEntryPtr& everyone() const { return everyone_; }

  // The nine permission bits that the pseudo-entries' leaves stand for.
  unsigned mode() const;
  void setMode(unsigned mode);

  // "rwxr-x---"
  static std::string modeString(unsigned mode);

 private:
  bool folder_ = false;
  std::vector<QXAclEntryPtr> acl_;
  QXAclEntryPtr owner_;
  QXAclEntryPtr group_;
  QXAclEntryPtr everyone_;
};

}  // namespace qxcli
