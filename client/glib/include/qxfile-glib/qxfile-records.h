#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * QxfileIdentityKind:
 * @QXFILE_IDENTITY_KIND_USER: a user, by uid
 * @QXFILE_IDENTITY_KIND_GROUP: a group, by gid
 * @QXFILE_IDENTITY_KIND_EVERYONE: everyone
 * @QXFILE_IDENTITY_KIND_OTHER: an identity that stands for no user or group
 *
 * Whom an ACL entry concerns.
 */
typedef enum {
  QXFILE_IDENTITY_KIND_USER,
  QXFILE_IDENTITY_KIND_GROUP,
  QXFILE_IDENTITY_KIND_EVERYONE,
  QXFILE_IDENTITY_KIND_OTHER,
} QxfileIdentityKind;

/**
 * qxfile_identity_kind_get_type:
 *
 * Returns: the #GType of #QxfileIdentityKind
 */
GType qxfile_identity_kind_get_type(void);
#define QXFILE_TYPE_IDENTITY_KIND (qxfile_identity_kind_get_type())

/**
 * QxfileSizeUpdate:
 *
 * A running or final total of a size calculation.
 */
typedef struct _QxfileSizeUpdate QxfileSizeUpdate;
#define QXFILE_TYPE_SIZE_UPDATE (qxfile_size_update_get_type())
/**
 * qxfile_size_update_get_type:
 *
 * Returns: the #GType of #QxfileSizeUpdate
 */
GType qxfile_size_update_get_type(void);
/**
 * qxfile_size_update_copy:
 * @update: an update
 *
 * Returns: (transfer full): a copy of @update
 */
QxfileSizeUpdate* qxfile_size_update_copy(const QxfileSizeUpdate* update);
/**
 * qxfile_size_update_free:
 * @update: an update
 *
 * Frees @update.
 */
void qxfile_size_update_free(QxfileSizeUpdate* update);
/**
 * qxfile_size_update_get_index_path:
 * @update: an update
 * @length: (out): the number of indexes
 *
 * The path from the total of everything asked for (empty) to the item, one index a level.
 *
 * Returns: (array length=length) (transfer none): the indexes
 */
const guint64* qxfile_size_update_get_index_path(const QxfileSizeUpdate* update, gsize* length);
/**
 * qxfile_size_update_get_size:
 * @update: an update
 *
 * Returns: the total in bytes so far, -1 when not known yet
 */
gint64 qxfile_size_update_get_size(const QxfileSizeUpdate* update);
/**
 * qxfile_size_update_get_busy:
 * @update: an update
 *
 * Returns: %TRUE while the total may still grow
 */
gboolean qxfile_size_update_get_busy(const QxfileSizeUpdate* update);

/**
 * QxfileAclEntry:
 *
 * One ACL entry: whom it concerns, whether it allows or denies, which rights.
 */
typedef struct _QxfileAclEntry QxfileAclEntry;
#define QXFILE_TYPE_ACL_ENTRY (qxfile_acl_entry_get_type())
/**
 * qxfile_acl_entry_get_type:
 *
 * Returns: the #GType of #QxfileAclEntry
 */
GType qxfile_acl_entry_get_type(void);
/**
 * qxfile_acl_entry_new:
 * @kind: a user or a group
 * @id: the uid or gid
 * @deny: %TRUE to deny the rights, %FALSE to allow them
 * @rights: the permission bits
 * @inheritance: where a folder's entry applies beyond the folder (0 for a file)
 *
 * Returns: (transfer full): a new entry
 */
QxfileAclEntry* qxfile_acl_entry_new(QxfileIdentityKind kind, guint32 id, gboolean deny,
                                     guint32 rights, guint32 inheritance);
/**
 * qxfile_acl_entry_copy:
 * @entry: an entry
 *
 * Returns: (transfer full): a copy of @entry
 */
