#include "platform/xacl/AclText.h"

#include <sys/stat.h>
#include <uuid/uuid.h>

#include <cerrno>

#include "platform/membership/IdentityNames.h"
#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/Acl.h"
#include "platform/xacl/AclHandle.h"

namespace qx::xacl {

namespace {

struct PermissionName {
  acl_perm_t bit;
  const char* file;
  const char* directory;
};

// In the order of the permission table: read rights, write rights, administration.
constexpr PermissionName kPermissionNames[] = {
    {ACL_READ_DATA, "read_data", "list_directory"},
    {ACL_EXECUTE, "execute", "search"},
    {ACL_READ_ATTRIBUTES, "read_attributes", "read_attributes"},
    {ACL_READ_EXTATTRIBUTES, "read_extattributes", "read_extattributes"},
    {ACL_READ_SECURITY, "read_security", "read_security"},
    {ACL_WRITE_DATA, "write_data", "add_file"},
    {ACL_APPEND_DATA, "append_data", "add_subdirectory"},
    {ACL_DELETE, "delete", "delete"},
    {ACL_DELETE_CHILD, "delete_child", "delete_child"},
    {ACL_WRITE_ATTRIBUTES, "write_attributes", "write_attributes"},
    {ACL_WRITE_EXTATTRIBUTES, "write_extattributes", "write_extattributes"},
    {ACL_WRITE_SECURITY, "write_security", "write_security"},
    {ACL_CHANGE_OWNER, "change_owner", "change_owner"},
};

struct FlagName {
  acl_flag_t bit;
  const char* name;
};

constexpr FlagName kFlagNames[] = {
    {ACL_ENTRY_INHERITED, "inherited"},
    {ACL_ENTRY_FILE_INHERIT, "file_inherit"},
    {ACL_ENTRY_DIRECTORY_INHERIT, "directory_inherit"},
    {ACL_ENTRY_LIMIT_INHERIT, "limit_inherit"},
    {ACL_ENTRY_ONLY_INHERIT, "only_inherit"},
};

void appendListed(std::string& list, const char* name) {
  if (!list.empty()) list += ',';
  list += name;
}

std::string uuidText(const unsigned char uuid[16]) {
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

const char* tagName(acl_tag_t tag) {
  switch (tag) {
    case ACL_EXTENDED_ALLOW:
      return "allow";
    case ACL_EXTENDED_DENY:
      return "deny";
    default:
      return "undefined";
  }
}

std::string entryLine(const AclEntry& entry, bool directory) {
  std::string line = tagName(entry.tag);
  line += ' ';
  line += entry.hasQualifier ? AclText::identity(entry.qualifier.data()) : "unset";
  line += ' ';
  line += AclText::permissions(entry.permset.bits, directory);
  std::string flags = AclText::flags(entry.flagset.bits);
  if (!flags.empty()) line += ' ' + flags;
  return line;
}

}  // namespace

std::optional<std::string> AclText::format(acl_t acl, bool directory) {
  if (acl == nullptr || !acl->valid()) {
    errno = EINVAL;
    return std::nullopt;
  }
  std::string text;
  for (int i = 0; i < acl->size(); ++i) text += entryLine(acl->at(i), directory) + '\n';
  return text;
}

std::optional<std::string> AclText::formatEntry(acl_entry_t entry, bool directory) {
  if (entry == nullptr || !entry->valid()) {
    errno = EINVAL;
    return std::nullopt;
  }
  return entryLine(*entry, directory);
}

std::optional<std::string> AclText::forPath(const char* path) {
  struct stat st;
  if (path == nullptr) {
    errno = EINVAL;
    return std::nullopt;
  }
  if (lstat(path, &st) != 0) return std::nullopt;
  AclHandle acl(acl_get_link_np(path, ACL_TYPE_EXTENDED));
  if (!acl) {
    if (errno == ENOENT) return std::string();
    return std::nullopt;
  }
  return format(acl.get(), S_ISDIR(st.st_mode));
}

std::string AclText::identity(const unsigned char uuid[16]) {
  auto decoded = IdentityUuid::decode(uuid);
  if (!decoded) return uuidText(uuid);
  if (decoded->type == ID_TYPE_UID) {
    auto name = IdentityNames::userName(decoded->id);
    return "user:" + (name ? *name : uuidText(uuid));
  }
  auto name = IdentityNames::groupName(decoded->id);
  return "group:" + (name ? *name : uuidText(uuid));
}

std::string AclText::permissions(acl_perm_t bits, bool directory) {
  std::string list;
  for (const PermissionName& permission : kPermissionNames) {
    if ((bits & permission.bit) != 0) {
      appendListed(list, directory ? permission.directory : permission.file);
    }
  }
  return list.empty() ? "none" : list;
}

std::string AclText::flags(acl_flag_t bits) {
  std::string list;
  for (const FlagName& flag : kFlagNames) {
    if ((bits & flag.bit) != 0) appendListed(list, flag.name);
  }
  return list;
}

}  // namespace qx::xacl
