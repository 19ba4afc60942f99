// Malformed keyed archives: each decodes to nil with a coder error, never a
// crash; and the fuzzer's seed corpus replayed.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

json uids(std::initializer_list<uint32_t> values) {
  json array = json::array();
  for (uint32_t value : values) array.push_back(uid(value));
  return array;
}

json chainOf(const std::string& name) {
  return classDict(name, {name, "NSObject"});
}

// The root (UID 1) holds `keys` and has class `cls` (UID 2); `more` follow from UID 3.
json objectArchive(json keys, json cls, std::vector<json> more = {}) {
  keys["$class"] = uid(2);
  json objects = json::array({"$null", keys, cls});
  for (json& object : more) objects.push_back(std::move(object));
  return keyedArchive(objects);
}

json arrayOf(json elements, std::vector<json> more = {}) {
  return objectArchive({{"NS.objects", elements}}, chainOf("NSArray"), std::move(more));
}

json record(json keys) {
  return objectArchive(std::move(keys), chainOf("QXFileSizeItem"));
}

json indexPath(int64_t length, std::vector<uint8_t> leb) {
  return objectArchive({{"NSIndexPathLength", length}, {"NSIndexPathData", uid(3)}},
                       chainOf("NSIndexPath"), {{{"data", hex(leb)}}});
}

json nestedArrays(uint32_t levels) {
  json objects = json::array({"$null", chainOf("NSArray")});
  for (uint32_t i = 0; i < levels; ++i) {
    objects.push_back(
        {{"NS.objects", i + 1 == levels ? uids({}) : uids({i + 3})}, {"$class", uid(1)}});
  }
  return keyedArchive(objects, uid(2));
}

class ArchiveRejects : public ::testing::Test {
 protected:
  void SetUp() override { registerTestClasses(); }

  // Both the unrestricted and a restricted decode give nil and a coder error
  // whose description contains `fragment`.
  static void expectRefused(std::span<const uint8_t> bytes, const std::string& fragment) {
    ErrorPtr error;
    EXPECT_EQ(KeyedUnarchiver::unarchiveObjectWithData(bytes, &error), nullptr) << fragment;
    ASSERT_TRUE(error) << "no error for an archive that should be refused (" << fragment << ")";
    EXPECT_EQ(error->domain(), kCocoaErrorDomain);
    EXPECT_EQ(error->code(), kCoderReadCorruptError);
    EXPECT_NE(describe(error).find(fragment), std::string::npos) << describe(error);
    ErrorPtr restricted;
    EXPECT_EQ(
        KeyedUnarchiver::unarchivedObjectOfClasses({&Object::classInfo()}, bytes, &restricted),
        nullptr);
    EXPECT_TRUE(restricted) << fragment;
  }
};

