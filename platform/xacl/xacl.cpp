#include "platform/xacl/xacl.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "platform/xacl/Acl.h"
#include "platform/xacl/AclCodec.h"
#include "platform/xacl/AclRegistry.h"
#include "platform/xacl/ItemAcl.h"

namespace qx::xacl {

namespace {

constexpr size_t kQualifierSize = 16;

int fail(int error) {
  errno = error;
  return -1;
}

template <typename T>
T* failNull(int error) {
  errno = error;
  return nullptr;
}

bool validAcl(acl_t acl) {
  return acl != nullptr && acl->valid();
}
bool validEntry(acl_entry_t entry) {
  return entry != nullptr && entry->valid();
}
bool validPermset(acl_permset_t permset) {
  return permset != nullptr && permset->valid();
}
bool validFlagset(acl_flagset_t flagset) {
  return flagset != nullptr && flagset->valid();
}
bool knownPerm(acl_perm_t perm) {
  return perm != 0 && (perm & ~ACL_PERM_MASK) == 0;
}
bool knownFlag(acl_flag_t flag) {
  return flag != 0 && (flag & ~ACL_ENTRY_FLAG_MASK) == 0;
}

// Hands a new ACL to the caller, registered so that acl_free can take it back.
acl_t handOut(std::unique_ptr<Acl> acl) {
  if (!AclRegistry::add(acl.get(), AclObjectKind::Acl)) return failNull<Acl>(ENOMEM);
  return acl.release();
}

std::unique_ptr<Acl> newAcl() {
  auto acl = std::unique_ptr<Acl>(new (std::nothrow) Acl);
  if (!acl) errno = ENOMEM;
  return acl;
}

}  // namespace

acl_t acl_init(int count) {
  if (count < 0) return failNull<Acl>(EINVAL);
  if (count > ACL_MAX_ENTRIES) return failNull<Acl>(ENOMEM);
  auto acl = newAcl();
  if (!acl) return nullptr;
  return handOut(std::move(acl));
}

acl_t acl_get_link_np(const char* path, acl_type_t type) {
  if (type != ACL_TYPE_EXTENDED) return failNull<Acl>(EINVAL);
  AclState state;
  return acl_get_link_state_np(path, &state);
}

acl_t acl_get_link_state_np(const char* path, AclState* state) {
  if (path == nullptr || state == nullptr) return failNull<Acl>(EINVAL);
  if (ItemAcl::read(path, state) != 0) {
    // A missing item has no ACL, as a missing attribute always meant.
    return nullptr;
  }
  if (state->source == AclSource::None) return failNull<Acl>(ENOENT);
  auto acl = newAcl();
  if (!acl) return nullptr;
  if (!acl->assign(state->entries)) return failNull<Acl>(EINVAL);
  return handOut(std::move(acl));
}

int acl_set_link_np(const char* path, acl_type_t type, acl_t acl) {
  if (path == nullptr || type != ACL_TYPE_EXTENDED || !validAcl(acl)) return fail(EINVAL);
  for (int i = 0; i < acl->size(); ++i) {
    if (!acl->at(i).storable()) return fail(EINVAL);
  }
  try {
    return ItemAcl::write(path, acl->entries());
  } catch (const std::bad_alloc&) {
    return fail(ENOMEM);
  }
}

int acl_get_entry(acl_t acl, int entry_id, acl_entry_t* entry_p) {
  if (!validAcl(acl) || entry_p == nullptr) return fail(EINVAL);
  AclEntry* entry = acl->step(entry_id);
  if (entry == nullptr) return fail(EINVAL);
  *entry_p = entry;
  return 0;
}

int acl_create_entry(acl_t* acl_p, acl_entry_t* entry_p) {
  if (acl_p == nullptr || !validAcl(*acl_p) || entry_p == nullptr) return fail(EINVAL);
  AclEntry* entry = (*acl_p)->append();
  if (entry == nullptr) return fail(ENOMEM);
  *entry_p = entry;
  return 0;
}

int acl_get_tag_type(acl_entry_t entry, acl_tag_t* tag_type_p) {
  if (!validEntry(entry) || tag_type_p == nullptr) return fail(EINVAL);
  *tag_type_p = entry->tag;
  return 0;
}

int acl_set_tag_type(acl_entry_t entry, acl_tag_t tag_type) {
  if (!validEntry(entry)) return fail(EINVAL);
  if (tag_type != ACL_EXTENDED_ALLOW && tag_type != ACL_EXTENDED_DENY) return fail(EINVAL);
  entry->tag = tag_type;
  return 0;
}

void* acl_get_qualifier(acl_entry_t entry) {
  if (!validEntry(entry) || !entry->hasQualifier) return failNull<void>(EINVAL);
  auto copy = std::unique_ptr<unsigned char[]>(new (std::nothrow) unsigned char[kQualifierSize]);
  if (!copy) return failNull<void>(ENOMEM);
  std::memcpy(copy.get(), entry->qualifier.data(), kQualifierSize);
  if (!AclRegistry::add(copy.get(), AclObjectKind::Qualifier)) return failNull<void>(ENOMEM);
  return copy.release();
}

int acl_set_qualifier(acl_entry_t entry, const void* qualifier) {
  if (!validEntry(entry) || qualifier == nullptr) return fail(EINVAL);
  std::memcpy(entry->qualifier.data(), qualifier, kQualifierSize);
  entry->hasQualifier = true;
  return 0;
}

int acl_get_permset(acl_entry_t entry, acl_permset_t* permset_p) {
  if (!validEntry(entry) || permset_p == nullptr) return fail(EINVAL);
  *permset_p = &entry->permset;
  return 0;
}

int acl_set_permset(acl_entry_t entry, acl_permset_t permset) {
  if (!validEntry(entry) || !validPermset(permset)) return fail(EINVAL);
  entry->permset.bits = permset->bits;
  return 0;
}

int acl_clear_perms(acl_permset_t permset) {
  if (!validPermset(permset)) return fail(EINVAL);
  permset->bits = 0;
  return 0;
}

int acl_add_perm(acl_permset_t permset, acl_perm_t perm) {
  if (!validPermset(permset) || !knownPerm(perm)) return fail(EINVAL);
  permset->bits |= perm;
  return 0;
}

int acl_delete_perm(acl_permset_t permset, acl_perm_t perm) {
  if (!validPermset(permset) || !knownPerm(perm)) return fail(EINVAL);
  permset->bits &= ~perm;
  return 0;
}

int acl_get_perm_np(acl_permset_t permset, acl_perm_t perm) {
  if (!validPermset(permset) || !knownPerm(perm)) return fail(EINVAL);
  return (permset->bits & perm) == perm ? 1 : 0;
}

int acl_get_flagset_np(acl_entry_t entry, acl_flagset_t* flagset_p) {
  if (!validEntry(entry) || flagset_p == nullptr) return fail(EINVAL);
  *flagset_p = &entry->flagset;
  return 0;
}

int acl_set_flagset_np(acl_entry_t entry, acl_flagset_t flagset) {
  if (!validEntry(entry) || !validFlagset(flagset)) return fail(EINVAL);
  entry->flagset.bits = flagset->bits;
  return 0;
}

int acl_clear_flags_np(acl_flagset_t flagset) {
  if (!validFlagset(flagset)) return fail(EINVAL);
  flagset->bits = 0;
  return 0;
}

int acl_add_flag_np(acl_flagset_t flagset, acl_flag_t flag) {
  if (!validFlagset(flagset) || !knownFlag(flag)) return fail(EINVAL);
  flagset->bits |= flag;
  return 0;
}

int acl_delete_flag_np(acl_flagset_t flagset, acl_flag_t flag) {
  if (!validFlagset(flagset) || !knownFlag(flag)) return fail(EINVAL);
  flagset->bits &= ~flag;
  return 0;
}

int acl_get_flag_np(acl_flagset_t flagset, acl_flag_t flag) {
  if (!validFlagset(flagset) || !knownFlag(flag)) return fail(EINVAL);
  return (flagset->bits & flag) == flag ? 1 : 0;
}

int acl_free(void* obj) {
  std::optional<AclObjectKind> kind = AclRegistry::take(obj);
  if (!kind) return fail(EINVAL);
  if (*kind == AclObjectKind::Acl) {
    delete static_cast<Acl*>(obj);
  } else {
    delete[] static_cast<unsigned char*>(obj);
  }
  if (int error = AclRegistry::injectedFreeError(*kind)) return fail(error);
  return 0;
}

}  // namespace qx::xacl
