#include "tests/platform/archive/support/ArchiveTestSupport.h"

#include <cstdio>
#include <stdexcept>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/support/TempTree.h"

namespace qx::testing {

using Ref = BinaryPlist::Ref;

namespace {

bool isTagged(const json& value, const char* tag) {
  return value.is_object() && value.size() == 1 && value.contains(tag);
}

Ref addJson(BinaryPlist& plist, const json& value) {
  if (value.is_null()) return plist.addNull();
  if (value.is_boolean()) return plist.addBool(value.get<bool>());
  if (value.is_number_integer()) return plist.addInteger(value.get<int64_t>());
  if (value.is_string()) return plist.addString(value.get_ref<const std::string&>());
  if (isTagged(value, "UID")) return plist.addUid(value["UID"].get<uint32_t>());
  if (isTagged(value, "real")) return plist.addReal(value["real"].get<double>());
  if (isTagged(value, "data")) return plist.addData(unhex(value["data"]));
  std::vector<Ref> keys, values;
  for (const auto& [key, element] : value.items()) {
    if (value.is_object()) keys.push_back(plist.addString(key));
    values.push_back(addJson(plist, element));
  }
  return value.is_array() ? plist.addArray(values) : plist.addDictionary(keys, values);
}

json toJson(const BinaryPlist& plist, Ref ref) {
  using Type = BinaryPlist::Type;
  switch (plist.type(ref)) {
    case Type::Null:
      return nullptr;
    case Type::Bool:
      return plist.boolValue(ref);
    case Type::Integer:
      return plist.integer(ref);
    case Type::Real:
    case Type::Date:
      return {{"real", plist.real(ref)}};
    case Type::Uid:
      return uid(plist.uid(ref));
    case Type::String:
      return std::string(plist.string(ref));
    case Type::Data:
      return {{"data", hex(plist.data(ref))}};
    case Type::Array: {
      json array = json::array();
      for (std::size_t i = 0; i < plist.count(ref); ++i) {
        array.push_back(toJson(plist, plist.element(ref, i)));
      }
      return array;
    }
    case Type::Dictionary: {
      json object = json::object();
      for (std::size_t i = 0; i < plist.count(ref); ++i) {
        object[std::string(plist.string(plist.key(ref, i)))] = toJson(plist, plist.value(ref, i));
      }
      return object;
    }
  }
  return nullptr;
}

std::string runOracle(const std::string& arguments) {
  std::string command = std::string(QX_PYTHON) + " " + QX_ORACLE_SCRIPT + " " + arguments;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
  std::string output;
  char buffer[65536];
  std::size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  if (pclose(pipe) != 0) throw std::runtime_error("oracle failed: " + command);
  return output;
}

}  // namespace

json readJson(std::span<const uint8_t> bytes) {
  std::string why;
  auto plist = BinaryPlist::parse(bytes, &why);
  if (!plist) throw std::runtime_error("does not parse: " + why);
  return toJson(*plist, plist->top());
}

std::vector<uint8_t> writeJson(const json& value) {
  BinaryPlist plist;
  return plist.write(addJson(plist, value));
}

json plistlibRead(std::span<const uint8_t> plist) {
  qx::test::TempTree dir("qx-archive");
  dir.file("in.plist", std::string(plist.begin(), plist.end()));
  return json::parse(runOracle("dump " + dir.path("in.plist")));
}

std::vector<uint8_t> plistlibWrite(const json& value) {
  qx::test::TempTree dir("qx-archive");
  dir.file("in.json", value.dump());
  return unhex(runOracle("write " + dir.path("in.json")));
}

json uid(uint32_t n) {
  return {{"UID", n}};
}

json classDict(const std::string& name, std::vector<std::string> chain) {
  return {{"$classname", name}, {"$classes", chain}};
}

json keyedArchive(json objects, json root) {
  return {{"$archiver", "NSKeyedArchiver"},
          {"$version", 100000},
          {"$top", {{"root", std::move(root)}}},
          {"$objects", std::move(objects)}};
}

std::string hex(std::span<const uint8_t> bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::vector<uint8_t> archived(const ObjectPtr& root) {
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
  if (!data) throw std::runtime_error("archiving failed");
  return data->bytes();
}

ObjectPtr roundTrip(const ObjectPtr& root, ErrorPtr* error) {
  return KeyedUnarchiver::unarchiveObjectWithData(archived(root), error);
}

std::vector<uint8_t> unhex(const std::string& text) {
  std::vector<uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string describe(const ErrorPtr& error) {
  return error ? error->localizedDescription() : "";
}

}  // namespace qx::testing
