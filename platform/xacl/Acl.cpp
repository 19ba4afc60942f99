#include "platform/xacl/Acl.h"

#include <cstddef>

namespace qx::xacl {

bool AclEntry::storable() const {
  return hasQualifier && (tag == ACL_EXTENDED_ALLOW || tag == ACL_EXTENDED_DENY);
}

ExtendedEntries Acl::entries() const {
  ExtendedEntries out;
  out.reserve(static_cast<std::size_t>(size_));
  for (int i = 0; i < size_; ++i) {
    const AclEntry& e = entries_[i];
    out.push_back({e.tag, e.qualifier, e.permset.bits, e.flagset.bits});
  }
  return out;
}

bool Acl::assign(const ExtendedEntries& entries) {
  if (entries.size() > static_cast<std::size_t>(kMaxEntries)) return false;
  size_ = 0;
  cursor_ = -1;
  for (const ExtendedEntry& e : entries) {
    AclEntry* entry = append();
    entry->tag = e.tag;
    entry->qualifier = e.qualifier;
    entry->hasQualifier = true;
    entry->permset.bits = e.rights;
    entry->flagset.bits = e.flags;
  }
  return true;
}

AclEntry* Acl::append() {
  if (size_ >= kMaxEntries) return nullptr;
  AclEntry& entry = entries_[size_++];
  entry = AclEntry{};
  return &entry;
}

AclEntry* Acl::step(int entryId) {
  if (entryId == ACL_FIRST_ENTRY) {
    cursor_ = 0;
  } else if (entryId == ACL_NEXT_ENTRY) {
    // Stays just past the end however often it is asked again.
    cursor_ = cursor_ < size_ ? cursor_ + 1 : size_;
  } else if (entryId == ACL_LAST_ENTRY) {
    cursor_ = size_ - 1;
  } else if (entryId > 0) {
    cursor_ = entryId;
  } else {
    return nullptr;
  }
  if (cursor_ < 0 || cursor_ >= size_) return nullptr;
  return &entries_[cursor_];
}

}  // namespace qx::xacl
