// Writes the seed corpus of the ACL codec fuzzer: real encodings of small and
// full ACLs, one file each.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/xacl/Acl.h"
#include "platform/xacl/AclCodec.h"

using namespace qx::xacl;

namespace {

struct Entry {
  acl_tag_t tag;
  uint8_t id;  // the qualifier's last byte; the rest is a fixed UUID
  acl_perm_t perms;
  acl_flag_t flags;
};

std::vector<std::pair<std::string, std::vector<Entry>>> seeds() {
  const acl_perm_t readOnly =
      ACL_READ_DATA | ACL_READ_ATTRIBUTES | ACL_READ_EXTATTRIBUTES | ACL_READ_SECURITY;
  const acl_flag_t inherit = ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT;
  std::vector<Entry> full;
  for (int i = 0; i < Acl::kMaxEntries; ++i) {
    full.push_back({i % 3 == 0 ? ACL_EXTENDED_DENY : ACL_EXTENDED_ALLOW, static_cast<uint8_t>(i),
                    static_cast<acl_perm_t>(i * 2) & ACL_PERM_MASK,
                    static_cast<acl_flag_t>(i << 4) & ACL_ENTRY_FLAG_MASK});
  }
  return {
      {"empty", {}},
      {"one-allow", {{ACL_EXTENDED_ALLOW, 1, readOnly, 0}}},
      {"one-deny-no-perms", {{ACL_EXTENDED_DENY, 2, 0, 0}}},
      {"every-bit", {{ACL_EXTENDED_ALLOW, 3, ACL_PERM_MASK, ACL_ENTRY_FLAG_MASK}}},
      {"inherited",
       {{ACL_EXTENDED_DENY, 4, ACL_DELETE | ACL_DELETE_CHILD, inherit | ACL_ENTRY_INHERITED},
        {ACL_EXTENDED_ALLOW, 5, readOnly | ACL_EXECUTE, inherit | ACL_ENTRY_LIMIT_INHERIT},
        {ACL_EXTENDED_ALLOW, 6, ACL_WRITE_DATA | ACL_APPEND_DATA, ACL_ENTRY_ONLY_INHERIT}}},
      {"full", full},
  };
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  for (const auto& [name, entries] : seeds()) {
    Acl acl;
    for (const Entry& wanted : entries) {
      AclEntry* entry = acl.append();
      entry->tag = wanted.tag;
      entry->qualifier = {0xab, 0xcd, 0xef, 0x01, 0x23, 0x45, 0x67, 0x89,
                          0xab, 0xcd, 0xef, 0x01, 0x00, 0x00, 0x01, wanted.id};
      entry->hasQualifier = true;
      entry->permset.bits = wanted.perms;
      entry->flagset.bits = wanted.flags;
    }
    std::vector<uint8_t> bytes;
    if (AclCodec::encode(acl, bytes) != 0) {
      std::fprintf(stderr, "cannot encode %s\n", name.c_str());
      return 1;
    }
    std::ofstream out(folder / (name + ".acl"), std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
  }
  return 0;
}
