// Size calculations on real trees, with a report that keeps each batch as it
// is handed over and answers as the case needs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <optional>

#include "platform/foundation/Foundation.h"
#include "sizes/QXFileSizes.h"
#include "tests/support/ErrorText.h"
#include "tests/support/AsNobody.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

// The records of a result or a report, one text each: "/<index path> <size>[ busy]", busy while the
// total may still grow.
using Records = std::vector<std::string>;

struct Outcome {
  Records records;
  bool nil;
  ErrorPtr error;
};

class SizesTest : public ::testing::Test {
 protected:
  // `count` files "<folder>/NNNN" of `bytes` bytes each.
  void files(const std::string& folder, int count, std::size_t bytes) const {
    tree.folder(folder);
    for (int i = 0; i < count; ++i)
      tree.file(folder + "/" + std::to_string(1000 + i), std::string(bytes, 'x'));
  }

  static Records recordsOf(const QXSizeUpdates& updates) {
    Records records;
    for (const QXSizeUpdate& update : updates) {
      std::string text = "/";
      for (uint64_t index : update.indexPath->indexes())
        text += (text.size() > 1 ? "/" : "") + std::to_string(index);
      records.push_back(text + " " + std::to_string(update.item->size()) +
                        (update.item->busy() ? " busy" : ""));
    }
    return records;
  }
  Outcome sizes(const std::vector<std::string>& items, const QXFileSizes::Report& report) const {
    std::vector<ObjectPtr> urls;
    for (const auto& item : items) urls.push_back(Url::fileURLWithPath(tree.path(item)));
    ErrorPtr error = Error::errorWithDomain("unset", -1);
    std::optional<QXSizeUpdates> result =
        QXFileSizes::getSizesWithUrls(Array::make(std::move(urls)), report, &error);
    return {result ? recordsOf(*result) : Records{}, !result, error};
  }
  // Every report kept as it was handed over, answered with `answer`.
  Outcome sizes(const std::vector<std::string>& items) {
    return sizes(items, [this](const QXSizeUpdates& batch) {
      reports.push_back(recordsOf(batch));
      return answer;
    });
  }

  // A file of `bytes` whose allocation reaches `allocated` bytes.
  void allocated(const std::string& relative, std::size_t bytes, off_t allocated) const {
    tree.file(relative, std::string(bytes, 'd'));
    int fd = ::open(tree.path(relative).c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, allocated), 0);
    ::close(fd);
  }
  int64_t slack(const std::string& relative) const {
    struct stat st;
    lstat(tree.path(relative).c_str(), &st);
    return static_cast<int64_t>(st.st_blocks) * 512 - st.st_size;
  }

  test::TempTree tree{"qx-sizes"};
  bool answer = true;
  std::vector<Records> reports;
};

TEST_F(SizesTest, ResultTreeOfFilesFoldersAndLinks) {
  tree.file("one", std::string(1234, 'x'));
  EXPECT_EQ(sizes({"one"}).records, (Records{"/ 1234"}));

  // Two folders: an artificial root, and the folders in byte order of their paths.
  tree.file("A/x", std::string(10, 'x'));
  tree.file("A/y", std::string(20, 'x'));
  tree.file("B/z", std::string(300, 'x'));
  tree.file("B/inner/w", std::string(4000, 'x'));
  Outcome two = sizes({"B", "A"});
  EXPECT_EQ(two.error, nullptr);
  EXPECT_EQ(two.records, (Records{"/ 4330", "/0 30", "/0/0 10", "/0/1 20", "/1 4300", "/1/0 4000",
                                  "/1/0/0 4000", "/1/1 300"}));

  // Links count as themselves, never as what they point to.
  tree.link("links/to-B", tree.path("B"));
  tree.link("links/to-nothing", "nowhere");
  Outcome links = sizes({"links"});
  ASSERT_EQ(links.records.size(), 3u);
  EXPECT_EQ(links.records[0], "/ " + std::to_string(tree.path("B").size() + 7));

  Outcome none = sizes({});
  EXPECT_FALSE(none.nil);
  EXPECT_TRUE(none.records.empty());
  EXPECT_EQ(none.error, nullptr);
  EXPECT_TRUE(reports.empty()) << "fewer than 100 items: no report";
}

