#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/archive/BinaryPlist.h"
#include "platform/foundation/Foundation.h"

namespace qx::testing {

// A temporary folder, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::vector<uint8_t> readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::span<const uint8_t> bytes);

// Python's plistlib as an oracle (UIDs as {"UID": n}, data as {"data": hex},
// reals as {"real": x}).
nlohmann::json plistlibRead(std::span<const uint8_t> plist);
std::vector<uint8_t> plistlibWrite(const nlohmann::json& value);

// A keyed archive put together value by value, for archives that the archiver
// would never write. $objects[0] is "$null"; add() appends an object and
// answers its UID.
class HandArchive {
 public:
  using Ref = BinaryPlist::Ref;
  HandArchive();

  BinaryPlist& plist() { return plist_; }
  uint32_t add(Ref value);
  void set(uint32_t uid, Ref value) { objects_.at(uid) = value; }
  // A class dictionary; `chain` empty leaves $classes out.
  uint32_t addClass(std::string_view name, std::vector<std::string_view> chain = {});
  // An object dictionary of string keys and values.
  Ref object(std::initializer_list<std::pair<std::string_view, Ref>> entries);
  Ref uid(uint32_t value) { return plist_.addUid(value); }
  Ref uids(std::initializer_list<uint32_t> values);
  Ref str(std::string_view text) { return plist_.addString(text); }
  Ref integer(int64_t value) { return plist_.addInteger(value); }
  uint32_t count() const { return static_cast<uint32_t>(objects_.size()); }

  // The archive with root UID `root`.
  std::vector<uint8_t> bytes(uint32_t root = 1);

 private:
  BinaryPlist plist_;
  std::vector<Ref> objects_;
};

// A binary plist assembled from raw object bytes, with every field of the
// trailer under the test's control.
struct RawPlist {
  std::vector<std::vector<uint8_t>> objects;
  unsigned offsetSize = 1;
  unsigned refSize = 1;
  uint64_t top = 0;
  // When set, these replace the true values in the trailer.
  std::optional<uint64_t> objectCount;
  std::optional<uint64_t> tableOffset;
  // Replaces the offset of the object at an index.
  std::vector<std::pair<std::size_t, uint64_t>> offsetOverrides;

  std::vector<uint8_t> bytes() const;
};

// A parsed plist in the oracle's JSON conventions.
nlohmann::json toJson(const BinaryPlist& plist, BinaryPlist::Ref ref);
// Parses with the project's reader and converts; throws when it does not parse.
nlohmann::json readJson(std::span<const uint8_t> plist);

// The root of the archive of `root` after a round trip, with the error.
ObjectPtr roundTrip(const ObjectPtr& root, ErrorPtr* error = nullptr);

// The text of an error's description ("" for nil).
std::string describe(const ErrorPtr& error);

}  // namespace qx::testing
