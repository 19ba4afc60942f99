// Size calculations through a real connection to a client in the test that
// answers each report as the case needs, and folder listings along index
// paths, on real trees.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>

#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "sizes/QXFileSizes.h"
#include "tests/support/ResponseLink.h"
#include "tests/support/SizeRecord.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

using test::SizeRecord;
using Records = std::vector<SizeRecord>;
using Paths = std::vector<std::string>;

// Runs the calling thread with the file-system identity of nobody
// (setfsuid/setfsgid are per thread), so that permissions apply to root too.
class AsNobody {
 public:
  AsNobody() {
    setfsgid(65534);
    setfsuid(65534);
  }
  ~AsNobody() {
    setfsuid(0);
    setfsgid(0);
  }
};

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
  UrlPtr url(const std::string& relative) const {
    return Url::fileURLWithPath(tree.path(relative));
  }

  Outcome sizes(const std::vector<std::string>& items,
                const std::shared_ptr<XpcConnection>& worker) const {
    std::vector<ObjectPtr> urls;
    for (const auto& item : items) urls.push_back(url(item));
    ErrorPtr error = Error::errorWithDomain("unset", -1);
    ArrayPtr result = QXFileSizes::getSizesWithUrls(Array::make(std::move(urls)), worker, &error);
    return {SizeRecord::listOf(result), result == nullptr, error};
  }
  Outcome sizes(const std::vector<std::string>& items) const { return sizes(items, link.worker); }
  Records report(std::size_t n) { return SizeRecord::listOf(link.client->reports().at(n)); }

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
  std::atomic<bool> answer{true};
  test::ResponseLink link{[this](int) { return answer.load(); }};
};

TEST_F(SizesTest, ResultTreeOfFilesFoldersAndLinks) {
  tree.file("one", std::string(1234, 'x'));
  EXPECT_EQ(sizes({"one"}).records, (Records{{{}, 1234, false}}));

  // Two folders: an artificial root, and the folders in byte order of their paths.
  tree.folder("A");
  tree.file("A/x", std::string(10, 'x'));
  tree.file("A/y", std::string(20, 'x'));
  tree.folder("B");
  tree.file("B/z", std::string(300, 'x'));
  tree.folder("B/inner");
  tree.file("B/inner/w", std::string(4000, 'x'));
  Outcome two = sizes({"B", "A"});
  EXPECT_EQ(two.error, nullptr);
  EXPECT_EQ(two.records, (Records{{{}, 4330, false},
                                  {{0}, 30, false},
                                  {{0, 0}, 10, false},
                                  {{0, 1}, 20, false},
                                  {{1}, 4300, false},
                                  {{1, 0}, 4000, false},
                                  {{1, 0, 0}, 4000, false},
                                  {{1, 1}, 300, false}}));

  // Links count as themselves, never as what they point to.
  tree.folder("links");
  tree.link("links/to-B", tree.path("B"));
  tree.link("links/to-nothing", "nowhere");
  Outcome links = sizes({"links"});
  ASSERT_EQ(links.records.size(), 3u);
  EXPECT_EQ(links.records[0].size, static_cast<int64_t>(tree.path("B").size() + 7));

  Outcome none = sizes({});
  EXPECT_FALSE(none.nil);
  EXPECT_TRUE(none.records.empty());
  EXPECT_EQ(none.error, nullptr);
  EXPECT_TRUE(link.client->reports().empty()) << "fewer than 100 items: no report";
}