// Reports come after every 100 items that are not folders; the next batch
// starts again with the folders still open.
TEST_F(SizesTest, EveryHundredFilesMakeAReportWithTheOpenFoldersBusy) {
  for (int i = 0; i < 100; ++i) tree.file("f/" + std::to_string(1000 + i), std::string(i, 'x'));
  Outcome hundred = sizes({"f"});
  ASSERT_EQ(reports.size(), 1u);
  Records first = reports.at(0);
  ASSERT_EQ(first.size(), 101u);
  EXPECT_EQ(first[0], "/ 4950 busy");
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(first[i + 1], "/" + std::to_string(i) + " " + std::to_string(i));
  EXPECT_EQ(hundred.records, (Records{"/ 4950"}));

  for (int i = 0; i < 30; ++i) tree.folder("top/empty" + std::to_string(100 + i));
  files("top/sub", 150, 2);
  Outcome mixed = sizes({"top"});
  ASSERT_EQ(reports.size(), 2u) << "30 empty folders and 150 files make one report";
  Records second = reports.at(1);
  ASSERT_EQ(second.size(), 1u + 31u + 100u);
  EXPECT_EQ(second[1], "/0 0") << "an empty folder is final at once";
  EXPECT_EQ(second[31], "/30 200 busy");
  ASSERT_EQ(mixed.records.size(), 2u + 50u);
  EXPECT_EQ(Records(mixed.records.begin(), mixed.records.begin() + 3),
            (Records{"/ 300", "/30 300", "/30/100 2"}));
}

// NO to the first report, or no report to ask when the first is due, stops the walk: the batch it
// carried, made final, is the result.
TEST_F(SizesTest, NoToTheFirstReportStopsWithThatBatchMadeFinal) {
  files("f", 250, 1);
  answer = false;
  Outcome outcome = sizes({"f"});
  EXPECT_EQ(outcome.error, nullptr);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports.at(0)[0], "/ 100 busy");
  ASSERT_EQ(outcome.records.size(), 101u);
  EXPECT_EQ(outcome.records[0] + ", " + outcome.records[100], "/ 100, /99 1");
  EXPECT_EQ(sizes({"f"}, nullptr).records, outcome.records);

  // A resource-fork query that found nothing leaves ENODATA behind it; a stop
  // right after it is caught by the late errno check.
  files("g", 99, 1);
  allocated("g/1999-padded", 10, 16384);
  tree.file("g/2000-after", "1");
  Outcome late = sizes({"g"});
  EXPECT_TRUE(late.nil);
  EXPECT_EQ(test::errorText(late.error),
            "ENODATA: Error calculating file sizes | Couldn't retrieve folder hierarchy item for "
            "folder at path \"" +
                tree.path("g") + "\". No data available");
}

TEST_F(SizesTest, UnreadableFolderIsASoftErrorAndMissingPathAHardOne) {
  Outcome missing = sizes({"missing"});
  EXPECT_TRUE(missing.nil);
  EXPECT_EQ(test::errorText(missing.error),
            "ENOENT: Error calculating file sizes | Couldn't get folder hierarchy item at path \"" +
                tree.path("missing") + "\". No such file or directory");

  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  tree.folder("top/a-locked", 0700);
  tree.file("top/a-locked/hidden", std::string(999, 'x'));
  tree.folder("top/b-locked", 0700);
  tree.file("top/c", std::string(7, 'x'));
  Outcome outcome;
  {
    test::AsNobody nobody;
    outcome = sizes({"top"});
  }
  EXPECT_FALSE(outcome.nil);
  EXPECT_EQ(outcome.records, (Records{"/ 7", "/0 0", "/1 0", "/2 7"}));
  EXPECT_EQ(test::errorText(outcome.error),
            "EACCES: Couldn't read folder contents for folder at path \"" +
                tree.path("top/a-locked") + "\". | Permission denied")
      << "unwrapped, and the first one";
}

// A file whose allocation exceeds its data by 4096 bytes or more is asked
// for its resource fork, whose length is added.
TEST_F(SizesTest, ResourceForkCountsOnlyWithFourKilobytesOfSlack) {
  const std::string fork(700, 'r');
  allocated("top/a-padded", 10, 16384);
  ASSERT_EQ(setxattr(tree.path("top/a-padded").c_str(), "user.com.apple.ResourceFork", fork.data(),
                     fork.size(), 0),
            0);
  allocated("top/b-exact", 4096, 8192);  // asked, has none
  tree.file("top/c-plain", std::string(10, 'x'));
  setxattr(tree.path("top/c-plain").c_str(), "user.com.apple.ResourceFork", "tiny", 4, 0);
  ASSERT_EQ(slack("top/b-exact"), 4096);
  if (slack("top/c-plain") >= 4096) GTEST_SKIP() << "the attribute took a block";
  Outcome outcome = sizes({"top"});
  EXPECT_EQ(outcome.error, nullptr);
  // 10 bytes and a fork of 700, 4096 bytes and no fork, 10 bytes whose fork is not asked for
  EXPECT_EQ(outcome.records, (Records{"/ 4816", "/0 710", "/1 4096", "/2 10"}));
}

}  // namespace
}  // namespace qx
