#pragma once

// The sentences that name a failing step of saving and propagating access
// settings, and the titles under which those operations wrap their first
// failure. "%s" stands for the item's path. Steps shared with the inspecting
// operations (reading an entry's permissions or flags, the item's stat, owner
// and group, releasing storage) use QXAclMessage; QXAclStep builds the errors.
namespace QXAclWriteMessage {
// Building an ACL from entry records.
inline constexpr const char* kInit =
    "Couldn't initialize file Acces Control "
    "List storage for file at path \"%s\".";
inline constexpr const char* kCreateEntry =
    "Couldn't create file Acces Control List entry for file at path \"%s\".";
inline constexpr const char* kSetTag =
    "Couldn't set file Acces Control List entry type for file at path \"%s\".";
inline constexpr const char* kParseQualifier =
    "Couldn't retreive file Acces Control List entry qualifier for file at "
    "path \"%s\".";
inline constexpr const char* kSetQualifier =
    "Couldn't set file Acces Control List entry qualifier for file at path "
    "\"%s\".";
inline constexpr const char* kClearPerms =
    "Couldn't clear file Acces Control List entry permissions for file at path "
    "\"%s\".";
inline constexpr const char* kAddPerm =
    "Couldn't set file Acces Control List entry permission for file at path "
    "\"%s\".";
inline constexpr const char* kSetPermset =
    "Couldn't set file Acces Control List entry permissions for file at path "
    "\"%s\".";
inline constexpr const char* kClearFlags =
    "Couldn't clear file Acces Control List entry flags for file at path "
    "\"%s\".";
inline constexpr const char* kAddFlag =
    "Couldn't set file Acces Control List entry flag for file at path \"%s\".";
inline constexpr const char* kSetFlagset =
    "Couldn't set file Acces Control List entry flags for file at path \"%s\".";

// Reading the identities a request names; a UUID that does not parse says
// "retreive".
inline constexpr const char* kParseOwner =
    "Couldn't retreive file owner identifier for file at path \"%s\".";
inline constexpr const char* kParseGroup =
    "Couldn't retreive file group identifier for file at path \"%s\".";

// Changing an item.
inline constexpr const char* kSetMode =
    "Couldn't set file POSIX permissions for file at path \"%s\".";
inline constexpr const char* kSetOwner = "Couldn't set file owner for file at path \"%s\".";
inline constexpr const char* kSetGroup = "Couldn't set file group for file at path \"%s\".";
inline constexpr const char* kSetAcl =
    "Couldn't set file Acces Control List entries for file at path \"%s\".";

// Walking a folder hierarchy.
inline constexpr const char* kReadHierarchy =
    "Couldn't read folder hierarchy for folder at path \"%s\".";
inline constexpr const char* kReadFolder =
    "Couldn't read folder contents for folder at path \"%s\".";
inline constexpr const char* kGetItem = "Couldn't get folder hierarchy item at path \"%s\".";
inline constexpr const char* kWalkFailed =
    "Couldn't retrieve folder hierarchy item for folder at path \"%s\".";
inline constexpr const char* kCloseWalk =
    "Couldn't release folder hierarchy storage for folder at path \"%s\".";

inline constexpr const char* kSaveTitle = "Error saving file Acces Control List entries";
inline constexpr const char* kPropagateTitle =
    "Error propagating file Access Control List, POSIX permissions, owner and "
    "group";
}  // namespace QXAclWriteMessage
