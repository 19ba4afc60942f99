#include "platform/xacl/PosixAclStore.h"

#include <acl/libacl.h>
#include <sys/acl.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace qx::xacl {

namespace {

struct LibaclFree {
  void operator()(void* object) const { ::acl_free(object); }
};
using Libacl = std::unique_ptr<struct __acl_ext, LibaclFree>;

acl_tag_t libaclTag(uint16_t tag) {
  switch (tag) {
    case PosixAcl::UserObj:
      return ACL_USER_OBJ;
    case PosixAcl::User:
      return ACL_USER;
    case PosixAcl::GroupObj:
      return ACL_GROUP_OBJ;
    case PosixAcl::Group:
      return ACL_GROUP;
    case PosixAcl::Mask:
      return ACL_MASK;
    default:
      return ACL_OTHER;
  }
}

// A libacl ACL with the same entries, or nullptr with errno.
Libacl toLibacl(const PosixAcl& acl) {
  Libacl out(::acl_init(static_cast<int>(acl.entries().size())));
  if (!out) return nullptr;
  for (const PosixAcl::Entry& e : acl.entries()) {
    ::acl_t handle = out.get();
    ::acl_entry_t entry;
    ::acl_permset_t permset;
    if (::acl_create_entry(&handle, &entry) != 0) return nullptr;
    if (handle != out.get()) {  // libacl may move the ACL while it grows
      (void)out.release();
      out.reset(handle);
    }
    if (::acl_set_tag_type(entry, libaclTag(e.tag)) != 0) return nullptr;
    if (e.tag == PosixAcl::User || e.tag == PosixAcl::Group) {
      const id_t id = e.id;
      if (::acl_set_qualifier(entry, &id) != 0) return nullptr;
    }
    if (::acl_get_permset(entry, &permset) != 0 || ::acl_clear_perms(permset) != 0) return nullptr;
    if ((e.perm & PosixAcl::kRead) && ::acl_add_perm(permset, ACL_READ) != 0) return nullptr;
    if ((e.perm & PosixAcl::kWrite) && ::acl_add_perm(permset, ACL_WRITE) != 0) return nullptr;
    if ((e.perm & PosixAcl::kExecute) && ::acl_add_perm(permset, ACL_EXECUTE) != 0) return nullptr;
  }
  return out;
}

}  // namespace

int PosixAclStore::write(const char* path, Kind kind, const PosixAcl& acl) {
  Libacl converted = toLibacl(acl);
  if (!converted) return -1;
  const ::acl_type_t type = kind == Kind::Access ? ACL_TYPE_ACCESS : ACL_TYPE_DEFAULT;
  return ::acl_set_file(path, type, converted.get());
}

int PosixAclStore::removeDefault(const char* path) {
  if (::acl_delete_def_file(path) == 0) return 0;
  return errno == ENODATA ? 0 : -1;
}

std::vector<std::string> PosixAclStore::text(const PosixAcl& acl) {
  std::vector<std::string> lines;
  Libacl converted = toLibacl(acl);
  if (!converted) return lines;
  char* text = ::acl_to_any_text(converted.get(), nullptr, '\n', 0);
  if (text == nullptr) return lines;
  for (const char* start = text; *start != '\0';) {
    const char* end = std::strchr(start, '\n');
    if (end == nullptr) end = start + std::strlen(start);
    lines.emplace_back(start, end);
    start = *end ? end + 1 : end;
  }
  ::acl_free(text);
  return lines;
}

}  // namespace qx::xacl
