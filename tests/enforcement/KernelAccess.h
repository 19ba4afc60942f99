#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qx::test {

// What the kernel lets a user do with an item, asked in a forked child that takes the user's ids
// and groups. A file is read with open(O_RDONLY), written with open(O_WRONLY) and executed as far
// as access(X_OK) says; a folder is read with open(O_DIRECTORY) and getdents64, written by creating
// and removing a file in it, and searched as far as access(X_OK) says.
class KernelAccess {
 public:
  static constexpr unsigned kRead = 1;
  static constexpr unsigned kWrite = 2;
  static constexpr unsigned kExecute = 4;

  struct User {
    uid_t uid;
    gid_t gid;                  // primary group
    std::vector<gid_t> groups;  // every group, the primary one included
  };

  // qxowner, qxmember, qxprimary, qxother and qxblocked of tests/support/users, in that order, as
  // the user and group database gives them; uid 0 for one it does not know.
  static std::vector<User> testUsers();

  // kRead, kWrite and kExecute for what `user` may do with `path`; ~0u when the child could not
  // take the user's ids.
  static unsigned granted(const std::string& path, bool folder, const User& user);

  // kRead, kWrite and kExecute as qxfile's effective access `rights` (the extended ACL's permission
  // bits) grant them: read is Read Data, write Write Data and Append Data (on a folder Add File,
  // Add Subfolder, Delete Child and, as creating a file takes it, Search), execute is Execute.
  static unsigned operationsOf(uint32_t rights, bool folder);

  // What a shell command prints, standard error included.
  static std::string output(const std::string& command);
};

}  // namespace qx::test
