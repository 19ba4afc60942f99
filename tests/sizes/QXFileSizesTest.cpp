// The size calculation through a real connection: a client in the test
// exports the callback protocol and answers each report as the case needs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <thread>

#include "SizesTestSupport.h"
#include "model/QXFileSizeItem.h"
#include "sizes/QXFileSizes.h"

namespace qx::sizestest {
namespace {

std::shared_ptr<SizesClient> answering(bool answer) {
  return std::make_shared<SizesClient>([answer](std::size_t) { return answer; });
}

struct Outcome {
  std::vector<Record> records;
  bool nil;
  ErrorPtr error;
};

Outcome sizes(const Link& link, const std::vector<UrlPtr>& list) {
  ErrorPtr error = Error::errorWithDomain("unset", -1);
  ArrayPtr result = QXFileSizes::getSizesWithUrls(urls(list), link.worker, &error);
  return {recordsOf(result), result == nullptr, error};
}

off_t lstatSize(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST(QXFileSizes, SingleFileIsOneFinalRecordWithAnEmptyIndexPath) {
  TempTree tree;
  tree.file("one", 1234);
  Link link(answering(true));
  Outcome outcome = sizes(link, {tree.url("one")});
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(describe(outcome.records), describe({{{}, 1234, false}}));
  EXPECT_TRUE(link.client->reports().empty());
}

TEST(QXFileSizes, TwoFoldersGetAnArtificialRootAndComeInByteOrder) {
  TempTree tree;
  tree.folder("A");
  tree.file("A/x", 10);
  tree.file("A/y", 20);
  tree.folder("B");
  tree.file("B/z", 300);
  tree.folder("B/inner");
  tree.file("B/inner/w", 4000);
  Link link(answering(true));
  Outcome outcome = sizes(link, {tree.url("B"), tree.url("A")});
  EXPECT_EQ(outcome.error, nullptr);
  std::vector<Record> expected = {
      {{}, 4330, false},  {{0}, 30, false},      {{0, 0}, 10, false},      {{0, 1}, 20, false},
      {{1}, 4300, false}, {{1, 0}, 4000, false}, {{1, 0, 0}, 4000, false}, {{1, 1}, 300, false}};
  EXPECT_EQ(describe(outcome.records), describe(expected));
  EXPECT_TRUE(link.client->reports().empty()) << "fewer than 100 items: no report";
}

TEST(QXFileSizes, HundredFilesGiveOneReportWithTheFolderStillBusy) {
  TempTree tree;
  tree.folder("f");
  for (int i = 0; i < 100; ++i) tree.file("f/" + std::to_string(1000 + i), i);
  Link link(answering(true));
  Outcome outcome = sizes(link, {tree.url("f")});
  EXPECT_EQ(outcome.error, nullptr);
  auto reports = link.client->reports();
  ASSERT_EQ(reports.size(), 1u);
  ASSERT_EQ(reports[0].size(), 101u);
  EXPECT_EQ(reports[0][0], (Record{{}, 4950, true}));
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(reports[0][i + 1], (Record{{static_cast<uint64_t>(i)}, i, false}));
  }
  EXPECT_EQ(describe(outcome.records), describe({{{}, 4950, false}}));
}

TEST(QXFileSizes, ReportsCountOnlyNonFolderItemsAndRestartWithTheOpenFolders) {
  TempTree tree;
  tree.folder("top");
  for (int i = 0; i < 30; ++i) tree.folder("top/empty" + std::to_string(100 + i));
  tree.folder("top/sub");
  for (int i = 0; i < 150; ++i) tree.file("top/sub/" + std::to_string(1000 + i), 2);
  Link link(answering(true));
  Outcome outcome = sizes(link, {tree.url("top")});
  EXPECT_EQ(outcome.error, nullptr);
  auto reports = link.client->reports();
  ASSERT_EQ(reports.size(), 1u) << "30 empty folders and 150 files make one report";
  // Second batch: the open folders' current totals first, then the rest.
  ASSERT_EQ(outcome.records.size(), 2u + 50u);
  EXPECT_EQ(outcome.records[0], (Record{{}, 300, false}));
  EXPECT_EQ(outcome.records[1], (Record{{30}, 300, false}));
  EXPECT_EQ(outcome.records[2], (Record{{30, 100}, 2, false}));
  EXPECT_EQ(outcome.records.back(), (Record{{30, 149}, 2, false}));
  // The first report held every folder record, the empty ones final already.
  ASSERT_EQ(reports[0].size(), 1u + 31u + 100u);
  EXPECT_EQ(reports[0][1], (Record{{0}, 0, false}));
  EXPECT_EQ(reports[0][31], (Record{{30}, 200, true}));
}

TEST(QXFileSizes, ClientSayingNoStopsWithThatBatchMadeFinal) {
  TempTree tree;
  tree.folder("f");
  for (int i = 0; i < 250; ++i) tree.file("f/" + std::to_string(1000 + i), 1);
  Link link(answering(false));
  Outcome outcome = sizes(link, {tree.url("f")});
  EXPECT_EQ(outcome.error, nullptr);
  auto reports = link.client->reports();
  ASSERT_EQ(reports.size(), 1u);
  ASSERT_EQ(reports[0].size(), 101u);
  EXPECT_EQ(reports[0][0], (Record{{}, 100, true}));
  ASSERT_EQ(outcome.records.size(), 101u);
  EXPECT_EQ(outcome.records[0], (Record{{}, 100, false})) << "the open folder is made final";
  EXPECT_EQ(outcome.records[100], (Record{{99}, 1, false}));
}

TEST(QXFileSizes, UnreadableFolderIsASoftErrorAndOnlyTheFirstIsKept) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  TempTree tree;
  tree.folder("top");
  tree.folder("top/a-locked");
  tree.file("top/a-locked/hidden", 999);
  tree.folder("top/b-locked");
  tree.file("top/c", 7);
  chmod(tree.path("top/a-locked").c_str(), 0700);
  chmod(tree.path("top/b-locked").c_str(), 0700);
  Link link(answering(true));
  Outcome outcome;
  {
    AsNobody nobody;
    outcome = sizes(link, {tree.url("top")});
  }
  EXPECT_FALSE(outcome.nil);
  EXPECT_EQ(describe(outcome.records),
            describe({{{}, 7, false}, {{0}, 0, false}, {{1}, 0, false}, {{2}, 7, false}}));
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->domain(), kPOSIXErrorDomain);
  EXPECT_EQ(outcome.error->code(), EACCES);
  EXPECT_EQ(
      outcome.error->localizedDescription(),
      "Couldn't read folder contents for folder at path \"" + tree.path("top/a-locked") + "\".")
      << "unwrapped, and the first one";
  EXPECT_EQ(outcome.error->localizedRecoverySuggestion().value_or(""), std::strerror(EACCES));
}

