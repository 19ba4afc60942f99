#include "client/glib/QxfileRecordsPrivate.h"

namespace {

template <class T>
T* copyOf(const T* record) {
  return new T(*record);
}

template <class Strings>
char** strvOf(const Strings& strings) {
  GStrvBuilder* builder = g_strv_builder_new();
  for (const auto& text : strings) g_strv_builder_add(builder, text.c_str());
  char** strv = g_strv_builder_end(builder);
  g_strv_builder_unref(builder);
  return strv;
}

template <class T>
void destroy(T* record) {
  delete record;
}

}  // namespace

extern "C" {

GType qxfile_identity_kind_get_type(void) {
  static gsize type = 0;
  if (g_once_init_enter(&type)) {
    static const GEnumValue values[] = {
        {QXFILE_IDENTITY_KIND_USER, "QXFILE_IDENTITY_KIND_USER", "user"},
        {QXFILE_IDENTITY_KIND_GROUP, "QXFILE_IDENTITY_KIND_GROUP", "group"},
        {QXFILE_IDENTITY_KIND_EVERYONE, "QXFILE_IDENTITY_KIND_EVERYONE", "everyone"},
        {QXFILE_IDENTITY_KIND_OTHER, "QXFILE_IDENTITY_KIND_OTHER", "other"},
        {0, nullptr, nullptr}};
    g_once_init_leave(&type, g_enum_register_static("QxfileIdentityKind", values));
  }
  return type;
}

G_DEFINE_BOXED_TYPE(QxfileSizeUpdate, qxfile_size_update, qxfile_size_update_copy,
                    qxfile_size_update_free)
G_DEFINE_BOXED_TYPE(QxfileAclEntry, qxfile_acl_entry, qxfile_acl_entry_copy, qxfile_acl_entry_free)
G_DEFINE_BOXED_TYPE(QxfileAclListing, qxfile_acl_listing, qxfile_acl_listing_copy,
                    qxfile_acl_listing_free)
G_DEFINE_BOXED_TYPE(QxfileFileRef, qxfile_file_ref, qxfile_file_ref_copy, qxfile_file_ref_free)
G_DEFINE_BOXED_TYPE(QxfileRenameResult, qxfile_rename_result, qxfile_rename_result_copy,
                    qxfile_rename_result_free)

QxfileSizeUpdate* qxfile_size_update_copy(const QxfileSizeUpdate* update) {
  return copyOf(update);
}
void qxfile_size_update_free(QxfileSizeUpdate* update) {
  destroy(update);
}
const guint64* qxfile_size_update_get_index_path(const QxfileSizeUpdate* update, gsize* length) {
  *length = update->value.indexPath.size();
  return update->value.indexPath.data();
}
gint64 qxfile_size_update_get_size(const QxfileSizeUpdate* update) {
  return update->value.size;
}
gboolean qxfile_size_update_get_busy(const QxfileSizeUpdate* update) {
  return update->value.busy;
}

QxfileAclEntry* qxfile_acl_entry_new(QxfileIdentityKind kind, guint32 id, gboolean deny,
                                     guint32 rights, guint32 inheritance) {
  qxfile::Identity identity =
      kind == QXFILE_IDENTITY_KIND_GROUP ? qxfile::Identity::group(id) : qxfile::Identity::user(id);
  return new QxfileAclEntry{{identity, deny != FALSE, false, rights, inheritance}};
}
QxfileAclEntry* qxfile_acl_entry_copy(const QxfileAclEntry* entry) {
  return copyOf(entry);
}
void qxfile_acl_entry_free(QxfileAclEntry* entry) {
  destroy(entry);
}
QxfileIdentityKind qxfile_acl_entry_get_identity_kind(const QxfileAclEntry* entry) {
  return static_cast<QxfileIdentityKind>(entry->value.identity.kind);
}
guint32 qxfile_acl_entry_get_identity_id(const QxfileAclEntry* entry) {
  return entry->value.identity.id;
}
const char* qxfile_acl_entry_get_identity_name(const QxfileAclEntry* entry) {
  return entry->value.identity.name.c_str();
}
gboolean qxfile_acl_entry_get_deny(const QxfileAclEntry* entry) {
  return entry->value.deny;
}
gboolean qxfile_acl_entry_get_inherited(const QxfileAclEntry* entry) {
  return entry->value.inherited;
}
guint32 qxfile_acl_entry_get_rights(const QxfileAclEntry* entry) {
  return entry->value.rights;
}
guint32 qxfile_acl_entry_get_inheritance(const QxfileAclEntry* entry) {
  return entry->value.inheritance;
}

QxfileAclListing* qxfile_acl_listing_copy(const QxfileAclListing* listing) {
  return copyOf(listing);
}
void qxfile_acl_listing_free(QxfileAclListing* listing) {
  destroy(listing);
}
gboolean qxfile_acl_listing_get_folder(const QxfileAclListing* listing) {
  return listing->value.folder;
}
guint qxfile_acl_listing_get_mode(const QxfileAclListing* listing) {
  return listing->value.mode();
}
void qxfile_acl_listing_set_mode(QxfileAclListing* listing, guint mode) {
  listing->value.owner.bits = mode >> 6 & 7;
  listing->value.group.bits = mode >> 3 & 7;
  listing->value.everyone.bits = mode & 7;
}
guint32 qxfile_acl_listing_get_owner_id(const QxfileAclListing* listing) {
  return listing->value.owner.identity.id;
}
guint32 qxfile_acl_listing_get_group_id(const QxfileAclListing* listing) {
  return listing->value.group.identity.id;
}
GPtrArray* qxfile_acl_listing_get_entries(const QxfileAclListing* listing) {
  GPtrArray* entries =
      g_ptr_array_new_with_free_func(reinterpret_cast<GDestroyNotify>(qxfile_acl_entry_free));
  for (const auto& entry : listing->value.acl) g_ptr_array_add(entries, new QxfileAclEntry{entry});
  return entries;
}
void qxfile_acl_listing_insert_entry(QxfileAclListing* listing, const QxfileAclEntry* entry,
                                     gint position) {
  auto& acl = listing->value.acl;
  auto at = position < 0 || static_cast<std::size_t>(position) > acl.size()
                ? acl.end()
                : acl.begin() + position;
  acl.insert(at, entry->value);
}
void qxfile_acl_listing_remove_entry(QxfileAclListing* listing, guint position) {
  auto& acl = listing->value.acl;
  if (position < acl.size()) acl.erase(acl.begin() + position);
}

QxfileFileRef* qxfile_file_ref_copy(const QxfileFileRef* ref) {
  return copyOf(ref);
}
void qxfile_file_ref_free(QxfileFileRef* ref) {
  destroy(ref);
}
guint qxfile_file_ref_get_level(const QxfileFileRef* ref) {
  return ref->level;
}
guint64 qxfile_file_ref_get_inode(const QxfileFileRef* ref) {
  return ref->value.inode;
}
const char* qxfile_file_ref_get_kept_path(const QxfileFileRef* ref) {
  return ref->value.keptPath.c_str();
}
char* qxfile_file_ref_get_present_path(const QxfileFileRef* ref) {
  return g_strdup(ref->value.presentPath().c_str());
}

QxfileRenameResult* qxfile_rename_result_copy(const QxfileRenameResult* result) {
  return new QxfileRenameResult{result->value,
                                result->error ? g_error_copy(result->error) : nullptr};
}
void qxfile_rename_result_free(QxfileRenameResult* result) {
  g_clear_error(&result->error);
  delete result;
}
char** qxfile_rename_result_get_renamed(const QxfileRenameResult* result) {
  return strvOf(result->value.renamed);
}
char** qxfile_rename_result_get_previous_names(const QxfileRenameResult* result) {
  return strvOf(result->value.previousNames);
}
const GError* qxfile_rename_result_get_error(const QxfileRenameResult* result) {
  return result->error;
}

}  // extern "C"
