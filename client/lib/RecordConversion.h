#pragma once

#include <optional>

#include "model/QXAclEntry.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/Uuid.h"
#include "qxfile/Records.h"

namespace qxfile {

// The typed records to and from the objects the service speaks in. A reading
// that finds an array of the wrong shape answers nullopt.
class RecordConversion {
 public:
  static std::optional<Error> error(const qx::ErrorPtr& error);
  static Error malformed(const char* what);

  static Identity identity(const qx::UuidPtr& uuid);
  static qx::UuidPtr uuid(const Identity& identity);

  // "ACL", the ACL entries, "POSIX", owner, group, everyone.
  static std::optional<AclListing> listing(const qx::ArrayPtr& entries);
  static qx::ArrayPtr entries(const AclListing& listing);
  static std::optional<EffectiveAccess> access(const qx::ArrayPtr& groups);
  // Dictionaries of "QXIndexPath" and "QXFileSizeItem".
  static std::optional<std::vector<SizeUpdate>> sizes(const qx::ArrayPtr& batch);
  // One array of file reference URLs a level.
  static std::optional<std::vector<std::vector<FileRef>>> levels(const qx::ArrayPtr& levels);
  static RenameResult renamed(const qx::ArrayPtr& urls, const qx::ArrayPtr& names);
};

}  // namespace qxfile
