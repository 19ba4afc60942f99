#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/cli/Output.h"
#include "platform/foundation/Uuid.h"
#include "platform/xacl/EnforcementReport.h"
#include "platform/xacl/ItemAcl.h"

namespace qxcli {

// What Linux enforces on an item, read here: the command line runs on the item's machine.
class LinuxView {
 public:
  struct Item {
    bool readable = false;
    qx::xacl::AclState state;
    // Per ACL entry shown, the rights Linux cannot enforce exactly and for whom.
    std::vector<std::vector<qx::xacl::EnforcementReport::Unenforced>> report;
  };

  static Item read(const std::string& path);

  // "current", "not in force" or "none".
  static const char* stored(const Item& item);
  // getfacl's words for the access ACL and, prefixed "default:" when asked, the default ACL.
  static std::vector<std::string> access(const Item& item);
  static std::vector<std::string> defaults(const Item& item, bool prefixed);
  // The permission table's name of `right` for the item's kind.
  static std::string rightName(uint32_t right, bool folder);
  // {"exact": ..., "unenforced": [{"right", "for"}]} for entry `index`.
  static Output::Json entryJson(const Item& item, std::size_t index);
  // "Delete (no POSIX bit), Read Data (owning group)"; empty when exact.
  static std::string entryText(const Item& item, std::size_t index);

  // Whether the kernel's answer for `identity` and `right` on the item is `granted`: the
  // right has a POSIX bit, and the POSIX ACL grants the bit exactly when qxfile grants it.
  static bool enforced(const Item& item, const qx::UuidPtr& identity, uint32_t right, bool granted);
};

}  // namespace qxcli
