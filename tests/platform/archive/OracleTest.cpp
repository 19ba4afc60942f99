// Two independent implementations of binary property lists as oracles:
// libplist (C API) and Python's plistlib. Archives the project writes must
// load in both with the expected structure, and plists both write must load
// in the project.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <memory>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

using json = nlohmann::json;

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::string hex(const char* bytes, uint64_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (uint64_t i = 0; i < length; ++i) {
    auto b = static_cast<unsigned char>(bytes[i]);
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

json libplistToJson(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value != 0;
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return static_cast<int64_t>(value);
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return {{"real", value}};
    }
    case PLIST_STRING: {
      char* value = nullptr;
      plist_get_string_val(node, &value);
      std::string text = value ? value : "";
      free(value);
      return text;
    }
    case PLIST_DATA: {
      char* value = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &value, &length);
      std::string text = hex(value, length);
      free(value);
      return {{"data", text}};
    }
    case PLIST_UID: {
      uint64_t value = 0;
      plist_get_uid_val(node, &value);
      return {{"UID", value}};
    }
    case PLIST_ARRAY: {
      json array = json::array();
      for (uint32_t i = 0; i < plist_array_get_size(node); ++i) {
        array.push_back(libplistToJson(plist_array_get_item(node, i)));
      }
      return array;
    }
    case PLIST_DICT: {
      json object = json::object();
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, it, &key, &value);
        if (key == nullptr) break;
        object[key] = libplistToJson(value);
        free(key);
      }
      free(it);
      return object;
    }
    default:
      throw std::runtime_error("unexpected libplist node type");
  }
}

plist_t jsonToLibplist(const json& value) {
  if (value.is_boolean()) return plist_new_bool(value.get<bool>());
  if (value.is_number_integer()) return plist_new_uint(static_cast<uint64_t>(value.get<int64_t>()));
  if (value.is_string()) return plist_new_string(value.get<std::string>().c_str());
  if (value.is_array()) {
    plist_t array = plist_new_array();
    for (const auto& element : value) plist_array_append_item(array, jsonToLibplist(element));
    return array;
  }
  if (value.is_object() && value.size() == 1 && value.contains("UID")) {
    return plist_new_uid(value["UID"].get<uint64_t>());
  }
  if (value.is_object() && value.size() == 1 && value.contains("real")) {
    return plist_new_real(value["real"].get<double>());
  }
  if (value.is_object() && value.size() == 1 && value.contains("data")) {
    std::string text = value["data"];
    std::string bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
      bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    }
    return plist_new_data(bytes.data(), bytes.size());
  }
  plist_t dict = plist_new_dict();
  for (const auto& [k, v] : value.items()) plist_dict_set_item(dict, k.c_str(), jsonToLibplist(v));
  return dict;
}

json readWithLibplist(std::span<const uint8_t> bytes) {
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
                 &root);
  if (root == nullptr) throw std::runtime_error("libplist does not read the archive");
  PlistPtr owner(root);
  return libplistToJson(root);
}

std::vector<uint8_t> writeWithLibplist(const json& value) {
  PlistPtr root(jsonToLibplist(value));
  char* out = nullptr;
  uint32_t length = 0;
  plist_to_bin(root.get(), &out, &length);
  std::vector<uint8_t> bytes(out, out + length);
  free(out);
  return bytes;
}

json uid(uint32_t n) {
  return {{"UID", n}};
}

json classDict(const std::string& name, std::vector<std::string> chain) {
  return {{"$classname", name}, {"$classes", chain}};
}

json keyedArchive(json objects, uint32_t root = 1) {
  return {{"$archiver", "NSKeyedArchiver"},
          {"$version", 100000},
          {"$top", {{"root", uid(root)}}},
          {"$objects", std::move(objects)}};
}

class ArchiveOracle : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }
};

