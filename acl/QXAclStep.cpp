#include "acl/QXAclStep.h"

#include "model/QXOperation.h"

std::string QXAclStep::message(std::string_view format, const std::string& path) {
  std::string text(format);
  if (auto at = text.find("%s"); at != std::string::npos) text.replace(at, 2, path);
  return text;
}

qx::ErrorPtr QXAclStep::error(int errnum, std::string_view format, const std::string& path) {
  return QXOperation::errorWithErrno(errnum, message(format, path), path.c_str());
}
