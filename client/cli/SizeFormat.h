#pragma once

#include <cstdint>
#include <string>

namespace qxcli {

// Byte counts for people: binary units with one decimal, and the exact count
// with thousands separators beside it.
class SizeFormat {
 public:
  // "1,234,567"
  static std::string grouped(int64_t bytes);
  // "1.2 MiB", "512 bytes", "1 byte"; "unknown" for a negative count.
  static std::string withUnits(int64_t bytes);
  // withUnits, with "512 B" below 1 KiB: for a column beside the exact count.
  static std::string compact(int64_t bytes);
  // "1.2 MiB (1,234,567 bytes)"; counts below 1 KiB only as "512 bytes".
  static std::string full(int64_t bytes);
};

}  // namespace qxcli