TEST(QXFileSizes, MissingPathEndsWithTheWrappedErrorAndNoResult) {
  TempTree tree;
  tree.file("present", 5);
  Link link(answering(true));
  Outcome outcome = sizes(link, {tree.url("present"), tree.url("missing")});
  EXPECT_TRUE(outcome.nil);
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), ENOENT);
  EXPECT_EQ(outcome.error->localizedDescription(), "Error calculating file sizes");
  EXPECT_EQ(outcome.error->localizedRecoverySuggestion().value_or(""),
            "Couldn't get folder hierarchy item at path \"" + tree.path("missing") + "\". " +
                std::strerror(ENOENT));
}

TEST(QXFileSizes, SymbolicLinksCountAsThemselves) {
  TempTree tree;
  tree.folder("big");
  tree.file("big/heavy", 100000);
  tree.folder("top");
  tree.link("top/to-big", tree.path("big"));
  tree.link("top/to-nothing", "nowhere");
  Link link(answering(true));
  Outcome outcome = sizes(link, {tree.url("top")});
  EXPECT_EQ(outcome.error, nullptr);
  off_t first = lstatSize(tree.path("top/to-big"));
  off_t second = lstatSize(tree.path("top/to-nothing"));
  ASSERT_EQ(outcome.records.size(), 3u);
  EXPECT_EQ(outcome.records[0].size, first + second);
}

// A file of `bytes` whose allocation reaches `allocated` bytes.
void allocatedFile(const std::string& path, std::size_t bytes, off_t allocated) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  std::string data(bytes, 'd');
  ASSERT_EQ(write(fd, data.data(), bytes), static_cast<ssize_t>(bytes));
  if (allocated > 0) {
    ASSERT_EQ(fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, allocated), 0);
  }
  ::close(fd);
}

