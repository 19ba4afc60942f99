#pragma once

#include <sys/types.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "platform/foundation/Uuid.h"

// The users and groups of tests/support/users, their identity UUIDs written
// out by hand, and the malformed and hand-made ACL attributes of
// tests/platform/xacl/attributes.
namespace qx::test {

inline constexpr uid_t kOwner = 2101;    // owns the items under test
inline constexpr uid_t kMember = 2102;   // supplementary member of qxteam
inline constexpr uid_t kPrimary = 2103;  // primary group qxteam, not listed in it
inline constexpr uid_t kOther = 2104;    // in none of the items' groups
inline constexpr uid_t kBlocked = 2105;  // member of qxteam and qxdenied
inline constexpr uid_t kUnknown = 2999;  // no passwd entry
inline constexpr gid_t kOwnerGroup = 3101;
inline constexpr gid_t kMemberGroup = 3102;
inline constexpr gid_t kOtherGroup = 3104;
inline constexpr gid_t kTeam = 3110;
inline constexpr gid_t kDenied = 3111;

// A user's identity UUID is this prefix and the uid in eight hex digits; a group's likewise.
inline std::string userUuidText(uid_t uid) {
  char text[40];
  std::snprintf(text, sizeof text, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA%08X", uid);
  return text;
}
inline std::string groupUuidText(gid_t gid) {
  char text[40];
  std::snprintf(text, sizeof text, "ABCDEFAB-CDEF-ABCD-EFAB-CDEF%08X", gid);
  return text;
}
inline UuidPtr userUuid(uid_t uid) {
  return Uuid::withString(userUuidText(uid));
}
inline UuidPtr groupUuid(gid_t gid) {
  return Uuid::withString(groupUuidText(gid));
}

// One entry of an extended ACL: its tag (1 allow, 2 deny), whom it names, its permission bits and
// its flags (inheritance, and 0x10 for an inherited entry).
struct Ace {
  int32_t tag;
  UuidPtr who;
  uint32_t rights = 0;
  uint32_t flags = 0;
};

// An attribute file: "# comment" lines, "expect: ..." lines, and the bytes in hex (spaces and
// dashes ignored), a line ending in "*N" standing for N copies of itself.
struct AttributeFile {
  std::vector<uint8_t> bytes;
  std::string expected;  // the "expect:" lines, each ending in a newline
};

inline AttributeFile attributeFile(const std::string& name) {
  AttributeFile file;
  std::ifstream in(std::string(QX_SOURCE_DIR) + "/tests/platform/xacl/attributes/" + name);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind('#', 0) == 0) continue;
    if (line.rfind("expect: ", 0) == 0) {
      file.expected += line.substr(8) + "\n";
      continue;
    }
    int copies = 1;
    if (const size_t star = line.find('*'); star != std::string::npos) {
      copies = std::atoi(line.c_str() + star + 1);
      line.resize(star);
    }
    std::string hex;
    for (char c : line) {
      if (std::isxdigit(static_cast<unsigned char>(c))) hex += c;
    }
    for (int copy = 0; copy < copies; ++copy) {
      for (size_t at = 0; at + 1 < hex.size(); at += 2) {
        file.bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(at, 2), nullptr, 16)));
      }
    }
  }
  return file;
}

}  // namespace qx::test