QxfileAclEntry* qxfile_acl_entry_copy(const QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_free:
 * @entry: an entry
 *
 * Frees @entry.
 */
void qxfile_acl_entry_free(QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_get_identity_kind:
 * @entry: an entry
 *
 * Returns: whom the entry concerns
 */
QxfileIdentityKind qxfile_acl_entry_get_identity_kind(const QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_get_identity_id:
 * @entry: an entry
 *
 * Returns: the uid or gid
 */
guint32 qxfile_acl_entry_get_identity_id(const QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_get_identity_name:
 * @entry: an entry
 *
 * Returns: the user's or group's name, empty when unknown
 */
const char* qxfile_acl_entry_get_identity_name(const QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_get_deny:
 * @entry: an entry
 *
 * Returns: %TRUE when the entry denies its rights
 */
gboolean qxfile_acl_entry_get_deny(const QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_get_inherited:
 * @entry: an entry
 *
 * Returns: %TRUE when the entry was inherited from a folder above
 */
gboolean qxfile_acl_entry_get_inherited(const QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_get_rights:
 * @entry: an entry
 *
 * Returns: the permission bits
 */
guint32 qxfile_acl_entry_get_rights(const QxfileAclEntry* entry);
/**
 * qxfile_acl_entry_get_inheritance:
 * @entry: an entry
 *
 * Returns: the inheritance bits
 */
guint32 qxfile_acl_entry_get_inheritance(const QxfileAclEntry* entry);

/**
 * QxfileAclListing:
 *
 * An item's ACL entries, owner, group and mode, as read or to be written.
 */
typedef struct _QxfileAclListing QxfileAclListing;
#define QXFILE_TYPE_ACL_LISTING (qxfile_acl_listing_get_type())
/**
 * qxfile_acl_listing_get_type:
 *
 * Returns: the #GType of #QxfileAclListing
 */
GType qxfile_acl_listing_get_type(void);
/**
 * qxfile_acl_listing_copy:
 * @listing: a listing
 *
 * Returns: (transfer full): a copy of @listing
 */
QxfileAclListing* qxfile_acl_listing_copy(const QxfileAclListing* listing);
/**
 * qxfile_acl_listing_free:
 * @listing: a listing
 *
 * Frees @listing.
 */
void qxfile_acl_listing_free(QxfileAclListing* listing);
/**
 * qxfile_acl_listing_get_folder:
 * @listing: a listing
 *
 * Returns: %TRUE when the item is a folder
 */
gboolean qxfile_acl_listing_get_folder(const QxfileAclListing* listing);
/**
 * qxfile_acl_listing_get_mode:
 * @listing: a listing
 *
 * Returns: the nine permission bits of owner, group and others
 */
guint qxfile_acl_listing_get_mode(const QxfileAclListing* listing);
/**
 * qxfile_acl_listing_set_mode:
 * @listing: a listing
 * @mode: the nine permission bits to write
 *
 * Sets the permission bits of owner, group and others.
 */
void qxfile_acl_listing_set_mode(QxfileAclListing* listing, guint mode);
/**
 * qxfile_acl_listing_get_owner_id:
 * @listing: a listing
 *
 * Returns: the owner's uid
 */
guint32 qxfile_acl_listing_get_owner_id(const QxfileAclListing* listing);
/**
 * qxfile_acl_listing_get_group_id:
 * @listing: a listing
 *
 * Returns: the owning group's gid
 */
guint32 qxfile_acl_listing_get_group_id(const QxfileAclListing* listing);
/**
 * qxfile_acl_listing_get_entries:
 * @listing: a listing
 *
 * Returns: (transfer container) (element-type QxfileAclEntry): the ACL entries, in order
 */
GPtrArray* qxfile_acl_listing_get_entries(const QxfileAclListing* listing);
/**
 * qxfile_acl_listing_insert_entry:
 * @listing: a listing
 * @entry: the entry to insert (copied)
 * @position: where, or -1 for the end
 *
 * Inserts a copy of @entry into the ACL.
 */
void qxfile_acl_listing_insert_entry(QxfileAclListing* listing, const QxfileAclEntry* entry,
                                     gint position);
/**
 * qxfile_acl_listing_remove_entry:
 * @listing: a listing
 * @position: the entry's position
 *
 * Removes an ACL entry; nothing happens for a position past the end.
 */
void qxfile_acl_listing_remove_entry(QxfileAclListing* listing, guint position);

/**
 * QxfileFileRef:
 *
 * An item found by a listing, by its identity on its volume and the path it was found at.
 */
typedef struct _QxfileFileRef QxfileFileRef;
#define QXFILE_TYPE_FILE_REF (qxfile_file_ref_get_type())
/**
 * qxfile_file_ref_get_type:
 *
 * Returns: the #GType of #QxfileFileRef
 */
GType qxfile_file_ref_get_type(void);
/**
 * qxfile_file_ref_copy:
 * @ref: a reference
 *
 * Returns: (transfer full): a copy of @ref
 */
QxfileFileRef* qxfile_file_ref_copy(const QxfileFileRef* ref);
/**
 * qxfile_file_ref_free:
 * @ref: a reference
 *
 * Frees @ref.
 */
void qxfile_file_ref_free(QxfileFileRef* ref);
/**
 * qxfile_file_ref_get_level:
 * @ref: a reference
 *
 * Returns: the level of the listing it was found in: 0 for the folder asked for
 */
guint qxfile_file_ref_get_level(const QxfileFileRef* ref);
/**
 * qxfile_file_ref_get_inode:
 * @ref: a reference
 *
 * Returns: the item's inode number
 */
guint64 qxfile_file_ref_get_inode(const QxfileFileRef* ref);
/**
 * qxfile_file_ref_get_kept_path:
 * @ref: a reference
 *
 * Returns: (type filename): the path the item was found at
 */
const char* qxfile_file_ref_get_kept_path(const QxfileFileRef* ref);
/**
 * qxfile_file_ref_get_present_path:
 * @ref: a reference
 *
 * Returns: (transfer full) (type filename): where the item is now, empty when it is gone
 */
char* qxfile_file_ref_get_present_path(const QxfileFileRef* ref);

/**
 * QxfileRenameResult:
 *
 * What a batch rename did: the items renamed, in order, the names they had,
 * and the error that ended the batch before its last item, if one did.
 */
typedef struct _QxfileRenameResult QxfileRenameResult;
#define QXFILE_TYPE_RENAME_RESULT (qxfile_rename_result_get_type())
/**
 * qxfile_rename_result_get_type:
 *
 * Returns: the #GType of #QxfileRenameResult
 */
GType qxfile_rename_result_get_type(void);
/**
 * qxfile_rename_result_copy:
 * @result: a rename result
 *
 * Returns: (transfer full): a copy of @result
 */
QxfileRenameResult* qxfile_rename_result_copy(const QxfileRenameResult* result);
/**
 * qxfile_rename_result_free:
 * @result: a rename result
 *
 * Frees @result.
 */
void qxfile_rename_result_free(QxfileRenameResult* result);
/**
 * qxfile_rename_result_get_renamed:
 * @result: a rename result
 *
 * Returns: (array zero-terminated=1) (transfer full) (element-type filename): the new paths of
 * the items renamed
 */
char** qxfile_rename_result_get_renamed(const QxfileRenameResult* result);
/**
 * qxfile_rename_result_get_previous_names:
 * @result: a rename result
 *
 * Returns: (array zero-terminated=1) (transfer full): the names the renamed items had
 */
char** qxfile_rename_result_get_previous_names(const QxfileRenameResult* result);
/**
 * qxfile_rename_result_get_error:
 * @result: a rename result
 *
 * The items before the failing one stay renamed; none after it was tried.
 *
 * Returns: (nullable) (transfer none): the error that ended the batch, %NULL when every item was
 * renamed or the batch was stopped
 */
const GError* qxfile_rename_result_get_error(const QxfileRenameResult* result);

G_END_DECLS
