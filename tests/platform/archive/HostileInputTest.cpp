// Hostile input for the property-list reader and the keyed unarchiver: each
// is refused with a reason, or read as it should be, and never crashes.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

// "" when `text` holds every fragment of `expected` (a string or a list).
std::string missing(const std::string& text, const json& expected) {
  for (const json& fragment : expected.is_array() ? expected : json::array({expected})) {
    if (text.find(fragment.get<std::string>()) == std::string::npos) return text;
  }
  return "";
}

// Plain values and NSObject are not in the registry, which holds the classes
// that decode from class dictionaries.
ClassSet classesNamed(const json& names) {
  ClassSet set;
  for (const json& name : names) {
    const ClassInfo* plain[] = {&Object::classInfo(), &String::classInfo(), &Number::classInfo(),
                                &Data::classInfo()};
    auto found = std::find_if(std::begin(plain), std::end(plain),
                              [&](const ClassInfo* cls) { return cls->name() == name; });
    auto entry = ClassRegistry::lookup(name.get<std::string>());
    set.add(found != std::end(plain) ? **found : *entry->cls);
  }
  return set;
}

// A plist row: the reader refuses it with the fragment, and so does the
// unarchiver, or reads it as the JSON value given.
void checkPlist(const json& row) {
  std::vector<uint8_t> bytes = unhex(row["plist"]);
  std::string why;
  bool parsed = BinaryPlist::parse(bytes, &why).has_value();
  if (row.contains("reads as")) {
    ASSERT_TRUE(parsed) << why;
    EXPECT_EQ(readJson(bytes), row["reads as"]);
    return;
  }
  EXPECT_FALSE(parsed);
  EXPECT_NE(why, "");
  EXPECT_EQ(missing(why, row["refused with"]), "");
  ErrorPtr error;
  EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(bytes, &error));
  EXPECT_TRUE(error && error->code() == kCoderReadCorruptError);
}

// An archive row: decoded without restriction, or with the classes named,
// it decodes (to the description given), or gives nil and a coder error
// holding the fragments. Refused without restriction, it is refused under
// any set too.
void checkArchive(const json& row) {
  std::vector<uint8_t> bytes =
      row.contains("written by") ? plistlibWrite(row["archive"]) : writeJson(row["archive"]);
  const bool restricted = row.contains("classes");
  ErrorPtr error;
  ObjectPtr decoded = restricted ? KeyedUnarchiver::unarchivedObjectOfClasses(
                                       classesNamed(row["classes"]), bytes, &error)
                                 : KeyedUnarchiver::unarchiveObjectWithData(bytes, &error);
  if (!row.contains("refused with")) {
    ASSERT_TRUE(decoded) << describe(error);
    if (row.contains("decodes as")) {
      EXPECT_EQ(decoded->description(), row["decodes as"]);
    }
    return;
  }
  EXPECT_FALSE(decoded);
  ASSERT_TRUE(error);
  EXPECT_EQ(std::pair(error->domain(), error->code()),
            std::pair(std::string(kCocoaErrorDomain), kCoderReadCorruptError));
  EXPECT_EQ(missing(describe(error), row["refused with"]), "");
  if (restricted) return;
  ErrorPtr anySet;
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses({&Object::classInfo()}, bytes, &anySet));
  EXPECT_TRUE(anySet);
}

// data/*.jsonl: one input a line, in the JSON form of ArchiveTestSupport.h:
//   "plist": the bytes in hex, or "archive": a keyed archive as JSON, written by the project's
//   writer or, "written by" plistlib, by the oracle (decoded under "classes" when given);
//   "refused with": a fragment or list of fragments of the reason, or
//   "reads as" (plists), "decodes"/"decodes as" (archives).
TEST(ArchiveHostileInput, EachDataRowIsRefusedWithItsReasonOrReadAsGiven) {
  registerTestClasses();
  std::map<std::string, int> rows;
  for (const auto& file : std::filesystem::directory_iterator(std::string(QX_SOURCE_DIR) +
                                                              "/tests/platform/archive/data")) {
    std::ifstream in(file.path());
    for (std::string line; std::getline(in, line);) {
      const json row = json::parse(line);
      SCOPED_TRACE(file.path().filename().string() + ": " + row.value("why", line.substr(0, 120)));
      row.contains("plist") ? checkPlist(row) : checkArchive(row);
      ++rows[file.path().filename()];
    }
  }
  EXPECT_EQ(rows, (std::map<std::string, int>{{"archives.jsonl", 77}, {"plists.jsonl", 45}}));
}

TEST(ArchiveHostileInput, EveryTruncationAndByteFlipOfARealArchive) {
  registerTestClasses();
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

}  // namespace
}  // namespace qx::testing
