#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "platform/foundation/Uuid.h"
#include "qxfile/Records.h"

namespace qxcli {

// A user or a group, as the service names it (a UUID) and as a person names
// it (user:NAME, group:NAME).
class Identity {
 public:
  enum class Kind { User, Group, Other };

  // What the UUID stands for, with its name from the user and group database.
  static Identity fromUuid(const qx::UuidPtr& uuid);
  // The same, from the client library's record (everyone has no UUID).
  static Identity fromRecord(const qxfile::Identity& record);
  // The client library's record of this identity.
  qxfile::Identity record() const;
  // "user:NAME", "group:NAME", "user:N", "group:N", "uid:N", "gid:N", a UUID
  // (bare or after "user:"/"group:"), or a bare NAME or number taken as a
  // `bareKind`. Throws UsageError for a name that the database does not know.
  static Identity parse(std::string_view text, Kind bareKind);

  Kind kind() const { return kind_; }
  uint32_t id() const { return id_; }
  const std::string& name() const { return name_; }
  const qx::UuidPtr& uuid() const { return uuid_; }

  // "user:alice", "group:staff"; the UUID in place of an unknown name
  // ("user:FFFFEEEE-..."), a bare UUID when it stands for no user or group.
  std::string label() const;
  // {"kind", "id", "name", "uuid"}; id and name are null when unknown.
  nlohmann::ordered_json toJson() const;

 private:
  Kind kind_ = Kind::Other;
  uint32_t id_ = 0;
  std::string name_;
  qx::UuidPtr uuid_;
};

}  // namespace qxcli
