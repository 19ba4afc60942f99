#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "platform/archive/BinaryPlist.h"
#include "platform/foundation/Foundation.h"

// Plists as JSON, in the conventions of the oracle script: a UID is
// {"UID": n}, data is {"data": "<hex>"}, a real is {"real": x}; strings,
// integers, booleans, null, arrays and dictionaries are themselves.
namespace qx::testing {

using json = nlohmann::json;

// The project's reader and writer.
json readJson(std::span<const uint8_t> plist);  // throws when it does not parse
std::vector<uint8_t> writeJson(const json& value);
// Python's plistlib, the oracle.
json plistlibRead(std::span<const uint8_t> plist);
std::vector<uint8_t> plistlibWrite(const json& value);

// Keyed archives written value by value, including ones the archiver never
// writes: $objects[0] should be "$null".
json uid(uint32_t n);
json classDict(const std::string& name, std::vector<std::string> chain);
json keyedArchive(json objects, json root = uid(1));
std::string hex(std::span<const uint8_t> bytes);
std::vector<uint8_t> unhex(const std::string& text);

std::vector<uint8_t> archived(const ObjectPtr& root);
// The root of the archive of `root` after a round trip.
ObjectPtr roundTrip(const ObjectPtr& root, ErrorPtr* error = nullptr);
std::string describe(const ErrorPtr& error);  // "" for nil

}  // namespace qx::testing
