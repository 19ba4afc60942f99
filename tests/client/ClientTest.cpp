// The client library against the real service: client mechanics only.
// Per-request routing and cancelling, completions called once from any
// thread, callbacks that never outlive their client, and reconnecting. What
// each request does to files is the workers' tests', how the service queues
// them the service's, and the records the requests carry show in the
// command line's and the GObject client's tests.
#include <gtest/gtest.h>
#include <signal.h>
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
        if (reports++ == 0) firstReport.signal();
      }
      if (reports == 1 && first) first();
      return true;
    };
  }
};

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
  // The first record of a result is its root's.
  EXPECT_LT(sevensDone.first.at(0).size, 900 * 7) << "stopped at the report after cancel()";
  EXPECT_EQ(thousandsDone.first.at(0).size, 900 * 1000);
  EXPECT_GE(thousands.reports, 9);
  for (const auto& update : sevens.updates) EXPECT_EQ(update.size % 7, 0) << update.size;
  for (const auto& update : thousands.updates) EXPECT_EQ(update.size % 1000, 0) << update.size;
  EXPECT_EQ(sevens.completions + thousands.completions, 2);
}

// A client destroyed while a calculation waits in a report completes it once,
// with an error, and once destroyed no callback of it runs, not even one that
// was under way. A callback may destroy its client.
TEST_F(TypedClient, NoCallbackRunsOnceTheClientIsGone) {
  files("items", 150, 1);
  const std::vector<std::filesystem::path> items{tree_.path("items")};
  struct Steps {
    std::atomic<int> running{0}, completed{0};
    qx::Semaphore started;
  };
  auto steps = std::make_shared<Steps>();
  auto client = std::make_unique<Client>();
  ASSERT_FALSE(client->connect());
  client->getSizes(items, {[steps](auto&) {
                     ++steps->running;
                     steps->started.signal();
                     std::this_thread::sleep_for(300ms);
                     return --steps->running, true;
                   }},
                   [steps](auto, auto error) { steps->completed += error ? 1 : 100; });
  ASSERT_TRUE(steps->started.waitFor(10s));
  client.reset();
  EXPECT_EQ(steps->running.load(), 0) << "a callback ran on after its client was destroyed";
  EXPECT_TRUE(qx::test::eventually([&] { return steps->completed > 0; }));
  std::this_thread::sleep_for(50ms);  // a second completion would land by now
  EXPECT_EQ(steps->completed.load(), 1);

  auto own = std::make_shared<std::unique_ptr<Client>>(std::make_unique<Client>());
  ASSERT_FALSE((*own)->connect());
  (*own)->getSizes(items, {[own, steps](auto&) {
                     own->reset();
                     steps->started.signal();
                     return false;
                   }},
                   [](auto, auto) {});
  EXPECT_TRUE(steps->started.waitFor(10s)) << "a callback that destroys its client never ended";
}

// A completion that destroys its client while another request's progress
// callback runs on another thread: the destructor does not wait for that
// callback, which here waits for the destructor to return, and each request
// still completes once. Which thread lets go of the other request's
// connection last varies from run to run, hence the rounds.
TEST_F(TypedClient, ACompletionDestroysItsClientWhileAnotherRequestReports) {
  files("reporting", 150, 1);
  files("stopping", 150, 1);
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    struct Steps {
      qx::Semaphore reporting, goOn, destroyed;
      std::atomic<int> reports{0}, completions{0};
    };
    auto steps = std::make_shared<Steps>();
    auto client = std::make_shared<std::unique_ptr<Client>>(std::make_unique<Client>());
    ASSERT_FALSE((*client)->connect());
    (*client)->getSizes({tree_.path("reporting")}, {[steps](auto&) {
                          if (steps->reports++ > 0) return false;
                          steps->reporting.signal();
                          return steps->goOn.waitFor(20s);
                        }},
                        [steps](auto, auto) { ++steps->completions; });
    ASSERT_TRUE(steps->reporting.waitFor(10s));
    (*client)->getSizes({tree_.path("stopping")}, {[](auto&) { return false; }},
                        [client, steps](auto, auto) {
                          client->reset();
                          ++steps->completions;
                          steps->goOn.signal();
                          steps->destroyed.signal();
                        });
    if (!steps->destroyed.waitFor(5s)) {
      ADD_FAILURE() << "destroying the client waited for the other request's callback";
      steps->goOn.signal();  // which lets the destructor return
      ASSERT_TRUE(steps->destroyed.waitFor(10s));
    }
    EXPECT_TRUE(qx::test::eventually([&] { return steps->completions == 2; }));
    EXPECT_EQ(steps->reports.load(), 1);
  }
}

