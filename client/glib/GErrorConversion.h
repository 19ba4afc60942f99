#pragma once

#include "qxfile-glib/qxfile-error.h"
#include "qxfile/Records.h"

// Errors of the client library as GErrors of the QXFILE_ERROR domain.
class GErrorConversion {
 public:
  static GError* make(const qxfile::Error& error);
};
