// The typed client against the real service: per-request routing and
// cancelling of size reports, completions called once, and the records
// crossing both ways. What each request does to files is the workers' tests'.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <mutex>

#include "platform/dispatch/Semaphore.h"
#include "qxfile/BlockingClient.h"
#include "qxfile/Client.h"
#include "tests/support/Eventually.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

namespace {

using namespace std::chrono_literals;
using qxfile::BlockingClient;
using qxfile::Client;
using qxfile::Error;
using qxfile::SizeUpdate;

// What one size calculation heard, reports and completion.
struct Heard {
  std::mutex mutex;
  std::vector<SizeUpdate> updates;
  int reports = 0;
  int reportsAfterCancel = 0;
  std::atomic<bool> cancelled{false};
  std::promise<std::pair<std::vector<SizeUpdate>, std::optional<Error>>> done;
  std::atomic<int> completions{0};
  qx::Semaphore firstReport;

  Client::Completion<std::vector<SizeUpdate>> completion() {
    return [this](std::vector<SizeUpdate> last, std::optional<Error> error) {
      if (completions++ == 0) done.set_value({std::move(last), std::move(error)});
    };
  }
  std::function<bool(const std::vector<SizeUpdate>&)> onUpdate(std::function<void()> first = {}) {
    return [this, first](const std::vector<SizeUpdate>& batch) {
      {
        std::lock_guard lock(mutex);
        updates.insert(updates.end(), batch.begin(), batch.end());
        reportsAfterCancel += cancelled ? 1 : 0;
        if (reports++ == 0) firstReport.signal();
      }
      if (reports == 1 && first) first();
      return true;
    };
  }
};

int64_t rootSize(const std::vector<SizeUpdate>& updates) {
  int64_t size = -1;
  for (const auto& update : updates) {
    if (update.indexPath.empty()) size = update.size;
  }
  return size;
}

class TypedClient : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(sandbox_.allGoneWithin(15s)) << "the service kept running without clients";
  }

  void files(const std::string& folder, int count, std::size_t bytes) const {
    tree_.folder(folder);
    for (int i = 0; i < count; ++i)
      tree_.file(folder + "/f" + std::to_string(i), std::string(bytes, 'x'));
  }

  qx::test::ServiceSandbox sandbox_{QX_SERVICE_EXECUTABLE};
  qx::test::TempTree tree_{"qx-typed"};
};

TEST(TypedClientAlone, EveryRequestCompletesOnceWithAnErrorWithoutAConnection) {
  Client client;
  std::atomic<int> completions{0};
  auto count = [&](const std::optional<Error>& error) {
    completions += error && error->code == 4099 && !error->description.empty() ? 1 : 100;
  };
  client.getAcl("/", [&](auto, auto error) { count(error); });
  client.setAcl("/", {}, [&](auto error) { count(error); });
  client.listContents("/", {}, [&](auto, auto error) { count(error); });
  EXPECT_EQ(completions.load(), 3);
}

// Both calculations run at once: each waits in its first report for the
// other's first report. Then one is cancelled; the other goes on to its total.
TEST_F(TypedClient, TwoCalculationsHearOnlyOfThemselvesAndOneIsCancelledAlone) {
  files("sevens", 900, 7);
  files("thousands", 900, 1000);
  Client client;
  ASSERT_FALSE(client.connect());
  Heard sevens, thousands;
  qxfile::Request cancelMe;
  qx::Semaphore handleKept;
  cancelMe = client.getSizes({tree_.path("sevens")}, {sevens.onUpdate([&] {
                               ASSERT_TRUE(thousands.firstReport.waitFor(10s));
                               ASSERT_TRUE(handleKept.waitFor(10s));
                               sevens.cancelled = true;
                               cancelMe.cancel();
                             })},
                             sevens.completion());
  handleKept.signal();
  client.getSizes({tree_.path("thousands")},
                  {thousands.onUpdate([&] { ASSERT_TRUE(sevens.firstReport.waitFor(10s)); })},
                  thousands.completion());

  auto sevensDone = sevens.done.get_future().get();
  auto thousandsDone = thousands.done.get_future().get();
  EXPECT_FALSE(sevensDone.second);
  EXPECT_FALSE(thousandsDone.second);
  EXPECT_EQ(sevens.reports, 1) << "nothing is delivered after cancel()";
  EXPECT_EQ(sevens.reportsAfterCancel, 0);
  EXPECT_LT(rootSize(sevensDone.first), 900 * 7) << "stopped at the report after cancel()";
  EXPECT_EQ(rootSize(thousandsDone.first), 900 * 1000);
  EXPECT_GE(thousands.reports, 9);
  for (const auto& update : sevens.updates) EXPECT_EQ(update.size % 7, 0) << update.size;
  for (const auto& update : thousands.updates) EXPECT_EQ(update.size % 1000, 0) << update.size;
  EXPECT_EQ(sevens.completions + thousands.completions, 2);
}

