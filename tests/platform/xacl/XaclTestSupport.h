#pragma once

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <uuid/uuid.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclText.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl::test {

using Uuid = std::array<unsigned char, 16>;

inline Uuid uuidOf(const char* text) {
  Uuid u{};
  uuid_parse(text, u.data());
  return u;
}

// The errno that `failed` leaves when it reports a failure, else 0: whether a call was
// refused and why, as one value.
template <typename Call>
int errnoOf(Call failed) {
  errno = 0;
  return failed() ? errno : 0;
}

inline std::string textOf(const void* uuid) {
  char text[37];
  uuid_unparse_upper(static_cast<const unsigned char*>(uuid), text);
  return text;
}

// One entry's fields, the qualifier as text.
struct EntryFields {
  acl_tag_t tag;
  const char* qualifier;
  acl_perm_t perms = 0;
  acl_flag_t flags = 0;
};

// Adds an entry through the interface; a null qualifier or an undefined tag is left unset.
inline acl_entry_t addEntry(acl_t acl, acl_tag_t tag, const unsigned char* qualifier,
                            acl_perm_t perms, acl_flag_t flags) {
  acl_entry_t entry = nullptr;
  acl_permset_t permset = nullptr;
  acl_flagset_t flagset = nullptr;
  int status = acl_create_entry(&acl, &entry);
  if (tag != ACL_UNDEFINED_TAG) status |= acl_set_tag_type(entry, tag);
  if (qualifier) status |= acl_set_qualifier(entry, qualifier);
  status |= acl_get_permset(entry, &permset) | acl_get_flagset_np(entry, &flagset);
  if (perms != 0) status |= acl_add_perm(permset, perms);
  if (flags != 0) status |= acl_add_flag_np(flagset, flags);
  EXPECT_EQ(status, 0) << "building an entry";
  return entry;
}

inline acl_entry_t addEntry(acl_t acl, const EntryFields& fields) {
  return addEntry(acl, fields.tag, fields.qualifier ? uuidOf(fields.qualifier).data() : nullptr,
                  fields.perms, fields.flags);
}

inline AclHandle buildAcl(const std::vector<EntryFields>& entries) {
  AclHandle acl(acl_init(static_cast<int>(entries.size())));
  for (const EntryFields& fields : entries) addEntry(acl.get(), fields);
  return acl;
}

inline bool writeRaw(const std::string& path, const std::vector<uint8_t>& bytes) {
  return lsetxattr(path.c_str(), kAclAttributeName, bytes.data(), bytes.size(), 0) == 0;
}

// The item's stored ACL in the text form; "no ACL" when it has none.
inline std::string storedAcl(const std::string& path) {
  AclHandle acl(acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED));
  return acl ? AclText::format(acl.get()).value_or("not an ACL") : "no ACL";
}

inline bool hasAclAttribute(const std::string& path) {
  return lgetxattr(path.c_str(), kAclAttributeName, nullptr, 0) >= 0;
}

// The attribute's bytes; empty when it cannot be read.
inline std::vector<uint8_t> readRaw(const std::string& path) {
  std::vector<uint8_t> bytes(65536);
  ssize_t n = lgetxattr(path.c_str(), kAclAttributeName, bytes.data(), bytes.size());
  bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return bytes;
}

}  // namespace qx::xacl::test