TEST_F(ArchiveRejects, EveryKindOfDamageAReaderMustRefuse) {
  json plain = keyedArchive(json::array({"$null", "x"}));
  auto edited = [&](const char* key, json value) {
    json archive = plain;
    if (value.is_discarded()) {
      archive.erase(key);
    } else {
      archive[key] = std::move(value);
    }
    return archive;
  };
  const std::pair<json, std::string> cases[] = {
      // References.
      {keyedArchive(json::array({"$null", "x"}), uid(5)), "beyond"},
      {arrayOf(uids({1000})), "beyond"},
      {arrayOf({1}), "not a UID"},
      {objectArchive({{"NS.base", uid(0)}, {"NS.relative", "file:///tmp"}}, chainOf("NSURL")),
       "NS.relative"},
      {keyedArchive(json::array({"$null", "x"}), 1), "root"},
      // Classes.
      {keyedArchive(json::array({"$null", {{"NS.objects", uids({})}}})), "no $class"},
      {keyedArchive(json::array({"$null", {{"NS.objects", uids({})}, {"$class", "NSArray"}}})),
       "$class"},
      {keyedArchive(json::array({"$null", {{"NS.objects", uids({})}, {"$class", uid(99)}}})),
       "$class"},
      {objectArchive({{"NS.objects", uids({})}}, "NSArray"), "class dictionary"},
      {objectArchive({{"NS.objects", uids({})}}, {{"$classname", 3}}), "$classname"},
      {objectArchive({{"NS.objects", uids({})}},
                     classDict("NSSomethingElse", {"NSSomethingElse", "NSArray", "NSObject"})),
       "unknown class NSSomethingElse"},
      // Strings travel as plain values: a dictionary claiming to be one is unknown.
      {objectArchive({{"NS.string", "x"}}, {{"$classname", "NSString"}}), "unknown class NSString"},
      // Shapes and value types.
      {objectArchive({{"NS.keys", uids({3, 3})}, {"NS.objects", uids({3})}},
                     chainOf("NSDictionary"), {"k"}),
       "differ in length"},
      {record({{"size", "12"}}), "\"size\""},
      {record({{"busy", "YES"}}), "\"busy\""},
      {record({{"size", {{"real", 1.5}}}}), "not an integer"},
      {arrayOf({{"x", uid(0)}}), "not an array"},
      {arrayOf(uids({3}), {json::array()}), "not an object"},
      {objectArchive({{"NSDomain", uid(3)}, {"NSCode", 1}}, chainOf("NSError"), {5}), "NSDomain"},
      // Cycles and depth.
      {arrayOf(uids({1})), "contains itself"},
      {keyedArchive(
           json::array({"$null",
                        {{"NS.objects", uids({2})}, {"$class", uid(4)}},
                        {{"NS.keys", uids({3})}, {"NS.objects", uids({1})}, {"$class", uid(5)}},
                        "k",
                        chainOf("NSArray"),
                        chainOf("NSDictionary")})),
       "contains itself"},
      {nestedArrays(300), "deeper than 256"},
      // LEB128 index paths: truncated, wider than 64 bits, counts that differ.
      {indexPath(2, {0x01, 0xac}), "NSIndexPathData"},
      {indexPath(2, {0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}),
       "NSIndexPathData"},
      {indexPath(4, {0x01, 0xac, 0x02, 0x02}), "NSIndexPathData"},
      {indexPath(2, {0x01, 0xac, 0x02, 0x02}), "NSIndexPathData"},
      {indexPath(int64_t{1} << 60, {0x01, 0x02}), "NSIndexPathData"},
      {indexPath(17, std::vector<uint8_t>(16, 0x05)), "NSIndexPathData"},
      {indexPath(-1, {}), "negative"},
      // Not a keyed archive.
      {edited("$archiver", "Other"), "$archiver"},
      {edited("$version", 99999), "$version"},
      {edited("$top", 1), "$top"},
      {edited("$objects", json::array()), "$objects"},
      {edited("$objects", json::value_t::discarded), "$objects"},
      {json::array(), "top level"},
  };
  for (const auto& [archive, fragment] : cases) expectRefused(writeJson(archive), fragment);
  const uint8_t text[] = "not a plist at all, just some text that is long enough";
  expectRefused(std::span(text, sizeof text), "binary property list");

  // The undamaged forms decode.
  ErrorPtr error;
  EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(writeJson(plain), &error));
  auto path = cast<IndexPath>(KeyedUnarchiver::unarchiveObjectWithData(
      writeJson(indexPath(3, {0x01, 0xac, 0x02, 0x02})), &error));
  ASSERT_TRUE(path) << describe(error);
  EXPECT_EQ(path->indexes(), (std::vector<uint64_t>{1, 300, 2}));
  // Paths longer than what an index path or the decoder holds in place.
  for (std::size_t length : {5, 17}) {
    std::vector<uint64_t> indexes(length);
    for (std::size_t i = 0; i < length; ++i) indexes[i] = i * 1000;
    auto back = cast<IndexPath>(KeyedUnarchiver::unarchiveObjectWithData(
        *KeyedArchiver::archivedDataWithRootObject(IndexPath::make(indexes)), &error));
    ASSERT_TRUE(back) << describe(error);
    EXPECT_EQ(back->indexes(), indexes);
    EXPECT_TRUE(back->isEqual(*IndexPath::make(indexes)));
  }
}

TEST_F(ArchiveRejects, EveryTruncationAndByteFlipOfARealArchive) {
  auto error = Error::errorWithDomain(
      kPOSIXErrorDomain, 2,
      Dictionary::withStringKeys(
          {{"NSURL", Url::fileURLWithPath("/tmp/a b")}, {"path", IndexPath::make({1, 300, 2})}}));
  std::vector<uint8_t> bytes =
      archived(Array::make({error, SizeRecord::make(5, true), Uuid::make(), str("\xc3\xa9")}));
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    ErrorPtr e;
    EXPECT_EQ(KeyedUnarchiver::unarchiveObjectWithData(std::span(bytes.data(), length), &e),
              nullptr);
    EXPECT_TRUE(e) << length;
  }
  // A flipped byte may still decode (a changed integer), but never crashes
  // and never fails without saying so; only a root turned into UID 0 (nil)
  // gives nil without an error.
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    for (uint8_t mask : {0x01, 0x80, 0xff}) {
      std::vector<uint8_t> damaged = bytes;
      damaged[i] ^= mask;
      ErrorPtr e;
      if (KeyedUnarchiver::unarchiveObjectWithData(damaged, &e) || e) continue;
      EXPECT_EQ(readJson(damaged)["$top"]["root"], uid(0)) << i;
    }
  }
}

TEST_F(ArchiveRejects, EverySeedOfTheFuzzCorpusDecodesWithoutCrashing) {
  std::filesystem::path folder = std::filesystem::path(QX_SOURCE_DIR) / "fuzz/corpus/unarchiver";
  ASSERT_TRUE(std::filesystem::is_directory(folder)) << folder;
  const ClassSet restricted{&Array::classInfo(),      &Dictionary::classInfo(),
                            &String::classInfo(),     &Number::classInfo(),
                            &IndexPath::classInfo(),  &SizeRecord::classInfo(),
                            &NestingNode::classInfo()};
  std::size_t decoded = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::vector<uint8_t> bytes = readFile(entry.path());
    ErrorPtr error;
    ObjectPtr object = KeyedUnarchiver::unarchiveObjectWithData(bytes, &error);
    EXPECT_FALSE(object && error) << entry.path();
    if (object || !error) ++decoded;
    ErrorPtr restrictedError;
    object = KeyedUnarchiver::unarchivedObjectOfClasses(restricted, bytes, &restrictedError);
    EXPECT_FALSE(object && restrictedError) << entry.path();
  }
  // The seeds the corpus generator wrote are real archives.
  EXPECT_GE(decoded, 20u);
}

}  // namespace
}  // namespace qx::testing