// Reports come after every 100 items that are not folders; the next batch
// starts again with the folders still open.
TEST_F(SizesTest, EveryHundredFilesMakeAReportWithTheOpenFoldersBusy) {
  tree.folder("f");
  for (int i = 0; i < 100; ++i) tree.file("f/" + std::to_string(1000 + i), std::string(i, 'x'));
  Outcome hundred = sizes({"f"});
  ASSERT_EQ(link.client->reports().size(), 1u);
  Records first = report(0);
  ASSERT_EQ(first.size(), 101u);
  EXPECT_EQ(first[0], (SizeRecord{{}, 4950, true}));
  for (uint64_t i = 0; i < 100; ++i) EXPECT_EQ(first[i + 1], (SizeRecord{{i}, int64_t(i), false}));
  EXPECT_EQ(hundred.records, (Records{{{}, 4950, false}}));

  tree.folder("top");
  for (int i = 0; i < 30; ++i) tree.folder("top/empty" + std::to_string(100 + i));
  files("top/sub", 150, 2);
  Outcome mixed = sizes({"top"});
  ASSERT_EQ(link.client->reports().size(), 2u) << "30 empty folders and 150 files make one report";
  Records second = report(1);
  ASSERT_EQ(second.size(), 1u + 31u + 100u);
  EXPECT_EQ(second[1], (SizeRecord{{0}, 0, false})) << "an empty folder is final at once";
  EXPECT_EQ(second[31], (SizeRecord{{30}, 200, true}));
  ASSERT_EQ(mixed.records.size(), 2u + 50u);
  EXPECT_EQ(mixed.records[0], (SizeRecord{{}, 300, false}));
  EXPECT_EQ(mixed.records[1], (SizeRecord{{30}, 300, false}));
  EXPECT_EQ(mixed.records[2], (SizeRecord{{30, 100}, 2, false}));
}

TEST_F(SizesTest, NoToTheFirstReportStopsWithThatBatchMadeFinal) {
  files("f", 250, 1);
  answer = false;
  Outcome outcome = sizes({"f"});
  EXPECT_EQ(outcome.error, nullptr);
  ASSERT_EQ(link.client->reports().size(), 1u);
  EXPECT_EQ(report(0)[0], (SizeRecord{{}, 100, true}));
  ASSERT_EQ(outcome.records.size(), 101u);
  EXPECT_EQ(outcome.records[0], (SizeRecord{{}, 100, false}));
  EXPECT_EQ(outcome.records[100], (SizeRecord{{99}, 1, false}));

  // A resource-fork query that found nothing leaves ENODATA behind it; a stop
  // right after it is caught by the late errno check.
  files("g", 99, 1);
  allocated("g/1999-padded", 10, 16384);
  tree.file("g/2000-after", "1");
  Outcome late = sizes({"g"});
  EXPECT_TRUE(late.nil);
  ASSERT_NE(late.error, nullptr);
  EXPECT_EQ(late.error->code(), ENODATA);
  EXPECT_EQ(late.error->localizedDescription(), "Error calculating file sizes");
}

TEST_F(SizesTest, UnreadableFolderIsASoftErrorAndMissingPathAHardOne) {
  Outcome missing = sizes({"missing"});
  EXPECT_TRUE(missing.nil);
  ASSERT_NE(missing.error, nullptr);
  EXPECT_EQ(missing.error->code(), ENOENT);
  EXPECT_EQ(missing.error->localizedDescription(), "Error calculating file sizes");
  EXPECT_EQ(missing.error->localizedRecoverySuggestion().value_or(""),
            "Couldn't get folder hierarchy item at path \"" + tree.path("missing") + "\". " +
                std::strerror(ENOENT));

  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  tree.folder("top");
  tree.folder("top/a-locked", 0700);
  tree.file("top/a-locked/hidden", std::string(999, 'x'));
  tree.folder("top/b-locked", 0700);
  tree.file("top/c", std::string(7, 'x'));
  Outcome outcome;
  {
    AsNobody nobody;
    outcome = sizes({"top"});
  }
  EXPECT_FALSE(outcome.nil);
  EXPECT_EQ(outcome.records,
            (Records{{{}, 7, false}, {{0}, 0, false}, {{1}, 0, false}, {{2}, 7, false}}));
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), EACCES);
  EXPECT_EQ(
      outcome.error->localizedDescription(),
      "Couldn't read folder contents for folder at path \"" + tree.path("top/a-locked") + "\".")
      << "unwrapped, and the first one";
}

