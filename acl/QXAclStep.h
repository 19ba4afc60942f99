#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/Error.h"

// The sentences that name a failing step of the ACL operations, and the
// titles under which an operation wraps its first failure. "%s" stands for
// the item's path.
namespace QXAclMessage {
inline constexpr const char* kAcl =
    "Couldn't retrieve file Acces Control List for file at path \"%s\".";
inline constexpr const char* kEntry =
    "Couldn't retrieve file Acces Control List entry for file at path \"%s\".";
inline constexpr const char* kQualifier =
    "Couldn't retrieve file Acces Control List entry qualifier for file at path \"%s\".";
inline constexpr const char* kReleaseQualifier =
    "Couldn't release file Acces Control List entry qualifier for file at path \"%s\".";
inline constexpr const char* kTag =
    "Couldn't retrieve file Acces Control List entry tag for file at path \"%s\".";
inline constexpr const char* kPermset =
    "Couldn't retrieve file Acces Control List entry permissions for file at path \"%s\".";
inline constexpr const char* kFlagset =
    "Couldn't retrieve file Acces Control List entry flags for file at path \"%s\".";
inline constexpr const char* kPermission =
    "Couldn't retrieve file Acces Control List entry permission for file at path \"%s\".";
inline constexpr const char* kFlag =
    "Couldn't retrieve file Acces Control List entry flag for file at path \"%s\".";
inline constexpr const char* kReleaseStorage =
    "Couldn't release file Acces Control List storage for file at path \"%s\".";
inline constexpr const char* kStat = "Couldn't retrieve file stat for file at path \"%s\".";
// The entry listing spells "identifier"; effective access and the traversal
// check have always said "indentifier".
inline constexpr const char* kOwner =
    "Couldn't retrieve file owner identifier for file at path \"%s\".";
inline constexpr const char* kGroup =
    "Couldn't retrieve file group identifier for file at path \"%s\".";
inline constexpr const char* kOwnerIndentifier =
    "Couldn't retrieve file owner indentifier for file at path \"%s\".";
inline constexpr const char* kGroupIndentifier =
    "Couldn't retrieve file group indentifier for file at path \"%s\".";
inline constexpr const char* kMembership = "Couldn't determine group membership for selected user.";
inline constexpr const char* kSelectedUser = "Couldn't retrieve selected user identifier.";

inline constexpr const char* kEntriesTitle = "Error retrieving file Access Control List entries";
inline constexpr const char* kAccessTitle = "Error retrieving effective file access permissions";
}  // namespace QXAclMessage

// The error number used when a UUID from the client does not parse.
inline constexpr int kQXUnparsableUuidError = static_cast<int>(0x80000002u);

class QXAclStep {
 public:
  QXAclStep() = delete;

  // The step error: errorWithErrno with the message and the path.
  static qx::ErrorPtr error(int errnum, std::string_view format, const std::string& path);
  // Answers `value` through an out-parameter the caller may leave null.
  template <class T>
  static void setOut(T* out, T value) {
    if (out) *out = std::move(value);
  }
};