int64_t slackOf(const std::string& path) {
  struct stat st;
  lstat(path.c_str(), &st);
  return static_cast<int64_t>(st.st_blocks) * 512 - st.st_size;
}

TEST(QXFileSizes, ResourceForkCountsOnlyWithFourKilobytesOfSlack) {
  TempTree tree;
  tree.folder("top");
  const std::string fork(700, 'r');
  const std::string tiny(5, 't');
  // Slack well above 4096 bytes: the fork's length is added.
  allocatedFile(tree.path("top/a-padded"), 10, 16384);
  ASSERT_EQ(setxattr(tree.path("top/a-padded").c_str(), "user.com.apple.ResourceFork", fork.data(),
                     fork.size(), 0),
            0);
  // Exactly 4096 bytes of slack, no fork: asked, and nothing is added.
  allocatedFile(tree.path("top/b-exact"), 4096, 8192);
  // Little slack: never asked, even with a fork.
  allocatedFile(tree.path("top/c-plain"), 10, 0);
  setxattr(tree.path("top/c-plain").c_str(), "user.com.apple.ResourceFork", tiny.data(),
           tiny.size(), 0);
  ASSERT_GE(slackOf(tree.path("top/a-padded")), 4096);
  ASSERT_EQ(slackOf(tree.path("top/b-exact")), 4096);
  if (slackOf(tree.path("top/c-plain")) >= 4096) GTEST_SKIP() << "the attribute took a block";
  Link link(answering(true));
  Outcome outcome = sizes(link, {tree.url("top")});
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(describe(outcome.records), describe({{{}, 10 + 700 + 4096 + 10, false},
                                                 {{0}, 710, false},
                                                 {{1}, 4096, false},
                                                 {{2}, 10, false}}));
}

TEST(QXFileSizes, StopAfterAForkQueryLeavesItsErrnoForTheLateCheck) {
  // A fork query that finds nothing leaves ENODATA; when the client stops the
  // walk right after, the late check reports it. Kept as the service does.
  TempTree tree;
  tree.folder("f");
  for (int i = 0; i < 99; ++i) tree.file("f/" + std::to_string(1000 + i), 1);
  allocatedFile(tree.path("f/1999-padded"), 10, 16384);
  tree.file("f/2000-after", 1);
  Link link(answering(false));
  Outcome outcome = sizes(link, {tree.url("f")});
  EXPECT_TRUE(outcome.nil);
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->code(), ENODATA);
  EXPECT_EQ(outcome.error->localizedDescription(), "Error calculating file sizes");
}

TEST(QXFileSizes, DisconnectingClientReleasesTheWorker) {
  TempTree tree;
  tree.folder("f");
  for (int i = 0; i < 300; ++i) tree.file("f/" + std::to_string(1000 + i), 3);
  Link link(std::make_shared<SizesClient>(nullptr));  // holds every reply block
  auto running = std::async(std::launch::async, [&] { return sizes(link, {tree.url("f")}); });
  ASSERT_TRUE(link.client->waitForReports(1));
  EXPECT_EQ(running.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout)
      << "the worker waits for the answer";
  link.clientEnd->invalidate();
  ASSERT_EQ(running.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  Outcome outcome = running.get();
  EXPECT_EQ(outcome.error, nullptr);
  ASSERT_EQ(outcome.records.size(), 101u) << "the batch sent last is the result";
  EXPECT_EQ(outcome.records[0], (Record{{}, 300, false}));
  EXPECT_EQ(link.client->reports().size(), 1u);
}

TEST(QXFileSizes, WorkerWithoutAConnectionStopsAtTheFirstReport) {
  TempTree tree;
  tree.folder("f");
  for (int i = 0; i < 120; ++i) tree.file("f/" + std::to_string(1000 + i), 1);
  ErrorPtr error;
  ArrayPtr result = QXFileSizes::getSizesWithUrls(urls({tree.url("f")}), nullptr, &error);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(recordsOf(result).size(), 101u);
}

TEST(QXFileSizes, EmptyListGivesAnEmptyResult) {
  Link link(answering(true));
  ErrorPtr error = Error::errorWithDomain("unset", -1);
  ArrayPtr result = QXFileSizes::getSizesWithUrls(Array::make(), link.worker, &error);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->count(), 0u);
  EXPECT_EQ(error, nullptr);
}

}  // namespace
}  // namespace qx::sizestest
