#include "platform/xacl/ItemAcl.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "platform/xacl/Acl.h"
#include "platform/xacl/AclCodec.h"
#include "platform/xacl/AclMembership.h"
#include "platform/xacl/PosixAclCodec.h"
#include "platform/xacl/PosixAclStore.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {

namespace {

int fail(int error) {
  errno = error;
  return -1;
}

bool carriesAcls(const struct stat& st) {
  return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode);
}

bool missingAttribute(int error) {
  return error == ENODATA || error == ENOTSUP;
}

// A POSIX ACL attribute of the item itself, read with lgetxattr: libacl's readers follow a
// final symbolic link. 1 with the ACL, 0 when there is none, -1 with errno.
int readPosixAttribute(const char* path, const char* name, PosixAcl* acl) {
  // 32 entries fit the stack; larger ACLs are asked for their size first.
  std::array<uint8_t, 4 + 8 * 32> small;
  ssize_t length = lgetxattr(path, name, small.data(), small.size());
  std::vector<uint8_t> large;
  if (length < 0 && errno == ERANGE) {
    length = lgetxattr(path, name, nullptr, 0);
    if (length >= 0) {
      large.resize(static_cast<size_t>(length));
      length = lgetxattr(path, name, large.data(), large.size());
    }
  }
  if (length < 0) return missingAttribute(errno) ? 0 : -1;
  const uint8_t* data = large.empty() ? small.data() : large.data();
  if (!PosixAclCodec::decode(std::span(data, static_cast<size_t>(length)), acl)) {
    return fail(EINVAL);
  }
  return 1;
}

// The stored extended ACL: 1 with its entries, 0 when there is none, -1 with errno (EINVAL
// when damaged).
int readStored(const char* path, ExtendedEntries* entries) {
  std::array<uint8_t, AclCodec::kMaxSize + 1> buffer;
  ssize_t length = lgetxattr(path, kAclAttributeName, buffer.data(), buffer.size());
  if (length < 0) {
    if (missingAttribute(errno)) return 0;
    return fail(errno == ERANGE ? EINVAL : errno);
  }
  auto acl = std::unique_ptr<Acl>(new (std::nothrow) Acl);
  if (!acl) return fail(ENOMEM);
  if (int error = AclCodec::decode(std::span(buffer.data(), static_cast<size_t>(length)), *acl)) {
    return fail(error);
  }
  *entries = acl->entries();
  return 1;
}

