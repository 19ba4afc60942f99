#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * QXFILE_ERROR:
 *
 * The error domain of the qxfile client. The code is the service's: an errno
 * value for errors of "NSPOSIXErrorDomain", the service's own code otherwise
 * (see qxfile_error_get_service_domain()). Its message is the service's
 * description; the recovery suggestion and path travel with it in C, and, for
 * language bindings that copy errors, on the call's result (see
 * qxfile_error_info_from_result()).
 */
#define QXFILE_ERROR (qxfile_error_quark())

/**
 * QxfileError:
 * @QXFILE_ERROR_PERMISSION: the operation is not permitted (EPERM)
 * @QXFILE_ERROR_NOT_FOUND: no such file or folder (ENOENT)
 * @QXFILE_ERROR_ACCESS: permission denied (EACCES)
 * @QXFILE_ERROR_NOT_A_FOLDER: a folder was needed (ENOTDIR)
 * @QXFILE_ERROR_INVALID: an argument the service refuses (EINVAL)
 * @QXFILE_ERROR_CANCELLED: stopped on request (ECANCELED)
 * @QXFILE_ERROR_NOT_CONNECTED: the service cannot be reached or went away
 * @QXFILE_ERROR_CORRUPT: the service's answer is malformed
 *
 * The commonest codes of the %QXFILE_ERROR domain; other errno values and
 * service codes come as they are.
 */
typedef enum {
  QXFILE_ERROR_PERMISSION = 1,
  QXFILE_ERROR_NOT_FOUND = 2,
  QXFILE_ERROR_ACCESS = 13,
  QXFILE_ERROR_NOT_A_FOLDER = 20,
  QXFILE_ERROR_INVALID = 22,
  QXFILE_ERROR_CANCELLED = 125,
  QXFILE_ERROR_NOT_CONNECTED = 4099,
  QXFILE_ERROR_CORRUPT = 4864,
} QxfileError;

/**
 * qxfile_error_quark:
 *
 * Returns: the quark of the %QXFILE_ERROR domain
 */
GQuark qxfile_error_quark(void);

/**
 * qxfile_error_get_recovery_suggestion:
 * @error: an error of the %QXFILE_ERROR domain
 *
 * Language bindings that copy errors lose this detail: they read it with
 * qxfile_error_info_from_result().
 *
 * Returns: (nullable): what the person may do about @error, or %NULL
 */
const char* qxfile_error_get_recovery_suggestion(const GError* error);

/**
 * qxfile_error_get_service_domain:
 * @error: an error of the %QXFILE_ERROR domain
 *
 * Returns: (nullable): the domain the service gave @error, such as "NSPOSIXErrorDomain"
 */
const char* qxfile_error_get_service_domain(const GError* error);

/**
 * qxfile_error_get_path:
 * @error: an error of the %QXFILE_ERROR domain
 *
 * Returns: (nullable) (type filename): the item @error concerns, or %NULL
 */
const char* qxfile_error_get_path(const GError* error);

/**
 * QxfileErrorInfo:
 *
 * The details of an error of the %QXFILE_ERROR domain, as a record that
 * language bindings keep: its code, description, recovery suggestion and path.
 */
typedef struct _QxfileErrorInfo QxfileErrorInfo;
#define QXFILE_TYPE_ERROR_INFO (qxfile_error_info_get_type())
/**
 * qxfile_error_info_get_type:
 *
 * Returns: the #GType of #QxfileErrorInfo
 */
GType qxfile_error_info_get_type(void);
/**
 * qxfile_error_info_from_result:
 * @result: the result an asynchronous call of #QxfileClient gave its callback
 *
 * The details of the error the call ended with, whether or not its finish
 * function has been called.
 *
 * Returns: (transfer full) (nullable): the details, or %NULL when the service or
 * the connection reported no error
 */
QxfileErrorInfo* qxfile_error_info_from_result(GAsyncResult* result);
/**
 * qxfile_error_info_copy:
 * @info: the details of an error
 *
 * Returns: (transfer full): a copy of @info
 */
QxfileErrorInfo* qxfile_error_info_copy(const QxfileErrorInfo* info);
/**
 * qxfile_error_info_free:
 * @info: the details of an error
 *
 * Frees @info.
 */
void qxfile_error_info_free(QxfileErrorInfo* info);
/**
 * qxfile_error_info_get_code:
 * @info: the details of an error
 *
 * Returns: the code, as in the #GError: a #QxfileError or another service code
 */
gint qxfile_error_info_get_code(const QxfileErrorInfo* info);
/**
 * qxfile_error_info_get_service_domain:
 * @info: the details of an error
 *
 * Returns: the domain the service gave the error, such as "NSPOSIXErrorDomain"
 */
const char* qxfile_error_info_get_service_domain(const QxfileErrorInfo* info);
/**
 * qxfile_error_info_get_description:
 * @info: the details of an error
 *
 * Returns: the sentence for a person, the #GError's message
 */
const char* qxfile_error_info_get_description(const QxfileErrorInfo* info);
/**
 * qxfile_error_info_get_recovery_suggestion:
 * @info: the details of an error
 *
 * Returns: (nullable): what the person may do about the error, or %NULL
 */
const char* qxfile_error_info_get_recovery_suggestion(const QxfileErrorInfo* info);
/**
 * qxfile_error_info_get_path:
 * @info: the details of an error
 *
 * Returns: (nullable) (type filename): the item the error concerns, or %NULL
 */
const char* qxfile_error_info_get_path(const QxfileErrorInfo* info);

G_END_DECLS
