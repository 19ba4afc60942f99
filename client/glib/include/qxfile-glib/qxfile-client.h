#pragma once

#include <gio/gio.h>

#include "qxfile-glib/qxfile-records.h"

G_BEGIN_DECLS

#define QXFILE_TYPE_CLIENT (qxfile_client_get_type())
G_DECLARE_FINAL_TYPE(QxfileClient, qxfile_client, QXFILE, CLIENT, GObject)

/**
 * QxfileSizeProgress:
 * @updates: (element-type QxfileSizeUpdate): the totals that changed since the last report
 * @user_data: the data given with the callback
 *
 * Called on the caller's main context with each report of a size calculation.
 */
typedef void (*QxfileSizeProgress)(GPtrArray* updates, gpointer user_data);

/**
 * qxfile_client_new:
 *
 * Returns: (transfer full): a client, not yet connected
 */
QxfileClient* qxfile_client_new(void);

/**
 * qxfile_client_connect:
 * @self: a client
 * @error: return location for an error
 *
 * Reaches the per-user service, starting it when nothing answers.
 *
 * Returns: %TRUE when connected
 */
gboolean qxfile_client_connect(QxfileClient* self, GError** error);

/**
 * qxfile_client_get_sizes_async:
 * @self: a client
 * @paths: (array zero-terminated=1) (element-type filename): the items to total
 * @progress: (scope notified) (nullable) (closure progress_data): called with each report
 * @progress_data: data for @progress
 * @progress_notify: (nullable): frees @progress_data once no report will come
 * @cancellable: (nullable): stops the calculation at its next report; no report reaches @progress
 *   once it is cancelled
 * @callback: called on the caller's main context when the calculation has ended
 * @user_data: data for @callback
 *
 * Totals the sizes of the items and of every folder below them.
 */
void qxfile_client_get_sizes_async(QxfileClient* self, const char* const* paths,
                                   QxfileSizeProgress progress, gpointer progress_data,
                                   GDestroyNotify progress_notify, GCancellable* cancellable,
                                   GAsyncReadyCallback callback, gpointer user_data);
/**
 * qxfile_client_get_sizes_finish:
 * @self: a client
 * @result: the result given to the callback
 * @error: return location for an error; %G_IO_ERROR_CANCELLED when cancelled
 *
 * Returns: (transfer container) (element-type QxfileSizeUpdate): the last updates
 */
GPtrArray* qxfile_client_get_sizes_finish(QxfileClient* self, GAsyncResult* result, GError** error);

/**
 * qxfile_client_get_acl_async:
 * @self: a client
 * @path: (type filename): the item
 * @cancellable: (nullable): a cancellable
 * @callback: called on the caller's main context with the answer
 * @user_data: data for @callback
 *
 * Reads the item's ACL entries, owner, group and mode.
 */
void qxfile_client_get_acl_async(QxfileClient* self, const char* path, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data);
/**
 * qxfile_client_get_acl_finish:
 * @self: a client
 * @result: the result given to the callback
 * @error: return location for an error
 *
 * Returns: (transfer full): the item's listing
 */
QxfileAclListing* qxfile_client_get_acl_finish(QxfileClient* self, GAsyncResult* result,
                                               GError** error);

/**
 * qxfile_client_set_acl_async:
 * @self: a client
 * @path: (type filename): the item
 * @listing: the ACL entries, owner, group and mode to write
 * @cancellable: (nullable): a cancellable
 * @callback: called on the caller's main context with the answer
 * @user_data: data for @callback
 *
 * Writes a listing to the item.
 */
void qxfile_client_set_acl_async(QxfileClient* self, const char* path,
                                 const QxfileAclListing* listing, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data);
/**
 * qxfile_client_set_acl_finish:
 * @self: a client
 * @result: the result given to the callback
 * @error: return location for an error
 *
 * Returns: %TRUE when written
 */
gboolean qxfile_client_set_acl_finish(QxfileClient* self, GAsyncResult* result, GError** error);

/**
 * qxfile_client_list_contents_async:
 * @self: a client
 * @path: (type filename): the folder
 * @index_path: (array length=index_length) (nullable): positions of the folders to follow
 * @index_length: the number of positions
 * @cancellable: (nullable): a cancellable
 * @callback: called on the caller's main context with the answer
 * @user_data: data for @callback
 *
 * Lists the folder and, following @index_path, the folders below it.
 */
void qxfile_client_list_contents_async(QxfileClient* self, const char* path,
                                       const guint64* index_path, gsize index_length,
                                       GCancellable* cancellable, GAsyncReadyCallback callback,
                                       gpointer user_data);
/**
 * qxfile_client_list_contents_finish:
 * @self: a client
 * @result: the result given to the callback
 * @error: return location for an error
 *
 * Returns: (transfer container) (element-type QxfileFileRef): the items of every level, in order
 */
GPtrArray* qxfile_client_list_contents_finish(QxfileClient* self, GAsyncResult* result,
                                              GError** error);

/**
 * qxfile_client_rename_async:
 * @self: a client
 * @paths: (array zero-terminated=1) (element-type filename): the items
 * @names: (array zero-terminated=1): the new name of each item
 * @cancellable: (nullable): stops the batch at the service's next question
 * @callback: called on the caller's main context when the batch has ended
 * @user_data: data for @callback
 *
 * Renames each item to the name at the same position.
 */
void qxfile_client_rename_async(QxfileClient* self, const char* const* paths,
                                const char* const* names, GCancellable* cancellable,
                                GAsyncReadyCallback callback, gpointer user_data);
/**
 * qxfile_client_rename_finish:
 * @self: a client
 * @result: the result given to the callback
 *
 * Gives what the batch did, also when it failed partway: the items renamed
 * before the failure and the error (see qxfile_rename_result_get_error()).
 *
 * Returns: (transfer full): the batch's result
 */
QxfileRenameResult* qxfile_client_rename_finish(QxfileClient* self, GAsyncResult* result);

G_END_DECLS
