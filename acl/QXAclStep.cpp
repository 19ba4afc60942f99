#include "acl/QXAclStep.h"

#include "model/QXOperation.h"

qx::ErrorPtr QXAclStep::error(int errnum, std::string_view format, const std::string& path) {
  return QXOperation::errorWithErrno(errnum, QXOperation::stepDescription(format, path),
                                     path.c_str());
}
