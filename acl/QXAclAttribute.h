#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/xacl/xacl.h"

// Writes an item's extended ACL through the descriptor of the folder that holds it, never
// following a symbolic link, with the meaning of acl_set_link_np: an ACL without entries
// removes the attribute (a success where there is none), and only files and folders carry one
// (ENOTSUP for anything else, whose empty ACL is a success).
//
// acl_set_link_np takes a path, which a walk over a tree that others can change must not use.
// Kernels from 6.13 on set and remove attributes relative to a descriptor (setxattrat,
// removexattrat) in one call; elsewhere the path goes through the folder's descriptor in
// /proc, which the kernel resolves to the folder itself.
class QXAclAttribute {
 public:
  QXAclAttribute() = delete;

  // `st` is the item's lstat data, from the walk. 0, or -1 with errno set.
  static int setAt(int folderFd, const char* name, const struct stat& st, qx::xacl::acl_t acl);

  // Sets the attribute `attribute` of the item `name` to `bytes`, or removes it when `bytes`
  // is null (a success where there is none), through the folder's descriptor as above.
  static int setAttributeAt(int folderFd, const char* name, const char* attribute,
                            const std::vector<uint8_t>* bytes);

  // The path that names `name` inside the folder open at `folderFd` through /proc.
  static std::string pathThroughFolder(int folderFd, const char* name);
};
