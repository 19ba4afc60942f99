// Size calculations with their reports to the client, listings, and where the
// service runs them: one calculation at a time per connection, listings beside
// anything.
#include <atomic>

#include "model/QXFileSizeItem.h"
#include "platform/dispatch/Semaphore.h"
#include "tests/client/ClientTestSupport.h"

namespace qxclienttest {
namespace {

struct Record {
  std::vector<uint64_t> indexPath;
  int64_t size = -2;
  bool busy = false;
};

// The update records of a batch, or nothing when one is malformed.
std::optional<std::vector<Record>> recordsOf(const qx::ArrayPtr& batch) {
  if (!batch) return std::nullopt;
  std::vector<Record> records;
  for (const auto& object : *batch) {
    auto record = qx::cast<qx::Dictionary>(object);
    if (!record || record->count() != 2) return std::nullopt;
    auto indexPath = record->objectForKeyAs<qx::IndexPath>("QXIndexPath");
    auto item = record->objectForKeyAs<QXFileSizeItem>("QXFileSizeItem");
    if (!indexPath || !item) return std::nullopt;
    records.push_back({indexPath->indexes(), item->size(), item->busy()});
  }
  return records;
}

std::vector<std::string> pathsOf(const qx::ArrayPtr& level) {
  std::vector<std::string> paths;
  for (const auto& object : *level) {
    auto url = qx::cast<qx::Url>(object);
    paths.push_back(url ? url->path() : "<not a URL>");
  }
  return paths;
}

class SizeRequests : public PrivateService {};

TEST_F(SizeRequests, TotalsArriveInReportsAndInTheLastBatch) {
  std::string folder = makeFolder(files_ / "big");
  fillFolder(folder, 250, 10);
  QXFileClient& client = connectClient();
  std::vector<std::vector<Record>> reports;
  client.setSizeUpdateHandler([&](const qx::ArrayPtr& batch) {
    auto records = recordsOf(batch);
    reports.push_back(records.value_or(std::vector<Record>{}));
    return true;
  });
  qx::ErrorPtr error;
  auto last = recordsOf(QXFileClientSync(client).getSizesWithUrls(urlsOf({folder}), &error));
  EXPECT_FALSE(error);

  ASSERT_EQ(reports.size(), 2u);  // after the 100th and the 200th file
  ASSERT_EQ(reports[0].size(), 101u);
  EXPECT_TRUE(reports[0][0].indexPath.empty());
  EXPECT_TRUE(reports[0][0].busy);
  EXPECT_EQ(reports[0][0].size, 1000);
  EXPECT_EQ(reports[0][100].indexPath, (std::vector<uint64_t>{99}));
  EXPECT_EQ(reports[0][100].size, 10);
  ASSERT_TRUE(last);
  ASSERT_EQ(last->size(), 51u);  // the folder, then the last 50 files
  EXPECT_TRUE((*last)[0].indexPath.empty());
  EXPECT_EQ((*last)[0].size, 2500);
  EXPECT_FALSE((*last)[0].busy);
}

TEST_F(SizeRequests, AnsweringNoStopsTheCalculationWithTheBatchJustSent) {
  std::string folder = makeFolder(files_ / "big");
  fillFolder(folder, 250, 10);
  QXFileClient& client = connectClient();
  std::atomic<int> reports{0};
  client.setSizeUpdateHandler([&](const qx::ArrayPtr&) {
    ++reports;
    return false;
  });
  qx::ErrorPtr error;
  auto last = recordsOf(QXFileClientSync(client).getSizesWithUrls(urlsOf({folder}), &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(reports.load(), 1);
  ASSERT_TRUE(last);
  ASSERT_EQ(last->size(), 101u);
  EXPECT_EQ((*last)[0].size, 1000);
  EXPECT_FALSE((*last)[0].busy);  // final once the calculation has ended
}

TEST_F(SizeRequests, AHandlerThatThrowsStopsTheCalculation) {
  std::string folder = makeFolder(files_ / "big");
  fillFolder(folder, 250, 10);
  QXFileClient& client = connectClient();
  std::atomic<int> reports{0};
  client.setSizeUpdateHandler([&](const qx::ArrayPtr&) -> bool {
    ++reports;
    throw std::runtime_error("the application gave up");
  });
  qx::ErrorPtr error;
  auto last = recordsOf(QXFileClientSync(client).getSizesWithUrls(urlsOf({folder}), &error));
  EXPECT_EQ(reports.load(), 1);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->size(), 101u);
}

TEST_F(SizeRequests, ListingsComeAsLevelsOfReferenceUrlsSortedByPath) {
  std::string top = makeFolder(files_ / "top");
  for (const char* name : {"b", "A", "a"}) makeFile(top + "/" + name);
  std::string sub = makeFolder(top + "/sub");
  makeFile(sub + "/x");
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  qx::ArrayPtr levels = sync.getContentsOfDirectory(urlOf(top), qx::IndexPath::make({3}), &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(levels);
  ASSERT_EQ(levels->count(), 2u);
  auto first = levels->objectAs<qx::Array>(0);
  auto second = levels->objectAs<qx::Array>(1);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(pathsOf(first),
            (std::vector<std::string>{top + "/A", top + "/a", top + "/b", top + "/sub"}));
  EXPECT_EQ(pathsOf(second), (std::vector<std::string>{sub + "/x"}));
  EXPECT_TRUE(first->objectAs<qx::Url>(0)->isFileReferenceURL());

  // Not a folder: no levels, and the nil error arrives as nil.
  error = qx::Error::errorWithDomain("stale", 1);
  levels = sync.getContentsOfDirectory(urlOf(files_ / "gone"), qx::IndexPath::make(), &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(levels);
  EXPECT_EQ(levels->count(), 0u);
}

// The client holds back its answer to the first report of a calculation
// until released (at the latest when this object goes).
class HeldCalculation {
 public:
  explicit HeldCalculation(QXFileClient& client) : state_(std::make_shared<State>()) {
    client.setSizeUpdateHandler([state = state_](const qx::ArrayPtr&) {
      if (state->reports++ == 0) {
        state->reported.signal();
        state->release.wait();
      }
      return true;
    });
  }
  ~HeldCalculation() { release(); }
  bool waitForFirstReport() { return state_->reported.waitFor(10s); }
  void release() {
    if (!std::exchange(released_, true)) state_->release.signal();
  }

 private:
  struct State {
    std::atomic<int> reports{0};
    qx::Semaphore reported;
    qx::Semaphore release;
  };
  std::shared_ptr<State> state_;
  bool released_ = false;
};

class OperationQueues : public PrivateService {};

TEST_F(OperationQueues, AListingIsAnsweredWhileACalculationWaitsAndTheNextCalculationQueues) {
  std::string big = makeFolder(files_ / "big");
  fillFolder(big, 150);
  std::string small = makeFolder(files_ / "small");
  fillFolder(small, 3);
  QXFileClient& client = connectClient();
  HeldCalculation held(client);
  ReplyLog log;
  client.getSizesWithUrls(urlsOf({big}), [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("sizes"); });
  ASSERT_TRUE(held.waitForFirstReport());

  client.getSizesWithUrls(urlsOf({small}), [&](qx::ArrayPtr sizes, qx::ErrorPtr) {
    log.add(sizes && sizes->count() == 4 ? "second sizes" : "second sizes, wrong");
  });
  client.getContentsOfDirectory(urlOf(small), qx::IndexPath::make(),
                                [&](qx::ArrayPtr levels, qx::ErrorPtr) {
                                  log.add(levels && levels->count() == 1 ? "listing" : "bad");
                                });
  EXPECT_TRUE(eventually([&] { return log.has("listing"); }));
  // The waiting calculation runs on the operation queue's thread.
  auto pids = services();
  ASSERT_EQ(pids.size(), 1u);
  auto names = threadNames(pids[0]);
  EXPECT_EQ(std::count(names.begin(), names.end(), "org.qxfile.File"), 1) << names.size();
  std::this_thread::sleep_for(200ms);  // time enough for the small calculation, were it free
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"listing"}));

  held.release();
  EXPECT_TRUE(eventually([&] { return log.count() == 3; }));
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"listing", "sizes", "second sizes"}));
}

TEST_F(OperationQueues, EachClientHasAServiceObjectAndAQueueOfItsOwn) {
  std::string big = makeFolder(files_ / "big");
  fillFolder(big, 150);
  QXFileClient& waiting = connectClient();
  QXFileClient& other = connectClient();
  HeldCalculation held(waiting);
  ReplyLog log;
  waiting.getSizesWithUrls(urlsOf({big}), [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("held"); });
  ASSERT_TRUE(held.waitForFirstReport());

  // The other client's calculation goes through its reports to its end.
  std::atomic<int> otherReports{0};
  other.setSizeUpdateHandler([&](const qx::ArrayPtr&) {
    ++otherReports;
    return true;
  });
  qx::ErrorPtr error;
  auto sizes = QXFileClientSync(other).getSizesWithUrls(urlsOf({big}), &error);
  ASSERT_TRUE(sizes);
  EXPECT_EQ(otherReports.load(), 1);
  auto names = threadNames(services().at(0));
  EXPECT_EQ(std::count(names.begin(), names.end(), "org.qxfile.File"), 2);
  EXPECT_EQ(log.count(), 0u);

  held.release();
  EXPECT_TRUE(eventually([&] { return log.count() == 1; }));
}

}  // namespace
}  // namespace qxclienttest
