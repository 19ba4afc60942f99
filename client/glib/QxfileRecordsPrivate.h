#pragma once

#include "qxfile-glib/qxfile-error.h"
#include "qxfile-glib/qxfile-records.h"
#include "qxfile/Records.h"

// The boxed records hold the C++ records of the client library.
struct _QxfileSizeUpdate {
  qxfile::SizeUpdate value;
};
struct _QxfileAclEntry {
  qxfile::AclEntry value;
};
struct _QxfileAclListing {
  qxfile::AclListing value;
};
struct _QxfileFileRef {
  qxfile::FileRef value;
  guint level;
};
struct _QxfileErrorInfo {
  qxfile::Error value;
};
struct _QxfileRenameResult {
  qxfile::RenameResult value;
  GError* error;  // owned; nullptr when the batch did not fail
};
