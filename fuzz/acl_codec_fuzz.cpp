// Hostile input for the stored form of extended ACLs: the "user.qxfile.acl"
// attribute, which the owner of any file can write and which the service reads
// for files owned by other users. Besides "no crash, no leak, no undefined
// behaviour", it checks that the decoder answers 0 or EINVAL, that an ACL it
// accepts encodes back to exactly the bytes it came from (the decoder accepts
// only what the encoder writes), and that the decoded ACL reads back through
// the C-style interface entry by entry as the service reads it.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "platform/xacl/Acl.h"
#include "platform/xacl/AclCodec.h"
#include "platform/xacl/xacl.h"

using namespace qx::xacl;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

// Every bit the interface can ask about, one at a time, agrees with the set.
void checkBits(acl_permset_t permset, acl_flagset_t flagset) {
  for (acl_perm_t perm = 1; perm != 0; perm <<= 1) {
    int answer = acl_get_perm_np(permset, perm);
    if ((perm & ACL_PERM_MASK) == 0) {
      check(answer == -1 && errno == EINVAL);
    } else {
      check(answer == ((permset->bits & perm) != 0 ? 1 : 0));
    }
  }
  for (acl_flag_t flag = 1; flag != 0; flag <<= 1) {
    int answer = acl_get_flag_np(flagset, flag);
    if ((flag & ACL_ENTRY_FLAG_MASK) == 0) {
      check(answer == -1 && errno == EINVAL);
    } else {
      check(answer == ((flagset->bits & flag) != 0 ? 1 : 0));
    }
  }
}

// Walks the entries as the service does and returns how many it saw.
int walk(Acl& acl, std::span<const uint8_t> bytes) {
  int seen = 0;
  acl_entry_t entry = nullptr;
  for (int id = ACL_FIRST_ENTRY; acl_get_entry(&acl, id, &entry) == 0; id = ACL_NEXT_ENTRY) {
    check(seen < acl.size());
    acl_tag_t tag = ACL_UNDEFINED_TAG;
    check(acl_get_tag_type(entry, &tag) == 0);
    check(tag == ACL_EXTENDED_ALLOW || tag == ACL_EXTENDED_DENY);
    auto* qualifier = static_cast<unsigned char*>(acl_get_qualifier(entry));
    check(qualifier != nullptr);
    const size_t at = AclCodec::kHeaderSize + AclCodec::kEntrySize * static_cast<size_t>(seen);
    check(std::equal(qualifier, qualifier + 16, bytes.begin() + static_cast<std::ptrdiff_t>(at)));
    check(acl_free(qualifier) == 0);
    acl_permset_t permset = nullptr;
    acl_flagset_t flagset = nullptr;
    check(acl_get_permset(entry, &permset) == 0 && acl_get_flagset_np(entry, &flagset) == 0);
    checkBits(permset, flagset);
    ++seen;
  }
  return seen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  Acl acl;
  int error = AclCodec::decode(bytes, acl);
  check(error == 0 || error == EINVAL);
  if (error != 0) return 0;

  check(size == AclCodec::kHeaderSize + AclCodec::kEntrySize * static_cast<size_t>(acl.size()));
  std::vector<uint8_t> again;
  check(AclCodec::encode(acl, again) == 0);
  check(again.size() == size && std::equal(again.begin(), again.end(), bytes.begin()));
  check(walk(acl, bytes) == acl.size());
  return 0;
}