int encodeStored(const ExtendedEntries& entries, std::vector<uint8_t>* bytes) {
  try {
    auto acl = std::make_unique<Acl>();
    if (!acl->assign(entries)) return ENOMEM;
    return AclCodec::encode(*acl, *bytes);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

// The item open without following a link, for changes through its /proc path.
class ItemHandle {
 public:
  explicit ItemHandle(const char* path) : fd_(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC)) {}
  ~ItemHandle() {
    if (fd_ >= 0) {
      const int saved = errno;
      close(fd_);
      errno = saved;
    }
  }
  ItemHandle(const ItemHandle&) = delete;
  ItemHandle& operator=(const ItemHandle&) = delete;

  bool open_ok() const { return fd_ >= 0; }
  int stat(struct stat* st) const { return fstat(fd_, st); }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

int removeAttribute(const std::string& path, const char* name) {
  if (removexattr(path.c_str(), name) == 0 || missingAttribute(errno)) return 0;
  return -1;
}

ItemOwnership ownershipOf(const struct stat& st, const PosixAcl& access) {
  return {st.st_uid, st.st_gid, access.modeBits(), S_ISDIR(st.st_mode)};
}

int clear(const ItemHandle& item, const struct stat& st) {
  const std::string proc = item.path();
  PosixAcl access;
  std::optional<PosixAcl> defaults;
  if (ItemAcl::readPosix(proc, st, &access, &defaults) != 0) return -1;
  if (!access.isMinimal() && PosixAclStore::write(proc.c_str(), PosixAclStore::Kind::Access,
                                                  PosixAcl::fromMode(access.modeBits())) != 0) {
    return -1;
  }
  if (defaults && PosixAclStore::removeDefault(proc.c_str()) != 0) return -1;
  return removeAttribute(proc, kAclAttributeName);
}

}  // namespace

int ItemAcl::readPosix(const std::string& path, const struct stat& st, PosixAcl* access,
                       std::optional<PosixAcl>* defaults) {
  defaults->reset();
  // Through a descriptor's /proc path the attribute calls must follow the magic link.
  const bool viaProc = path.rfind("/proc/self/fd/", 0) == 0;
  auto readOne = [&](const char* name, PosixAcl* acl) {
    if (!viaProc) return readPosixAttribute(path.c_str(), name, acl);
    std::array<uint8_t, 4 + 8 * 64> buffer;
    ssize_t length = getxattr(path.c_str(), name, buffer.data(), buffer.size());
    if (length < 0) return missingAttribute(errno) ? 0 : -1;
    return PosixAclCodec::decode(std::span(buffer.data(), static_cast<size_t>(length)), acl)
               ? 1
               : fail(EINVAL);
  };
  int found = readOne(kPosixAccess, access);
  if (found < 0) return -1;
  if (found == 0) *access = PosixAcl::fromMode(st.st_mode);
  if (!S_ISDIR(st.st_mode)) return 0;
  PosixAcl def;
  found = readOne(kPosixDefault, &def);
  if (found < 0) return -1;
  if (found == 1) *defaults = std::move(def);
  return 0;
}

PosixMapping::Enforced ItemAcl::enforcing(const ExtendedEntries& entries,
                                          const ItemOwnership& item) {
  return PosixMapping::enforce(entries, item, AclMembership::usersNamedIn(entries));
}

int ItemAcl::read(const char* path, AclState* state) {
  *state = AclState{};
  if (lstat(path, &state->st) != 0) return -1;
  if (!carriesAcls(state->st)) {
    state->access = PosixAcl::fromMode(state->st.st_mode);
    state->item = ownershipOf(state->st, state->access);
    state->examined = true;
    return 0;
  }
  const int stored = readStored(path, &state->stored);
  if (stored < 0) return -1;
  if (readPosix(path, state->st, &state->access, &state->defaults) != 0) return -1;
  state->item = ownershipOf(state->st, state->access);
  state->examined = true;
  if (stored == 1) {
    const PosixMapping::Enforced wanted = enforcing(state->stored, state->item);
    if (wanted.access == state->access && wanted.defaults == state->defaults) {
      state->source = AclSource::Stored;
      state->entries = state->stored;
      return 0;
    }
    state->storedNotInForce = true;
  }
  if (state->access.hasNamedEntries() || state->defaults) {
    state->source = AclSource::Translation;
    state->entries = PosixMapping::translate(state->access, state->defaults, state->item.isFolder);
  }
  return 0;
}

int ItemAcl::write(const char* path, const ExtendedEntries& entries) {
  std::vector<uint8_t> bytes;
  if (int error = encodeStored(entries, &bytes)) return fail(error);
  ItemHandle item(path);
  if (!item.open_ok()) return -1;
  struct stat st;
  if (item.stat(&st) != 0) return -1;
  if (!carriesAcls(st)) return entries.empty() ? 0 : fail(ENOTSUP);
  const std::string proc = item.path();
  // Changing an ACL takes write access to the item, whichever layer refuses first.
  if (faccessat(AT_FDCWD, proc.c_str(), W_OK, AT_EACCESS) != 0) return -1;
  if (entries.empty()) return clear(item, st);

  PosixAcl access;
  std::optional<PosixAcl> defaults;
  if (readPosix(proc, st, &access, &defaults) != 0) return -1;
  const PosixMapping::Enforced wanted = enforcing(entries, ownershipOf(st, access));
  if (PosixAclStore::write(proc.c_str(), PosixAclStore::Kind::Access, wanted.access) != 0) {
    return -1;
  }
  if (wanted.defaults) {
    if (PosixAclStore::write(proc.c_str(), PosixAclStore::Kind::Default, *wanted.defaults) != 0) {
      return -1;
    }
  } else if (defaults && PosixAclStore::removeDefault(proc.c_str()) != 0) {
    return -1;
  }
  return setxattr(proc.c_str(), kAclAttributeName, bytes.data(), bytes.size(), 0) == 0 ? 0 : -1;
}

int ItemAcl::modeBits(const char* path, const struct stat& st, mode_t* bits) {
  *bits = st.st_mode & 0777;
  if (!carriesAcls(st)) return 0;
  PosixAcl access;
  const int found = readPosixAttribute(path, kPosixAccess, &access);
  if (found < 0) return -1;
  if (found == 1) *bits = access.modeBits();
  return 0;
}

int ItemAcl::setModeBits(const char* path, mode_t bits) {
  ItemHandle item(path);
  if (!item.open_ok()) return -1;
  struct stat st;
  if (item.stat(&st) != 0) return -1;
  const std::string proc = item.path();
  PosixAcl access;
  std::optional<PosixAcl> defaults;
  if (carriesAcls(st) && readPosix(proc, st, &access, &defaults) != 0) return -1;
  if (!carriesAcls(st) || !access.perm(PosixAcl::Mask)) {
    return fchmodat(AT_FDCWD, path, bits, AT_SYMLINK_NOFOLLOW);
  }
  access.set(PosixAcl::UserObj, (bits >> 6) & 7);
  access.set(PosixAcl::GroupObj, (bits >> 3) & 7);
  access.set(PosixAcl::Other, bits & 7);
  access.recomputeMask();
  // The mode change clears the set-id and sticky bits; the ACL then sets the group entry.
  if (fchmodat(AT_FDCWD, proc.c_str(), access.statModeBits(), 0) != 0) return -1;
  return PosixAclStore::write(proc.c_str(), PosixAclStore::Kind::Access, access);
}

}  // namespace qx::xacl
