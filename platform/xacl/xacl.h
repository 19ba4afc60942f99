#pragma once

// The extended ACL interface, by its platform names and meanings.
//
// An extended ACL is an ordered list of at most 128 allow/deny entries, each naming a user or
// group by UUID, a set of permission bits and a set of inheritance flags. Each item keeps two
// layers (see ItemAcl.h): the POSIX ACL that the kernel enforces, and the whole extended ACL
// in the extended attribute "user.qxfile.acl" of the item itself. Reading shows the stored ACL
// while it is what Linux enforces, else a translation of the POSIX ACL; writing sets both.
//
// Conventions, as on the platform: functions returning int give 0 on success and -1 with errno
// set on failure; functions returning a pointer give NULL with errno set on failure. Entries,
// permission sets and flag sets are handles into their ACL and stay valid until the ACL is
// released with acl_free. Each ACL is used by one thread at a time; different threads may use
// different ACLs freely.

#if defined(ACL_EXECUTE) || defined(ACL_FIRST_ENTRY) || defined(ACL_UNDEFINED_TAG)
#error "platform/xacl/xacl.h cannot be used together with <sys/acl.h>: both define ACL_ names"
#endif

#include <cstdint>

namespace qx::xacl {

class Acl;
struct AclState;
struct AclEntry;
struct AclPermset;
struct AclFlagset;

using acl_t = Acl*;
using acl_entry_t = AclEntry*;
using acl_permset_t = AclPermset*;
using acl_flagset_t = AclFlagset*;

using acl_type_t = int32_t;
using acl_tag_t = int32_t;
using acl_perm_t = uint32_t;
using acl_flag_t = uint32_t;

inline constexpr acl_type_t ACL_TYPE_EXTENDED = 0x100;

inline constexpr acl_tag_t ACL_UNDEFINED_TAG = 0;
inline constexpr acl_tag_t ACL_EXTENDED_ALLOW = 1;
inline constexpr acl_tag_t ACL_EXTENDED_DENY = 2;

// Entry ids for acl_get_entry; a non-negative id selects the entry at that index.
inline constexpr int ACL_FIRST_ENTRY = 0;
inline constexpr int ACL_NEXT_ENTRY = -1;
inline constexpr int ACL_LAST_ENTRY = -2;

inline constexpr int ACL_MAX_ENTRIES = 128;

// Permissions. Files and folders share bits under different names.
inline constexpr acl_perm_t ACL_READ_DATA = 0x2;
inline constexpr acl_perm_t ACL_LIST_DIRECTORY = 0x2;
inline constexpr acl_perm_t ACL_WRITE_DATA = 0x4;
inline constexpr acl_perm_t ACL_ADD_FILE = 0x4;
inline constexpr acl_perm_t ACL_EXECUTE = 0x8;
inline constexpr acl_perm_t ACL_SEARCH = 0x8;
inline constexpr acl_perm_t ACL_DELETE = 0x10;
inline constexpr acl_perm_t ACL_APPEND_DATA = 0x20;
inline constexpr acl_perm_t ACL_ADD_SUBDIRECTORY = 0x20;
inline constexpr acl_perm_t ACL_DELETE_CHILD = 0x40;
inline constexpr acl_perm_t ACL_READ_ATTRIBUTES = 0x80;
inline constexpr acl_perm_t ACL_WRITE_ATTRIBUTES = 0x100;
inline constexpr acl_perm_t ACL_READ_EXTATTRIBUTES = 0x200;
inline constexpr acl_perm_t ACL_WRITE_EXTATTRIBUTES = 0x400;
inline constexpr acl_perm_t ACL_READ_SECURITY = 0x800;
inline constexpr acl_perm_t ACL_WRITE_SECURITY = 0x1000;
inline constexpr acl_perm_t ACL_CHANGE_OWNER = 0x2000;
inline constexpr acl_perm_t ACL_PERM_MASK = 0x3ffe;  // every permission above

// Entry flags.
inline constexpr acl_flag_t ACL_ENTRY_INHERITED = 0x10;
inline constexpr acl_flag_t ACL_ENTRY_FILE_INHERIT = 0x20;
inline constexpr acl_flag_t ACL_ENTRY_DIRECTORY_INHERIT = 0x40;
inline constexpr acl_flag_t ACL_ENTRY_LIMIT_INHERIT = 0x80;
inline constexpr acl_flag_t ACL_ENTRY_ONLY_INHERIT = 0x100;
inline constexpr acl_flag_t ACL_ENTRY_FLAG_MASK = 0x1f0;  // every entry flag above

// The extended attribute that holds an item's ACL.
inline constexpr const char* kAclAttributeName = "user.qxfile.acl";

// A new ACL without entries, with room for `count` entries (a hint; ENOMEM above 128,
// EINVAL below 0).
acl_t acl_init(int count);

// Reads the ACL of the item at `path` itself, never a symbolic link's target: the stored ACL
// while it is current, else the translation of the item's POSIX ACL when it has named entries
// or a default ACL. No ACL (also on a link): NULL with ENOENT. A damaged attribute: NULL with
// EINVAL. `type` must be ACL_TYPE_EXTENDED. Never writes.
acl_t acl_get_link_np(const char* path, acl_type_t type);

// acl_get_link_np, also telling in `state` where the ACL shown comes from, whether a stored
// ACL is there but not in force, and the item's POSIX ACL, owner, group and mode bits. When
// there is no ACL, NULL with ENOENT and `state` filled all the same.
acl_t acl_get_link_state_np(const char* path, AclState* state);

// Replaces the item's whole ACL, never following a link: sets the POSIX ACL that enforces it
// (access, and on folders default), then stores it. An ACL without entries removes the named
// POSIX entries, the mask, the default ACL and the attribute (the mode stays; success when
// there is nothing to remove). A symbolic link (or any item other than a file or folder)
// accepts only an empty ACL; otherwise ENOTSUP, as on a file system without POSIX ACLs.
// Entries without an allow/deny tag or without a qualifier: EINVAL.
int acl_set_link_np(const char* path, acl_type_t type, acl_t acl);

// Iterates: ACL_FIRST_ENTRY, then ACL_NEXT_ENTRY; past the last entry (or in an empty ACL):
// -1 with EINVAL.
int acl_get_entry(acl_t acl, int entry_id, acl_entry_t* entry_p);

// Appends a new entry (undefined tag, no qualifier, no permissions, no flags). ENOMEM when the
// ACL already holds 128 entries. *acl_p is never changed: ACLs do not move.
int acl_create_entry(acl_t* acl_p, acl_entry_t* entry_p);

int acl_get_tag_type(acl_entry_t entry, acl_tag_t* tag_type_p);
// Only ACL_EXTENDED_ALLOW and ACL_EXTENDED_DENY are accepted.
int acl_set_tag_type(acl_entry_t entry, acl_tag_t tag_type);

// A new copy of the entry's 16-byte UUID, to be released with acl_free. EINVAL for an entry
// whose qualifier was never set.
void* acl_get_qualifier(acl_entry_t entry);
int acl_set_qualifier(acl_entry_t entry, const void* qualifier);

// The permission set of an entry is a handle into it: changing it changes the entry.
int acl_get_permset(acl_entry_t entry, acl_permset_t* permset_p);
// Copies the bits of `permset` (possibly another entry's) into the entry.
int acl_set_permset(acl_entry_t entry, acl_permset_t permset);
int acl_clear_perms(acl_permset_t permset);
// `perm` must be non-zero and made of known permission bits.
int acl_add_perm(acl_permset_t permset, acl_perm_t perm);
int acl_delete_perm(acl_permset_t permset, acl_perm_t perm);
// 1 when every bit of `perm` is set, 0 when not, -1 with EINVAL for an unknown permission.
int acl_get_perm_np(acl_permset_t permset, acl_perm_t perm);

// The flag set of an entry, likewise a handle into it.
int acl_get_flagset_np(acl_entry_t entry, acl_flagset_t* flagset_p);
int acl_set_flagset_np(acl_entry_t entry, acl_flagset_t flagset);
int acl_clear_flags_np(acl_flagset_t flagset);
// `flag` must be non-zero and made of known entry flags.
int acl_add_flag_np(acl_flagset_t flagset, acl_flag_t flag);
int acl_delete_flag_np(acl_flagset_t flagset, acl_flag_t flag);
// 1 when every bit of `flag` is set, 0 when not, -1 with EINVAL for an unknown flag.
int acl_get_flag_np(acl_flagset_t flagset, acl_flag_t flag);

// Releases an ACL (with its entries) or a qualifier from acl_get_qualifier. Anything else,
// NULL included, or a pointer released before: -1 with EINVAL, nothing touched.
int acl_free(void* obj);

}  // namespace qx::xacl
