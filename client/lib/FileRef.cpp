#include "platform/foundation/FileReferenceUrl.h"
#include "qxfile/Records.h"

namespace qxfile {

std::filesystem::path FileRef::presentPath() const {
  return qx::FileReferenceUrl(device, inode, keptPath.string()).path();
}

}  // namespace qxfile
