#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * QXFILE_ERROR:
 *
 * The error domain of the qxfile client. The code is the service's: an errno
 * value for errors of "NSPOSIXErrorDomain", the service's own code otherwise
 * (see qxfile_error_get_service_domain()).
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

G_END_DECLS
