#pragma once

#include <cstddef>
#include <cstdint>

namespace qx {

// The record layout the getdents64 system call fills a buffer with; glibc
// declares no type for it. Records are read by copying their fixed part out
// of the buffer, since a record's start need not be aligned for this struct.
struct LinuxDirent64 {
  std::uint64_t d_ino;
  std::int64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[1];
};

// Where a record's NUL-terminated name starts.
inline constexpr std::size_t kLinuxDirent64NameOffset = offsetof(LinuxDirent64, d_name);

}  // namespace qx
