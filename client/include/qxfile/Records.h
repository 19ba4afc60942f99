#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace qxfile {

// Why a request failed, as the service or the connection put it.
struct Error {
  std::string domain;                             // "NSPOSIXErrorDomain", "NSCocoaErrorDomain", ...
  int64_t code = 0;                               // the errno or the domain's code
  std::string description;                        // one sentence for a person
  std::optional<std::string> recoverySuggestion;  // what the person may do about it
  std::optional<std::filesystem::path> path;      // the item concerned, when the error names one
};

// A user, a group or everyone, by id and with its name from the user and group database.
struct Identity {
  enum class Kind { User, Group, Everyone, Other };
  Kind kind = Kind::Other;
  uint32_t id = 0;   // uid or gid
  std::string name;  // empty when the database does not know the id
  std::string uuid;  // the service's name for it; empty for everyone

  static Identity user(uint32_t uid);   // a user with its name looked up
  static Identity group(uint32_t gid);  // a group with its name looked up
};

// Permission bits of an ACL entry; a folder reads some of them under other names.
enum Right : uint32_t {
  kReadData = 0x2,   // also "List Folder Contents"
  kWriteData = 0x4,  // also "Create Files"
  kExecute = 0x8,    // also "Traverse Folder"
  kDelete = 0x10,
  kAppendData = 0x20,  // also "Create Folder"
  kDeleteChild = 0x40,
  kReadAttributes = 0x80,
  kWriteAttributes = 0x100,
  kReadExtAttributes = 0x200,
  kWriteExtAttributes = 0x400,
  kReadSecurity = 0x800,
  kWriteSecurity = 0x1000,
  kChangeOwner = 0x2000,
};

// Where a folder's entry applies, beyond the folder itself.
enum Inheritance : uint32_t {
  kFileInherit = 0x20,
  kDirectoryInherit = 0x40,
  kLimitInherit = 0x80,
  kOnlyInherit = 0x100,
};

// One ACL entry: whom it concerns, whether it allows or denies, and which rights.
struct AclEntry {
  Identity identity;
  bool deny = false;
  bool inherited = false;
  uint32_t rights = 0;       // Right bits
  uint32_t inheritance = 0;  // Inheritance bits; 0 for a file's entry
};

// The owner, the group or everyone, with their read, write and execute bits (rwx = 4, 2, 1).
struct PosixEntry {
  Identity identity;
  unsigned bits = 0;
};

// An item's ACL entries and POSIX permissions, as read or to be written.
struct AclListing {
  bool folder = false;
  std::vector<AclEntry> acl;
  PosixEntry owner;
  PosixEntry group;
  PosixEntry everyone;

  unsigned mode() const { return owner.bits << 6 | group.bits << 3 | everyone.bits; }  // 0750, ...
};

// The effective access of a user or group to an item, right by right in three groups.
struct EffectiveAccess {
  struct Right {
    std::string name;  // "Read Data", "List Folder Contents", ...
    uint32_t right = 0;
    bool granted = false;
  };
  struct Group {
    std::string name;  // "Read", "Write", "Administration"
    std::vector<Right> rights;
  };
  std::vector<Group> groups;
};

// A running or final total of a size calculation. The index path leads from the
// total of everything asked for (empty) to the item: one index per level.
struct SizeUpdate {
  std::vector<uint64_t> indexPath;
  int64_t size = -1;  // -1: not known yet
  bool busy = true;   // false once the total is final
};

// An item by its identity on its volume, with the path it was found at.
struct FileRef {
  uint64_t device = 0;
  uint64_t inode = 0;
  std::filesystem::path keptPath;

  // Where the item is now: the kept path while it names the same item, else the
  // entry of its folder that is the item (renamed in place), else empty.
  std::filesystem::path presentPath() const;
};

// What a batch rename did: the new paths of the items renamed and the names they had.
struct RenameResult {
  std::vector<std::filesystem::path> renamed;
  std::vector<std::string> previousNames;
};

}  // namespace qxfile
