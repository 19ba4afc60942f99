// Malformed keyed archives: each decodes to nil with a coder error, never a
// crash.
#include <gtest/gtest.h>

#include <fstream>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

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

// data/refused-archives.jsonl: one damaged archive a line, in the JSON form of
// ArchiveTestSupport.h, with a fragment of the error it must be refused with.
TEST_F(ArchiveRejects, EveryKindOfDamageAReaderMustRefuse) {
  std::ifstream cases(std::string(QX_SOURCE_DIR) +
                      "/tests/platform/archive/data/refused-archives.jsonl");
  int count = 0;
  for (std::string line; std::getline(cases, line); ++count) {
    const json row = json::parse(line);
    expectRefused(writeJson(row["archive"]), row["refused with"].get<std::string>());
  }
  EXPECT_EQ(count, 35);
  const uint8_t text[] = "not a plist at all, just some text that is long enough";
  expectRefused(std::span(text, sizeof text), "binary property list");

  // The undamaged forms decode.
  ErrorPtr error;
  EXPECT_TRUE(KeyedUnarchiver::unarchiveObjectWithData(
      writeJson(keyedArchive(json::array({"$null", "x"}))), &error));
  auto path = cast<IndexPath>(KeyedUnarchiver::unarchiveObjectWithData(
      writeJson(keyedArchive(
          json::array({"$null",
                       {{"NSIndexPathLength", 3}, {"NSIndexPathData", uid(2)}, {"$class", uid(3)}},
                       {{"data", "01ac0202"}},
                       classDict("NSIndexPath", {"NSIndexPath", "NSObject"})}))),
      &error));
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

}  // namespace
}  // namespace qx::testing
