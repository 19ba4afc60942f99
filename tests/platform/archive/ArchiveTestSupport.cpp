#include "tests/platform/archive/ArchiveTestSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"

namespace qx::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "qx-archive-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<uint8_t> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::filesystem::path& path, std::span<const uint8_t> bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

namespace {

std::string runOracle(const std::string& arguments) {
  std::string command = std::string(QX_PYTHON) + " " + QX_ORACLE_SCRIPT + " " + arguments;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
  std::string output;
  char buffer[65536];
  std::size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  int status = pclose(pipe);
  if (status != 0) throw std::runtime_error("oracle failed: " + command);
  return output;
}

}  // namespace

nlohmann::json plistlibRead(std::span<const uint8_t> plist) {
  TempDir dir;
  writeFile(dir.path() / "in.plist", plist);
  return nlohmann::json::parse(runOracle("dump " + (dir.path() / "in.plist").string()));
}

std::vector<uint8_t> plistlibWrite(const nlohmann::json& value) {
  TempDir dir;
  std::string text = value.dump();
  writeFile(dir.path() / "in.json",
            std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
  runOracle("write " + (dir.path() / "in.json").string() + " " +
            (dir.path() / "out.plist").string());
  return readFile(dir.path() / "out.plist");
}

HandArchive::HandArchive() {
  objects_.push_back(plist_.addString("$null"));
}

uint32_t HandArchive::add(Ref value) {
  objects_.push_back(value);
  return static_cast<uint32_t>(objects_.size() - 1);
}

uint32_t HandArchive::addClass(std::string_view name, std::vector<std::string_view> chain) {
  if (chain.empty()) return add(object({{"$classname", str(name)}}));
  std::vector<Ref> names;
  for (auto n : chain) names.push_back(str(n));
  return add(object({{"$classname", str(name)}, {"$classes", plist_.addArray(names)}}));
}

HandArchive::Ref HandArchive::object(
    std::initializer_list<std::pair<std::string_view, Ref>> entries) {
  std::vector<Ref> keys;
  std::vector<Ref> values;
  for (const auto& [k, v] : entries) {
    keys.push_back(str(k));
    values.push_back(v);
  }
  return plist_.addDictionary(keys, values);
}

HandArchive::Ref HandArchive::uids(std::initializer_list<uint32_t> values) {
  std::vector<Ref> refs;
  for (uint32_t v : values) refs.push_back(uid(v));
  return plist_.addArray(refs);
}

std::vector<uint8_t> HandArchive::bytes(uint32_t root) {
  Ref top = object({{"$archiver", str("NSKeyedArchiver")},
                    {"$version", integer(100000)},
                    {"$top", object({{"root", uid(root)}})},
                    {"$objects", plist_.addArray(objects_)}});
  return plist_.write(top);
}

std::vector<uint8_t> RawPlist::bytes() const {
  std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<uint64_t> offsets;
  for (const auto& object : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), object.begin(), object.end());
  }
  for (const auto& [index, offset] : offsetOverrides) offsets.at(index) = offset;
  uint64_t table = out.size();
  auto put = [&](uint64_t value, unsigned width) {
    // Widths above 8 (bad trailers) get leading zero bytes.
    for (unsigned i = width; i-- > 0;) {
      out.push_back(i >= 8 ? 0 : static_cast<uint8_t>(value >> (8 * i)));
    }
  };
  for (uint64_t offset : offsets) put(offset, offsetSize);
  for (int i = 0; i < 6; ++i) out.push_back(0);
  out.push_back(static_cast<uint8_t>(offsetSize));
  out.push_back(static_cast<uint8_t>(refSize));
  put(objectCount.value_or(objects.size()), 8);
  put(top, 8);
  put(tableOffset.value_or(table), 8);
  return out;
}

nlohmann::json toJson(const BinaryPlist& plist, BinaryPlist::Ref ref) {
  using Type = BinaryPlist::Type;
  static const char digits[] = "0123456789abcdef";
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
      return {{"UID", plist.uid(ref)}};
    case Type::String:
      return std::string(plist.string(ref));
    case Type::Data: {
      std::string hex;
      for (uint8_t b : plist.data(ref)) {
        hex += digits[b >> 4];
        hex += digits[b & 15];
      }
      return {{"data", hex}};
    }
    case Type::Array: {
      auto array = nlohmann::json::array();
      for (std::size_t i = 0; i < plist.count(ref); ++i) {
        array.push_back(toJson(plist, plist.element(ref, i)));
      }
      return array;
    }
    case Type::Dictionary: {
      auto object = nlohmann::json::object();
      for (std::size_t i = 0; i < plist.count(ref); ++i) {
        object[std::string(plist.string(plist.key(ref, i)))] = toJson(plist, plist.value(ref, i));
      }
      return object;
    }
  }
  return nullptr;
}

nlohmann::json readJson(std::span<const uint8_t> bytes) {
  std::string why;
  auto plist = BinaryPlist::parse(bytes, &why);
  if (!plist) throw std::runtime_error("does not parse: " + why);
  return toJson(*plist, plist->top());
}

ObjectPtr roundTrip(const ObjectPtr& root, ErrorPtr* error) {
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
  if (!data) throw std::runtime_error("archiving failed");
  return KeyedUnarchiver::unarchiveObjectWithData(*data, error);
}

std::string describe(const ErrorPtr& error) {
  return error ? error->localizedDescription() : "";
}

}  // namespace qx::testing