ObjectPtr sampleObjectGraph() {
  auto shared = Url::fileURLWithPath("/tmp/with space/%/\xff\xfe");
  auto info = MutableDictionary::make();
  info->setObject(shared, "NSURL");
  info->setObject(Error::errorWithDomain(kPOSIXErrorDomain, 2), "NSUnderlyingError");
  info->setObject(str("d\xc3\xa9j\xc3\xa0 vu \xf0\x9f\x98\x80"), "NSLocalizedDescription");
  auto everything = std::make_shared<Everything>();
  everything->small = -7;
  everything->large = 1LL << 50;
  everything->flag = true;
  everything->real = 0.25;
  everything->bytes = {0, 1, 2, 255};
  everything->object = shared;
  everything->list = {Number::numberWithBool(false), Number::numberWithDouble(-3.5), nullptr};
  everything->dollar = 3;
  return Array::make({Error::errorWithDomain(kCocoaErrorDomain, 4, info), everything,
                      IndexPath::make({1, 300, 2}), IndexPath::make({5}), IndexPath::make({}),
                      Uuid::withString("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5"),
                      SizeRecord::make(-1, true), str("bad \xc3 utf8"), Data::make({})});
}

TEST_F(ArchiveOracle, ArchivesLoadInLibplistAndPlistlibWithTheSameStructure) {
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(sampleObjectGraph());
  ASSERT_TRUE(data);
  json ours = readJson(data->span());
  json viaLibplist = readWithLibplist(data->span());
  json viaPython = plistlibRead(data->span());
  EXPECT_EQ(viaLibplist, ours);
  EXPECT_EQ(viaPython, ours);

  // The structure itself, as the other readers see it.
  EXPECT_EQ(viaPython["$archiver"], "NSKeyedArchiver");
  EXPECT_EQ(viaPython["$version"], 100000);
  EXPECT_EQ(viaPython["$top"], json({{"root", uid(1)}}));
  const json& objects = viaPython["$objects"];
  EXPECT_EQ(objects[0], "$null");
  const json& root = objects[1];
  EXPECT_EQ(objects[root["$class"]["UID"].get<int>()],
            classDict("NSArray", {"NSArray", "NSObject"}));
  const json& elements = root["NS.objects"];
  ASSERT_EQ(elements.size(), 9u);
  const json& error = objects[elements[0]["UID"].get<int>()];
  EXPECT_EQ(error["NSCode"], 4);
  EXPECT_EQ(objects[error["NSDomain"]["UID"].get<int>()], "NSCocoaErrorDomain");
  const json& userInfo = objects[error["NSUserInfo"]["UID"].get<int>()];
  EXPECT_EQ(objects[userInfo["$class"]["UID"].get<int>()]["$classname"], "NSMutableDictionary");
  EXPECT_EQ(userInfo["NS.keys"].size(), 3u);
  const json& path = objects[elements[2]["UID"].get<int>()];
  EXPECT_EQ(path["NSIndexPathLength"], 3);
  EXPECT_EQ(objects[path["NSIndexPathData"]["UID"].get<int>()], json({{"data", "01ac0202"}}));
  const json& single = objects[elements[3]["UID"].get<int>()];
  EXPECT_EQ(single["NSIndexPathValue"], 5);
  const json& uuid = objects[elements[5]["UID"].get<int>()];
  EXPECT_EQ(uuid["NS.uuidbytes"], json({{"data", "ffffeeeeddddccccbbbbaaaa000001f5"}}));
  const json& everything = objects[elements[1]["UID"].get<int>()];
  EXPECT_EQ(everything["$$dollar"], 3);
  // The URL is one object, referenced from the error's user info and from
  // the record alike; its string carries the path percent-encoded.
  std::vector<json> values = userInfo["NS.objects"];
  std::vector<json> keys = userInfo["NS.keys"];
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (objects[keys[i]["UID"].get<int>()] == "NSURL") {
      EXPECT_EQ(values[i], everything["object"]);
    }
  }
  const json& url = objects[everything["object"]["UID"].get<int>()];
  EXPECT_EQ(url["NS.base"], uid(0));
  EXPECT_EQ(objects[url["NS.relative"]["UID"].get<int>()], "file:///tmp/with%20space/%25/%FF%FE");
  // Invalid UTF-8 arrives as U+FFFD; valid non-ASCII text unchanged.
  EXPECT_EQ(objects[elements[7]["UID"].get<int>()], "bad \xef\xbf\xbd utf8");
}

