#pragma once

#include "qxfile-glib/qxfile-error.h"
#include "qxfile/Records.h"

// Errors of the client library as GErrors of the QXFILE_ERROR domain.
class GErrorConversion {
 public:
  static GError* make(const qxfile::Error& error);
  // Keeps the details of `error` on the task, where bindings that copy
  // GErrors read them with qxfile_error_info_from_result().
  static void keepOn(GTask* task, const qxfile::Error& error);
};