// Every completion comes once, whichever thread sent the request.
TEST_F(TypedClient, EveryCompletionComesOnceFromAnyThread) {
  files("items", 1, 1);
  const auto item = tree_.path("items/f0");
  Client clients[2];
  for (Client& client : clients) ASSERT_FALSE(client.connect());
  constexpr int kThreads = 4, kRequests = 100;
  std::vector<std::atomic<int>> completions(kThreads * kRequests);
  std::atomic<int> total{0}, failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRequests; ++i) {
        clients[i % 2].getAcl(item, [&, slot = t * kRequests + i](auto listing, auto error) {
          failures += error || listing.owner.identity.id != ::getuid() ? 1 : 0;
          ++completions[slot];
          ++total;
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(qx::test::eventually([&] { return total == kThreads * kRequests; }));
  std::this_thread::sleep_for(50ms);  // a second call of any completion would land by now
  for (auto& count : completions) EXPECT_EQ(count.load(), 1);
  EXPECT_EQ(failures.load(), 0);
}

// A service that dies ends the calculation waiting on it with "connection
// invalid"; connecting again reaches a new one, and so does a calculation
// sent on a connection that has not yet noticed its service died.
TEST_F(TypedClient, AServiceThatDiesEndsWhatWaitsAndTheClientReconnects) {
  files("items", 150, 1);
  Client client;
  ASSERT_FALSE(client.connect());
  Heard heard;
  auto release = std::make_shared<qx::Semaphore>();
  client.getSizes({tree_.path("items")}, {heard.onUpdate([release] { release->waitFor(10s); })},
                  heard.completion());
  ASSERT_TRUE(heard.firstReport.waitFor(10s));
  ::kill(sandbox_.services().at(0), SIGKILL);
  auto done = heard.done.get_future();
  ASSERT_EQ(done.wait_for(10s), std::future_status::ready);
  release->signal();
  EXPECT_EQ(done.get().second.value_or(Error{}).code, 4099);

  BlockingClient blocking(client);
  std::optional<Error> error;
  ASSERT_TRUE(qx::test::eventually([&] { return !client.isConnected(); }));
  blocking.listContents(tree_.path("items"), {}, &error);
  EXPECT_EQ(error ? error->code : 0, 4099);
  ASSERT_FALSE(client.connect());
  EXPECT_EQ(blocking.listContents(tree_.path("items"), {}, &error).size(), 1u);
  EXPECT_FALSE(error);
  blocking.getSizes({tree_.path("items")}, {}, &error);
  EXPECT_FALSE(error) << "a calculation after the restart gets a working connection";
  // Its connection, kept for the next calculation, may not have heard of the service's end when
  // that is sent: the calculation then goes again on a new connection.
  ::kill(sandbox_.services().at(0), SIGKILL);
  blocking.getSizes({tree_.path("items")}, {}, &error);
  EXPECT_FALSE(error) << "a calculation on a kept connection whose service died";
  EXPECT_EQ(heard.completions, 1);
}

// A rename's questions are answered by the request's own policy, and a
// policy that throws stops the batch as YES does. A blocking call in the
// policy, as in any callback, would wait for an answer that only this thread
// could deliver: it fails at once.
TEST_F(TypedClient, ARenameStopsWhenItsPolicySays) {
  for (bool throws : {false, true}) {
    const std::string folder = "batch" + std::to_string(throws);
    files(folder, 100, 1);
    std::vector<std::filesystem::path> items;
    std::vector<std::string> names;
    for (int i = 0; i < 100; ++i) {
      items.push_back(tree_.path(folder + "/f" + std::to_string(i)));
      names.push_back("g" + std::to_string(i));
    }
    Client client;
    ASSERT_FALSE(client.connect());
    BlockingClient blocking(client);
    std::atomic<int> asked{0};
    std::optional<Error> error, inner;
    auto result = blocking.rename(
        items, names,
        [&] {
          ++asked;
          blocking.getAcl(items[0], &inner);
          if (throws) throw std::runtime_error("no");
          return true;
        },
        &error);
    EXPECT_FALSE(error);
    EXPECT_EQ(asked.load(), 1);
    EXPECT_LT(result.renamed.size(), items.size());
    EXPECT_EQ(inner.value_or(Error{}).code, EDEADLK);
  }
}

}  // namespace
