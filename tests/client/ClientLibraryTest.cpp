// The client library's own promises: every reply called exactly once, waits
// that end when the connection does, and where it finds the service.
#include <signal.h>

#include <atomic>

#include "platform/dispatch/Semaphore.h"
#include "tests/client/ClientTestSupport.h"

namespace qxclienttest {
namespace {

constexpr int64_t kConnectionInvalid = 4099;

TEST(QXFileClientAlone, RequestsWithoutAConnectionAreAnsweredWithAnError) {
  QXFileClient client;
  EXPECT_FALSE(client.isConnected());
  std::atomic<int> replies{0};
  qx::ErrorPtr seen;
  client.getAclEntriesWithUrl(urlOf("/"), [&](qx::ArrayPtr entries, qx::ErrorPtr error) {
    EXPECT_FALSE(entries);
    seen = error;
    ++replies;
  });
  client.renameUrls(nullptr, nullptr, [&](qx::ArrayPtr urls, qx::ArrayPtr names, qx::ErrorPtr) {
    EXPECT_FALSE(urls || names);
    ++replies;
  });
  client.setAclEntries(nullptr, nullptr, [&](qx::ErrorPtr error) { replies += error ? 1 : 100; });
  EXPECT_EQ(replies.load(), 3);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->code(), kConnectionInvalid);

  qx::ErrorPtr error;
  EXPECT_FALSE(QXFileClientSync(client).getSizesWithUrls(urlsOf({"/"}), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kConnectionInvalid);
}

TEST(QXFileClientAlone, TheServiceIsFoundThroughTheEnvironmentElseBesideTheLibrary) {
  ::setenv("QXFILE_SERVICE_PATH", "/opt/elsewhere/qxfile-service", 1);
  EXPECT_EQ(QXFileClient::servicePath(), "/opt/elsewhere/qxfile-service");
  ::unsetenv("QXFILE_SERVICE_PATH");
  EXPECT_EQ(QXFileClient::servicePath(), QX_SERVICE_EXECUTABLE);
}

// Counts the client's invalidations. The handler outlives the test body: the
// client ends when the test does.
std::shared_ptr<std::atomic<int>> countInvalidations(QXFileClient& client) {
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  client.setInvalidationHandler([invalidations] { ++*invalidations; });
  return invalidations;
}

// Signals `reported` on every size report and keeps the client's answer to it
// until `release` is signalled.
void holdSizeReports(QXFileClient& client, qx::Semaphore& reported,
                     const std::shared_ptr<qx::Semaphore>& release) {
  client.setSizeUpdateHandler([&reported, release](const qx::ArrayPtr&) {
    reported.signal();
    release->wait();
    return true;
  });
}

class ClientLibrary : public PrivateService {};

TEST_F(ClientLibrary, ClientsOfOneUserShareOneServiceAndEveryReplyComesOnce) {
  std::string path = makeFile(files_ / "item");
  QXFileClient& first = connectClient();
  QXFileClient& second = connectClient();  // checks that no second service started
  constexpr int kThreads = 4;
  constexpr int kRequests = 50;
  std::vector<std::atomic<int>> replies(2 * kThreads * kRequests);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRequests; ++i) {
        for (int c = 0; c < 2; ++c) {
          int slot = (c * kThreads + t) * kRequests + i;
          (c == 0 ? first : second)
              .getAclEntriesWithUrl(urlOf(path), [&, slot](qx::ArrayPtr entries, qx::ErrorPtr) {
                if (!entries || entries->count() != 5) ++failures;
                ++replies[slot];
              });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  auto total = [&] {
    int sum = 0;
    for (auto& count : replies) sum += count.load();
    return sum;
  };
  EXPECT_TRUE(eventually([&] { return total() == static_cast<int>(replies.size()); }));
  std::this_thread::sleep_for(50ms);  // a second call of any reply would land by now
  for (auto& count : replies) EXPECT_EQ(count.load(), 1);
  EXPECT_EQ(failures.load(), 0);
}

TEST_F(ClientLibrary, AWaitEndsWithAnErrorWhenTheClientLetsGoOfTheConnection) {
  std::string folder = makeFolder(files_ / "big");
  fillFolder(folder, 150);
  QXFileClient& client = connectClient();
  auto invalidations = countInvalidations(client);
  qx::Semaphore reported;
  auto release = std::make_shared<qx::Semaphore>();
  holdSizeReports(client, reported, release);
  qx::ErrorPtr error;
  qx::ArrayPtr sizes = qx::Array::make();
  std::thread waiter(
      [&] { sizes = QXFileClientSync(client).getSizesWithUrls(urlsOf({folder}), &error); });
  ASSERT_TRUE(reported.waitFor(10s));
  client.invalidate();
  waiter.join();
  EXPECT_FALSE(sizes);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kConnectionInvalid);
  EXPECT_TRUE(eventually([&] { return invalidations->load() == 1; }));
  EXPECT_FALSE(client.isConnected());
  release->signal();  // the late answer goes nowhere

  // Connecting again makes a new connection that works.
  client.setSizeUpdateHandler(nullptr);
  ASSERT_TRUE(client.connect(&error));
  sizes = QXFileClientSync(client).getSizesWithUrls(urlsOf({folder}), &error);
  ASSERT_TRUE(sizes);
  EXPECT_FALSE(error);
  // Once the waiting calculation was released the service has nothing left
  // to do: it leaves when this client does (checked when the test ends).
}

TEST_F(ClientLibrary, PendingRepliesGetAnErrorWhenTheServiceGoesAway) {
  std::string folder = makeFolder(files_ / "big");
  fillFolder(folder, 150);
  QXFileClient& client = connectClient();
  auto invalidations = countInvalidations(client);
  // The client keeps its answer to the first report until the service is gone.
  qx::Semaphore reported;
  auto release = std::make_shared<qx::Semaphore>();
  holdSizeReports(client, reported, release);
  qx::Semaphore answered;
  qx::ErrorPtr seen;
  client.getSizesWithUrls(urlsOf({folder}), [&](qx::ArrayPtr, qx::ErrorPtr error) {
    seen = error;
    answered.signal();
  });
  // Stop the service between its report and its answer: it was started by
  // this test, in this test's socket folder.
  ASSERT_TRUE(reported.waitFor(10s));
  auto pids = services();
  ASSERT_EQ(pids.size(), 1u);
  ::kill(pids[0], SIGSTOP);
  ::kill(pids[0], SIGKILL);
  ASSERT_TRUE(answered.waitFor(10s));
  release->signal();
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->code(), kConnectionInvalid);
  EXPECT_TRUE(eventually([&] { return invalidations->load() == 1; }));
}

TEST_F(ClientLibrary, ABlockingCallOnTheReplyThreadFailsAtOnce) {
  std::string path = makeFile(files_ / "item");
  QXFileClient& client = connectClient();
  qx::Semaphore done;
  qx::ErrorPtr nested;
  bool onReplyThread = false;
  client.getAclEntriesWithUrl(urlOf(path), [&](qx::ArrayPtr, qx::ErrorPtr) {
    onReplyThread = client.isReplyThread();
    QXFileClientSync(client).getAclEntriesWithUrl(urlOf(path), &nested);
    done.signal();
  });
  ASSERT_TRUE(done.waitFor(10s));
  EXPECT_TRUE(onReplyThread);
  ASSERT_TRUE(nested);
  EXPECT_EQ(nested->code(), EDEADLK);
  EXPECT_FALSE(client.isReplyThread());
}

}  // namespace
}  // namespace qxclienttest
