#include "client/cli/Identity.h"

#include <charconv>

#include "client/cli/UsageError.h"
#include "platform/membership/IdentityNames.h"
#include "platform/membership/IdentityUuid.h"

namespace qxcli {

namespace {

std::optional<uint32_t> numberIn(std::string_view text) {
  uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

qx::UuidPtr uuidFor(Identity::Kind kind, uint32_t id) {
  uuid_t bytes;
  if (kind == Identity::Kind::User) {
    qx::IdentityUuid::forUser(id, bytes);
  } else {
    qx::IdentityUuid::forGroup(id, bytes);
  }
  return qx::Uuid::withBytes(bytes);
}

const char* kindName(Identity::Kind kind) {
  switch (kind) {
    case Identity::Kind::User:
      return "user";
    case Identity::Kind::Group:
      return "group";
    case Identity::Kind::Other:
      break;
  }
  return "unknown";
}

// The id that `value` (a name or a number) stands for as a user or a group.
uint32_t idNamed(Identity::Kind kind, std::string_view value) {
  if (auto number = numberIn(value)) return *number;
  if (kind == Identity::Kind::User) {
    if (auto user = qx::IdentityNames::userNamed(value)) return user->uid;
    throw UsageError("unknown user \"" + std::string(value) + "\"");
  }
  if (auto gid = qx::IdentityNames::groupNamed(value)) return *gid;
  throw UsageError("unknown group \"" + std::string(value) + "\"");
}

}  // namespace

Identity Identity::fromUuid(const qx::UuidPtr& uuid) {
  Identity identity;
  identity.uuid_ = uuid;
  if (!uuid) return identity;
  auto decoded = qx::IdentityUuid::decode(uuid->bytes().data());
  if (!decoded) return identity;
  identity.id_ = decoded->id;
  if (decoded->type == qx::ID_TYPE_UID) {
    identity.kind_ = Kind::User;
    identity.name_ = qx::IdentityNames::userName(decoded->id).value_or("");
  } else {
    identity.kind_ = Kind::Group;
    identity.name_ = qx::IdentityNames::groupName(decoded->id).value_or("");
  }
  return identity;
}

Identity Identity::fromRecord(const qxfile::Identity& record) {
  return fromUuid(record.kind == qxfile::Identity::Kind::Everyone
                      ? nullptr
                      : qx::Uuid::withString(record.uuid));
}

qxfile::Identity Identity::record() const {
  using K = qxfile::Identity::Kind;
  if (!uuid_) return {K::Everyone, 0, "", ""};
  K kind = kind_ == Kind::User ? K::User : kind_ == Kind::Group ? K::Group : K::Other;
  return {kind, id_, name_, uuid_->UUIDString()};
}

Identity Identity::parse(std::string_view text, Kind bareKind) {
  Kind kind = bareKind;
  std::string_view value = text;
  if (auto colon = text.find(':'); colon != std::string_view::npos) {
    std::string_view prefix = text.substr(0, colon);
    value = text.substr(colon + 1);
    if (prefix == "user" || prefix == "u") {
      kind = Kind::User;
    } else if (prefix == "group" || prefix == "g") {
      kind = Kind::Group;
    } else if (prefix == "uid" || prefix == "gid") {
      auto number = numberIn(value);
      if (!number)
        throw UsageError("\"" + std::string(text) + "\": " + std::string(prefix) +
                         " takes a number");
      return fromUuid(uuidFor(prefix == "uid" ? Kind::User : Kind::Group, *number));
    } else {
      throw UsageError("\"" + std::string(text) +
                       "\" is not an identity: use user:NAME, group:NAME, uid:N or gid:N");
    }
  }
  if (value.empty()) throw UsageError("\"" + std::string(text) + "\" names nobody");
  if (auto uuid = qx::Uuid::withString(value)) {
    Identity identity = fromUuid(uuid);
    if (text.find(':') != std::string_view::npos && identity.kind_ != kind) {
      throw UsageError("\"" + std::string(text) + "\" is not the UUID of a " + kindName(kind));
    }
    return identity;
  }
  if (kind == Kind::Other) throw UsageError("\"" + std::string(text) + "\" is not a UUID");
  return fromUuid(uuidFor(kind, idNamed(kind, value)));
}

std::string Identity::label() const {
  std::string uuidText = uuid_ ? uuid_->UUIDString() : "nobody";
  if (kind_ == Kind::Other) return uuidText;
  return std::string(kindName(kind_)) + ":" + (name_.empty() ? uuidText : name_);
}

nlohmann::ordered_json Identity::toJson() const {
  nlohmann::ordered_json json;
  json["kind"] = kindName(kind_);
  json["id"] = kind_ == Kind::Other ? nlohmann::ordered_json() : nlohmann::ordered_json(id_);
  json["name"] = name_.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(name_);
  json["uuid"] = uuid_ ? nlohmann::ordered_json(uuid_->UUIDString()) : nlohmann::ordered_json();
  return json;
}

}  // namespace qxcli