// A client destroyed while a calculation waits in a report: the completion
// still comes once, with the error of the lost connection.
TEST_F(TypedClient, DestroyingTheClientCompletesWhatIsUnderWay) {
  files("items", 300, 1);
  Heard heard;
  qx::Semaphore release;
  auto client = std::make_unique<Client>();
  ASSERT_FALSE(client->connect());
  client->getSizes({tree_.path("items")}, {heard.onUpdate([&] { release.waitFor(10s); })},
                   heard.completion());
  ASSERT_TRUE(heard.firstReport.waitFor(10s));
  std::thread destroyer([&] { client.reset(); });
  auto done = heard.done.get_future();
  EXPECT_EQ(done.wait_for(10s), std::future_status::ready);
  release.signal();
  destroyer.join();
  EXPECT_TRUE(done.get().second);
  EXPECT_EQ(heard.completions, 1);
}

TEST_F(TypedClient, RecordsCrossBothWays) {
  files("folder", 3, 1);
  const auto item = tree_.path("folder/f0");
  Client client;
  ASSERT_FALSE(client.connect());
  BlockingClient blocking(client);
  std::optional<Error> error;

  auto listing = blocking.getAcl(item, &error);
  ASSERT_FALSE(error) << error->description;
  EXPECT_FALSE(listing.folder);
  EXPECT_EQ(listing.owner.identity.kind, qxfile::Identity::Kind::User);
  EXPECT_EQ(listing.owner.identity.id, ::getuid());
  EXPECT_EQ(listing.everyone.identity.kind, qxfile::Identity::Kind::Everyone);

  listing.acl.push_back(
      {qxfile::Identity::group(::getgid()), true, false, qxfile::kWriteData | qxfile::kDelete, 0});
  listing.owner.bits = 6;
  listing.group.bits = 4;
  listing.everyone.bits = 0;
  ASSERT_TRUE(blocking.setAcl(item, listing, &error)) << error->description;
  struct stat st {};
  ASSERT_EQ(::stat(item.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  auto reread = blocking.getAcl(item, &error);
  ASSERT_EQ(reread.acl.size(), 1u);
  EXPECT_EQ(reread.acl[0].identity.id, ::getgid());
  EXPECT_TRUE(reread.acl[0].deny);
  EXPECT_EQ(reread.acl[0].rights, qxfile::kWriteData | qxfile::kDelete);
  EXPECT_EQ(reread.mode(), 0640u);

  auto access = blocking.getAccess(item, qxfile::Identity::group(::getgid()), &error);
  ASSERT_EQ(access.groups.size(), 3u);
  EXPECT_EQ(access.groups[0].name, "Read");

  auto levels = blocking.listContents(tree_.path("folder"), {}, &error);
  ASSERT_EQ(levels.size(), 1u);
  ASSERT_EQ(levels[0].size(), 3u);
  ASSERT_EQ(::stat(levels[0][0].keptPath.c_str(), &st), 0);
  EXPECT_EQ(levels[0][0].inode, st.st_ino);

  auto missing = blocking.getAcl(tree_.path("gone"), &error);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(error->code, ENOENT);
}

// A blocking call in a callback would wait for an answer that only this
// thread could deliver; after the service is gone, connecting again reaches
// a new one.
TEST_F(TypedClient, BlockingInACallbackFailsAtOnceAndAClientReconnects) {
  files("items", 1, 1);
  Client client;
  ASSERT_FALSE(client.connect());
  BlockingClient blocking(client);
  std::promise<std::optional<Error>> inner;
  client.getAcl(tree_.path("items/f0"), [&](auto, auto) {
    std::optional<Error> error;
    blocking.getAcl(tree_.path("items/f0"), &error);
    inner.set_value(error);
  });
  auto error = inner.get_future().get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, EDEADLK);

  ::kill(sandbox_.services().at(0), SIGKILL);
  ASSERT_TRUE(qx::test::eventually([&] { return !client.isConnected(); }));
  blocking.listContents(tree_.path("items"), {}, &error);
  EXPECT_EQ(error ? error->code : 0, 4099);
  ASSERT_FALSE(client.connect());
  EXPECT_EQ(blocking.listContents(tree_.path("items"), {}, &error).size(), 1u);
  EXPECT_FALSE(error);
  std::vector<SizeUpdate> last = blocking.getSizes({tree_.path("items")}, {}, &error);
  EXPECT_FALSE(error) << "a calculation after the restart gets a working connection";
}

// The rename's questions are answered by the request's own policy.
TEST_F(TypedClient, ARenameStopsWhenItsPolicySays) {
  files("batch", 100, 1);
  std::vector<std::filesystem::path> items;
  std::vector<std::string> names;
  for (int i = 0; i < 100; ++i) {
    items.push_back(tree_.path("batch/f" + std::to_string(i)));
    names.push_back("g" + std::to_string(i));
  }
  Client client;
  ASSERT_FALSE(client.connect());
  std::atomic<int> asked{0};
  std::optional<Error> error;
  auto result = BlockingClient(client).rename(
      items, names, [&] { return ++asked == 1; }, &error);
  EXPECT_EQ(asked.load(), 1);
  EXPECT_LT(result.renamed.size(), items.size());
  EXPECT_EQ(result.renamed.size(), result.previousNames.size());
  ASSERT_FALSE(result.renamed.empty());
  EXPECT_EQ(result.renamed[0].filename(), "g0");
  EXPECT_EQ(result.previousNames[0], "f0");
}

}  // namespace