TEST_F(ArchiveOracle, ArchivesWrittenByLibplistAndPlistlibLoad) {
  // An archive of plain Foundation values, written by hand the way another
  // keyed archiver would write it.
  json archive = keyedArchive(
      {"$null",
       {{"NS.objects", {uid(2), uid(3), uid(4), uid(5), uid(6), uid(7)}}, {"$class", uid(11)}},
       "h\xc3\xa9llo \xf0\x9f\x98\x80",
       42,
       true,
       {{"real", 2.5}},
       {{"data", "00ff10"}},
       {{"NS.keys", {uid(8)}}, {"NS.objects", {uid(9)}}, {"$class", uid(10)}},
       "key",
       "value",
       classDict("NSDictionary", {"NSDictionary", "NSObject"}),
       classDict("NSMutableArray", {"NSMutableArray", "NSArray", "NSObject"})});
  auto expected = Array::make({str("h\xc3\xa9llo \xf0\x9f\x98\x80"), Number::numberWithInteger(42),
                               Number::numberWithBool(true), Number::numberWithDouble(2.5),
                               Data::make({0, 0xff, 0x10}),
                               Dictionary::withStringKeys({{"key", str("value")}})});
  for (const auto& [writer, bytes] : {std::pair{"libplist", writeWithLibplist(archive)},
                                      std::pair{"plistlib", plistlibWrite(archive)}}) {
    ErrorPtr error;
    auto root = KeyedUnarchiver::unarchivedObjectOfClasses(
        {&Array::classInfo(), &Dictionary::classInfo(), &String::classInfo(), &Number::classInfo(),
         &Data::classInfo()},
        bytes, &error);
    ASSERT_TRUE(root) << writer << ": " << describe(error);
    EXPECT_TRUE(root->isKindOfClass(MutableArray::classInfo())) << writer;
    EXPECT_TRUE(root->isEqual(*expected)) << writer << ": " << root->description();
    auto array = cast<Array>(root);
    EXPECT_EQ(array->objectAs<Number>(2)->kind(), Number::Kind::Bool) << writer;
    EXPECT_EQ(array->objectAs<Number>(3)->kind(), Number::Kind::Real) << writer;
  }
}

TEST_F(ArchiveOracle, UidsOfOneTwoAndFourBytesFromOtherWritersLoad) {
  // 70000 distinct strings: their UIDs need one, two and four bytes.
  const uint32_t count = 70000;
  json objects = json::array({"$null"});
  json elements = json::array();
  for (uint32_t i = 0; i < count; ++i) elements.push_back(uid(i + 3));
  objects.push_back({{"NS.objects", elements}, {"$class", uid(2)}});
  objects.push_back(classDict("NSArray", {"NSArray", "NSObject"}));
  for (uint32_t i = 0; i < count; ++i) objects.push_back("s" + std::to_string(i));
  json archive = keyedArchive(objects);
  for (const auto& [writer, bytes] : {std::pair{"plistlib", plistlibWrite(archive)},
                                      std::pair{"libplist", writeWithLibplist(archive)}}) {
    ErrorPtr error;
    auto root = cast<Array>(KeyedUnarchiver::unarchiveObjectWithData(bytes, &error));
    ASSERT_TRUE(root) << writer << ": " << describe(error);
    ASSERT_EQ(root->count(), count) << writer;
    for (uint32_t i : {0u, 252u, 253u, 300u, 65532u, 65533u, 69999u}) {
      EXPECT_TRUE(root->objectAtIndex(i)->isEqual(*str("s" + std::to_string(i)))) << writer << i;
    }
  }
}

TEST_F(ArchiveOracle, LargeArchivesOfTheProjectLoadInBothOracles) {
  auto root = MutableArray::make();
  for (int i = 0; i < 10000; ++i) root->addObject(str("item " + std::to_string(i)));
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
  json ours = readJson(data->span());
  EXPECT_EQ(readWithLibplist(data->span()), ours);
  EXPECT_EQ(plistlibRead(data->span()), ours);
  EXPECT_EQ(ours["$objects"][1]["NS.objects"][9999], uid(10001));
}

}  // namespace
}  // namespace qx::testing