// A file whose allocation exceeds its data by 4096 bytes or more is asked
// for its resource fork, whose length is added.
TEST_F(SizesTest, ResourceForkCountsOnlyWithFourKilobytesOfSlack) {
  const std::string fork(700, 'r');
  tree.folder("top");
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
  EXPECT_EQ(outcome.records, (Records{{{}, 10 + 700 + 4096 + 10, false},
                                      {{0}, 710, false},
                                      {{1}, 4096, false},
                                      {{2}, 10, false}}));
}

// A report that gets no answer counts as a stop: the batch sent last is the
// result, and the worker is not left waiting.
TEST_F(SizesTest, DisconnectingClientReleasesTheWorker) {
  files("f", 300, 3);
  test::ResponseLink holding;  // holds every reply
  auto running = std::async(std::launch::async, [&] { return sizes({"f"}, holding.worker); });
  ASSERT_TRUE(holding.client->waitForCalls(1));
  EXPECT_EQ(running.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout)
      << "the worker waits for the answer";
  holding.clientEnd->invalidate();
  ASSERT_EQ(running.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  for (const Outcome& outcome : {running.get(), sizes({"f"}, nullptr)}) {
    EXPECT_EQ(outcome.error, nullptr);
    ASSERT_EQ(outcome.records.size(), 101u);
    EXPECT_EQ(outcome.records[0], (SizeRecord{{}, 300, false}));
  }
  EXPECT_EQ(holding.client->reports().size(), 1u);
}

struct Listing {
  std::vector<Paths> levels;  // present paths of the references
  bool nil;
  ErrorPtr error;
};

Listing list(const UrlPtr& url, std::vector<uint64_t> indexes) {
  ErrorPtr error = Error::errorWithDomain("unset", -1);
  ArrayPtr result = QXFileSizes::getContentsOfDirectory(url, IndexPath::make(indexes), &error);
  Listing listing{{}, result == nullptr, error};
  if (!result) return listing;
  for (const ObjectPtr& level : *result) {
    Paths paths;
    for (const ObjectPtr& object : *cast<Array>(level)) {
      auto reference = cast<FileReferenceUrl>(object);
      paths.push_back(reference && reference->isFileReferenceURL() ? reference->path() : "?");
    }
    listing.levels.push_back(paths);
  }
  return listing;
}

class ListingTest : public SizesTest {
 protected:
  // top: .hidden, A, a/ (x, y), b, sub/ (deeper/ (leaf), z), in byte order.
  void SetUp() override {
    tree.folder("top");
    for (const char* file : {"top/b", "top/A", "top/.hidden"}) tree.file(file);
    tree.folder("top/a");
    for (const char* file : {"top/a/y", "top/a/x"}) tree.file(file);
    tree.folder("top/sub");
    tree.folder("top/sub/deeper");
    for (const char* file : {"top/sub/deeper/leaf", "top/sub/z"}) tree.file(file);
  }
  Paths paths(std::vector<std::string> relative) const {
    for (auto& path : relative) path = tree.path(path);
    return relative;
  }
};

TEST_F(ListingTest, EachIndexAddsTheLevelOfTheEntryAtThatPosition) {
  const Paths top = paths({"top/.hidden", "top/A", "top/a", "top/b", "top/sub"});
  const Paths a = paths({"top/a/x", "top/a/y"});
  struct Row {
    std::vector<uint64_t> indexes;
    std::vector<Paths> levels;
  };
  const Row rows[] = {
      {{}, {top}},
      {{2}, {top, a}},
      {{4, 0}, {top, paths({"top/sub/deeper", "top/sub/z"}), paths({"top/sub/deeper/leaf"})}},
      {{1, 0}, {top}},  // "A" is a file: the levels end there
      {{2, 0, 0}, {top, a}},
  };
  for (const Row& row : rows) {
    Listing listing = list(url("top"), row.indexes);
    EXPECT_EQ(listing.error, nullptr);
    EXPECT_EQ(listing.levels, row.levels) << testing::PrintToString(row.indexes);
  }
  // Not a folder, nothing there, or a link to a folder: no levels and no error.
  tree.link("top-link", tree.path("top"));
  for (const char* item : {"top/b", "missing", "top-link"}) {
    Listing listing = list(url(item), {1, 2});
    EXPECT_FALSE(listing.nil) << item;
    EXPECT_TRUE(listing.levels.empty()) << item;
    EXPECT_EQ(listing.error, nullptr) << item;
  }
  Listing root = list(Url::fileURLWithPath("/"), {});
  ASSERT_EQ(root.levels.size(), 1u);
  for (const std::string& path : root.levels[0]) {
    EXPECT_EQ(path.rfind('/'), 0u) << "one slash below the root: " << path;
  }
}

TEST_F(ListingTest, FailuresPastTheEndAndInAnUnreadableFolder) {
  Listing past = list(url("top"), {2, 2});
  EXPECT_TRUE(past.nil);
  ASSERT_NE(past.error, nullptr);
  EXPECT_EQ(past.error->code(), EINVAL);
  EXPECT_EQ(past.error->localizedDescription(), "Error retrieving folder's contents");
  EXPECT_EQ(past.error->localizedRecoverySuggestion().value_or(""),
            "Couldn't find item at position 2 in folder at path \"" + tree.path("top/a") + "\". " +
                std::strerror(EINVAL));

  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  chmod(tree.path("top/sub").c_str(), 0700);
  Listing locked;
  {
    AsNobody nobody;
    locked = list(url("top"), {4, 0, 1});
  }
  ASSERT_EQ(locked.levels.size(), 4u) << "every level is there, the unreadable ones empty";
  EXPECT_EQ(locked.levels[0].size(), 5u);
  for (int level = 1; level < 4; ++level) EXPECT_TRUE(locked.levels[level].empty());
  ASSERT_NE(locked.error, nullptr);
  EXPECT_EQ(locked.error->code(), EACCES);
  EXPECT_EQ(locked.error->localizedDescription(),
            "Couldn't open for listing folder at path \"" + tree.path("top/sub") + "\".");
}

TEST_F(ListingTest, ReferencesAnswerThePresentPathAfterARename) {
  ErrorPtr error;
  auto level = cast<Array>(
      QXFileSizes::getContentsOfDirectory(url("top"), IndexPath::make(), &error)->objectAtIndex(0));
  auto folder = cast<Url>(level->objectAtIndex(2));
  auto file = cast<Url>(level->objectAtIndex(3));
  ASSERT_EQ(rename(tree.path("top/a").c_str(), tree.path("top/renamed").c_str()), 0);
  ASSERT_EQ(rename(tree.path("top/b").c_str(), tree.path("top/also renamed").c_str()), 0);
  EXPECT_EQ(folder->path(), tree.path("top/renamed"));
  EXPECT_EQ(file->path(), tree.path("top/also renamed"));
  EXPECT_EQ(folder->isDirectory(), std::optional<bool>(true));
  EXPECT_EQ(list(folder, {}).levels,
            (std::vector<Paths>{paths({"top/renamed/x", "top/renamed/y"})}));
  // Moved out of its folder or removed: no present path.
  ASSERT_EQ(rename(tree.path("top/renamed").c_str(), tree.path("elsewhere").c_str()), 0);
  EXPECT_EQ(folder->path(), "");
  EXPECT_FALSE(folder->isDirectory().has_value());
  ASSERT_EQ(unlink(tree.path("top/also renamed").c_str()), 0);
  EXPECT_EQ(file->path(), "");
}

}  // namespace
}  // namespace qx
