#include "client/cli/SizeFormat.h"

#include <array>
#include <cstdio>

namespace qxcli {

std::string SizeFormat::grouped(int64_t bytes) {
  std::string digits = std::to_string(bytes < 0 ? -(bytes + 1) + 1ULL : uint64_t(bytes));
  std::string text;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return bytes < 0 ? "-" + text : text;
}

std::string SizeFormat::withUnits(int64_t bytes) {
  if (bytes < 0) return "unknown";
  if (bytes < 1024) return grouped(bytes) + (bytes == 1 ? " byte" : " bytes");
  constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // Rounded to one decimal, 1023.96 KiB would print as "1024.0 KiB": move up first.
  while (value >= 1023.95 && unit + 1 < kUnits.size()) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string SizeFormat::compact(int64_t bytes) {
  if (bytes >= 0 && bytes < 1024) return grouped(bytes) + " B";
  return withUnits(bytes);
}

std::string SizeFormat::full(int64_t bytes) {
  if (bytes < 1024) return withUnits(bytes);
  return withUnits(bytes) + " (" + grouped(bytes) + " bytes)";
}

}  // namespace qxcli
