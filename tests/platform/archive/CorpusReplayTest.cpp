// Replays the fuzzer's seed corpus (real archives, and any input the fuzzer
// once crashed on) through the unarchiver, unrestricted and restricted.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"
#include "tests/platform/archive/ArchiveTestSupport.h"

namespace qx::testing {
namespace {

TEST(ArchiveCorpus, EverySeedDecodesWithoutCrashing) {
  registerTestClasses();
  std::filesystem::path folder = std::filesystem::path(QX_SOURCE_DIR) / "fuzz/corpus/unarchiver";
  ASSERT_TRUE(std::filesystem::is_directory(folder)) << folder;
  const ClassSet restricted{&Array::classInfo(),      &Dictionary::classInfo(),
                            &String::classInfo(),     &Number::classInfo(),
                            &IndexPath::classInfo(),  &SizeRecord::classInfo(),
                            &NestingNode::classInfo()};
  std::size_t files = 0;
  std::size_t decoded = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    ++files;
    std::vector<uint8_t> bytes = readFile(entry.path());
    ErrorPtr error;
    ObjectPtr object = KeyedUnarchiver::unarchiveObjectWithData(bytes, &error);
    EXPECT_FALSE(object && error) << entry.path();
    if (object || !error) ++decoded;
    ErrorPtr restrictedError;
    ObjectPtr limited =
        KeyedUnarchiver::unarchivedObjectOfClasses(restricted, bytes, &restrictedError);
    EXPECT_FALSE(limited && restrictedError) << entry.path();
  }
  EXPECT_GE(files, 20u);
  // The seeds the corpus generator wrote are real archives.
  EXPECT_GE(decoded, 20u);
}

}  // namespace
}  // namespace qx::testing
