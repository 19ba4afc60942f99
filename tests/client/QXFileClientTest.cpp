// The client library against the real service, started on demand in a
// private socket folder: all seven requests and both callbacks, every reply
// called exactly once, and where the service runs each request.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "client/lib/QXFileClient.h"
#include "model/QXAclEntry.h"
#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/foundation/Foundation.h"
#include "tests/support/Eventually.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/SizeRecord.h"
#include "tests/support/TempTree.h"

namespace {

using namespace std::chrono_literals;
using qx::test::eventually;
using qx::test::SizeRecord;
constexpr int64_t kConnectionInvalid = 4099;

qx::UrlPtr urlOf(const std::string& path) {
  return qx::Url::fileURLWithPath(path);
}

qx::ArrayPtr urlsOf(const std::vector<std::string>& paths) {
  std::vector<qx::ObjectPtr> urls;
  for (const auto& path : paths) urls.push_back(urlOf(path));
  return qx::Array::make(std::move(urls));
}

qx::ArrayPtr stringsOf(const std::vector<std::string>& texts) {
  std::vector<qx::ObjectPtr> strings;
  for (const auto& text : texts) strings.push_back(qx::str(text));
  return qx::Array::make(std::move(strings));
}

std::vector<std::string> pathsOf(const qx::ArrayPtr& urls) {
  std::vector<std::string> paths;
  for (const auto& object : urls ? *urls : *qx::Array::make()) {
    paths.push_back(qx::cast<qx::Url>(object)->path());
  }
  return paths;
}

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : mode_t(-1);
}

// The number of threads of process `pid` named `wanted`.
int threadsNamed(pid_t pid, const std::string& wanted) {
  int count = 0;
  std::error_code ignored;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    count += name == wanted ? 1 : 0;
  }
  return count;
}

// Remembers the answers of asynchronous requests in the order they arrive.
class ReplyLog {
 public:
  void add(std::string what) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(what));
  }
  std::vector<std::string> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  std::size_t count() const { return entries().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// Holds the client's answer to the first report or question until released
// (at the latest when this object goes).
class Held {
 public:
  explicit Held(QXFileClient& client, bool sizes = true) : state_(std::make_shared<State>()) {
    auto hold = [state = state_] {
      if (state->calls++ == 0) {
        state->arrived.signal();
        state->release.wait();
      }
    };
    if (sizes) {
      client.setSizeUpdateHandler([hold](const qx::ArrayPtr&) { return hold(), true; });
    } else {
      client.setProgressHandler([hold] { return hold(), false; });
    }
  }
  ~Held() { release(); }
  bool waitForFirst() { return state_->arrived.waitFor(10s); }
  void release() {
    if (!std::exchange(released_, true)) state_->release.signal();
  }

 private:
  struct State {
    std::atomic<int> calls{0};
    qx::Semaphore arrived;
    qx::Semaphore release;
  };
  std::shared_ptr<State> state_;
  bool released_ = false;
};

// The client's requests as blocking calls: each waits for its one reply.
class Blocking {
 public:
  explicit Blocking(QXFileClient& client) : client_(client) {}

  qx::ArrayPtr getAclEntriesWithUrl(const qx::UrlPtr& url, qx::ErrorPtr* error) {
    return std::get<0>(wait<qx::ArrayPtr>(
        [&](auto reply) { client_.getAclEntriesWithUrl(url, std::move(reply)); }, error));
  }
  qx::ArrayPtr getSizesWithUrls(const qx::ArrayPtr& urls, qx::ErrorPtr* error) {
    return std::get<0>(wait<qx::ArrayPtr>(
        [&](auto reply) { client_.getSizesWithUrls(urls, std::move(reply)); }, error));
  }
  qx::ArrayPtr getContentsOfDirectory(const qx::UrlPtr& url, const qx::IndexPathPtr& indexPath,
                                      qx::ErrorPtr* error) {
    return std::get<0>(wait<qx::ArrayPtr>(
        [&](auto reply) { client_.getContentsOfDirectory(url, indexPath, std::move(reply)); },
        error));
  }
  qx::ArrayPtr getAclAccessWithUrl(const qx::UrlPtr& url, const qx::UuidPtr& uuid,
                                   qx::ErrorPtr* error) {
    return std::get<0>(wait<qx::ArrayPtr>(
        [&](auto reply) { client_.getAclAccessWithUrl(url, uuid, std::move(reply)); }, error));
  }
  // True when the service answered without an error.
  bool setAclEntries(const qx::ArrayPtr& entries, const qx::UrlPtr& url, qx::ErrorPtr* error) {
    qx::ErrorPtr answered;
    wait<>([&](auto reply) { client_.setAclEntries(entries, url, std::move(reply)); }, &answered);
    if (error) *error = answered;
    return !answered;
  }
  struct Renamed {
    qx::ArrayPtr urls;
    qx::ArrayPtr names;
  };
  Renamed renameUrls(const qx::ArrayPtr& urls, const qx::ArrayPtr& names, qx::ErrorPtr* error) {
    auto [renamed, previous] = wait<qx::ArrayPtr, qx::ArrayPtr>(
        [&](auto reply) { client_.renameUrls(urls, names, std::move(reply)); }, error);
    return {renamed, previous};
  }

 private:
  template <class... Values, class Send>
  std::tuple<Values...> wait(Send send, qx::ErrorPtr* error) {
    auto answer = qx::ReplyWaiter<Values..., qx::ErrorPtr>::wait(send);
    EXPECT_TRUE(answer) << "the client calls every reply";
    if (!answer) return {};
    if constexpr (sizeof...(Values) == 0) {
      if (error) *error = *answer;
      return {};
    } else {
      if (error) *error = std::get<sizeof...(Values)>(*answer);
      return [&]<std::size_t... I>(std::index_sequence<I...>) {
        return std::tuple<Values...>(std::get<I>(*answer)...);
      }
      (std::index_sequence_for<Values...>{});
    }
  }

  QXFileClient& client_;
};

// Each test has a service of its own, started on demand in a private socket
// folder and gone soon after its last client: the test checks that it went.
class ClientLibrary : public ::testing::Test {
 protected:
  void TearDown() override {
    clients_.clear();
    EXPECT_TRUE(sandbox_.allGoneWithin(15s)) << "the service kept running without clients";
  }

  std::vector<pid_t> services() const { return sandbox_.services(); }

  // A connected client (the first one starts the service).
  QXFileClient& connectClient() {
    auto client = std::make_unique<QXFileClient>();
    qx::ErrorPtr error;
    EXPECT_TRUE(client->connect(&error)) << (error ? error->description() : "");
    EXPECT_EQ(services().size(), 1u) << "every client of a test meets one service";
    clients_.push_back(std::move(client));
    return *clients_.back();
  }

  // `count` files "fNNN" of `bytes` bytes in the folder `relative`, made first.
  std::vector<std::string> files(const std::string& relative, int count,
                                 std::size_t bytes = 10) const {
    std::filesystem::create_directories(tree_.path(relative));
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
      char name[64];
      std::snprintf(name, sizeof name, "%s/f%03d", relative.c_str(), i);
      tree_.file(name, std::string(bytes, 'x'));
      paths.push_back(tree_.path(name));
    }
    return paths;
  }

  qx::test::ServiceSandbox sandbox_{QX_SERVICE_EXECUTABLE};
  qx::test::TempTree tree_{"qx-client"};

 private:
  std::vector<std::unique_ptr<QXFileClient>> clients_;
};

TEST(QXFileClientAlone, RequestsWithoutAConnectionAreAnsweredWithAnError) {
  QXFileClient client;
  EXPECT_FALSE(client.isConnected());
  std::atomic<int> replies{0};
  client.getAclEntriesWithUrl(urlOf("/"), [&](qx::ArrayPtr entries, qx::ErrorPtr error) {
    replies += !entries && error && error->code() == kConnectionInvalid ? 1 : 100;
  });
  client.renameUrls(nullptr, nullptr, [&](qx::ArrayPtr urls, qx::ArrayPtr names, qx::ErrorPtr) {
    replies += !urls && !names ? 1 : 100;
  });
  client.setAclEntries(nullptr, nullptr, [&](qx::ErrorPtr error) { replies += error ? 1 : 100; });
  EXPECT_EQ(replies.load(), 3);
  qx::ErrorPtr error;
  EXPECT_FALSE(Blocking(client).getSizesWithUrls(urlsOf({"/"}), &error));
  EXPECT_EQ(error ? error->code() : 0, kConnectionInvalid);
}

TEST_F(ClientLibrary, ClientsOfOneUserShareOneServiceAndEveryReplyComesOnce) {
  std::string path = files("items", 1)[0];
  QXFileClient* clients[] = {&connectClient(), &connectClient()};
  constexpr int kThreads = 4, kRequests = 100;
  std::vector<std::atomic<int>> replies(kThreads * kRequests);
  std::atomic<int> total{0}, failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRequests; ++i) {
        clients[i % 2]->getAclEntriesWithUrl(
            urlOf(path), [&, slot = t * kRequests + i](qx::ArrayPtr entries, qx::ErrorPtr) {
              if (!entries || entries->count() != 5) ++failures;
              ++replies[slot];
              ++total;
            });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(eventually([&] { return total == kThreads * kRequests; }));
  std::this_thread::sleep_for(50ms);  // a second call of any reply would land by now
  for (auto& count : replies) EXPECT_EQ(count.load(), 1);
  EXPECT_EQ(failures.load(), 0);
}

// A wait ends with an error when the client lets go of its connection, and a
// pending reply when the service dies; the client can connect again.
TEST_F(ClientLibrary, WaitsAndRepliesEndWhenTheConnectionDoes) {
  files("big", 150);
  const qx::ArrayPtr big = urlsOf({tree_.path("big")});
  QXFileClient& client = connectClient();
  auto invalidations = std::make_shared<std::atomic<int>>(0);
  client.setInvalidationHandler([invalidations] { ++*invalidations; });
  {
    Held held(client);
    qx::ErrorPtr error;
    qx::ArrayPtr sizes = qx::Array::make();
    std::thread waiter([&] { sizes = Blocking(client).getSizesWithUrls(big, &error); });
    ASSERT_TRUE(held.waitForFirst());
    client.invalidate();
    waiter.join();
    EXPECT_FALSE(sizes);
    EXPECT_EQ(error ? error->code() : 0, kConnectionInvalid);
    EXPECT_TRUE(eventually([&] { return invalidations->load() == 1; }));
    EXPECT_FALSE(client.isConnected());
  }
  ASSERT_TRUE(client.connect());
  Held held(client);
  qx::Semaphore answered;
  qx::ErrorPtr seen;
  client.getSizesWithUrls(big, [&](qx::ArrayPtr, qx::ErrorPtr error) {
    seen = error;
    answered.signal();
  });
  ASSERT_TRUE(held.waitForFirst());
  auto pids = services();
  ASSERT_EQ(pids.size(), 1u);
  kill(pids[0], SIGSTOP);
  kill(pids[0], SIGKILL);
  ASSERT_TRUE(answered.waitFor(10s));
  EXPECT_EQ(seen ? seen->code() : 0, kConnectionInvalid);
  EXPECT_TRUE(eventually([&] { return invalidations->load() == 2; }));
}

// Entries read from one item and saved to another carry its mode; the
// entries argument admits arrays, strings, tree nodes and entries only:
// anything else is refused before the service, and the connection goes on.
TEST_F(ClientLibrary, AclEntriesCrossBothWaysAndForeignClassesAreRefused) {
  std::string source = files("items", 1)[0], target = tree_.path("items/target");
  tree_.file("items/target");
  chmod(source.c_str(), 0754);
  Blocking sync(connectClient());
  qx::ErrorPtr error = qx::Error::errorWithDomain("stale", 1);
  qx::ArrayPtr entries = sync.getAclEntriesWithUrl(urlOf(source), &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(entries && entries->count() == 5u);
  EXPECT_TRUE(sync.setAclEntries(entries, urlOf(target), &error));
  EXPECT_EQ(modeOf(target), 0754u);
  qx::ArrayPtr access = sync.getAclAccessWithUrl(
      urlOf(target), entries->objectAs<QXAclEntry>(2)->uuid(), &error);  // the owner's
  EXPECT_TRUE(access && access->count() == 3u);

  chmod(target.c_str(), 0600);
  const std::pair<qx::ObjectPtr, std::string> intruders[] = {
      {qx::Number::numberWithInteger(0777), "NSNumber"}, {urlOf(target), "NSURL"}};
  for (const auto& [intruder, className] : intruders) {
    auto mixed = entries->mutableCopy();
    mixed->addObject(intruder);
    EXPECT_FALSE(sync.setAclEntries(mixed, urlOf(target), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), qx::kCocoaErrorDomain);
    EXPECT_EQ(error->code(), 4864);
    EXPECT_NE(error->localizedDescription().find(className), std::string::npos)
        << error->localizedDescription();
  }
  EXPECT_EQ(modeOf(target), 0600u);
  EXPECT_TRUE(sync.setAclEntries(entries, urlOf(target), &error));
  EXPECT_EQ(modeOf(target), 0754u);
}

// A long propagation holds the connection's queue: the ACL requests sent
// behind it are answered after it, in order, while another client's request
// is answered in the meantime.
TEST_F(ClientLibrary, AclRequestsOfAConnectionNeverOverlap) {
  for (int i = 0; i < 20; ++i) files("top/d" + std::to_string(i), 200, 0);
  std::string item = files("items", 1)[0];
  QXFileClient& client = connectClient();
  QXFileClient& other = connectClient();
  qx::ErrorPtr error;
  qx::ArrayPtr entries = Blocking(client).getAclEntriesWithUrl(urlOf(tree_.path("top")), &error);
  ASSERT_TRUE(entries);
  ReplyLog log;
  client.propagateAclEntries(entries, urlOf(tree_.path("top")), [&](qx::ErrorPtr error) {
    log.add(error ? "propagate failed" : "propagate");
  });
  client.getAclEntriesWithUrl(urlOf(item), [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("get"); });
  client.setAclEntries(entries, urlOf(item), [&](qx::ErrorPtr) { log.add("set"); });
  client.getAclAccessWithUrl(urlOf(item), nullptr,
                             [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("access"); });
  other.getAclEntriesWithUrl(urlOf(item), [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("other"); });
  EXPECT_TRUE(eventually([&] { return log.count() == 5; }, 60s));
  EXPECT_EQ(log.entries(),
            (std::vector<std::string>{"other", "propagate", "get", "set", "access"}));
}

// Reports after the 100th and 200th file; the client's answer (true: go on)
// decides, and a handler that throws counts as a stop.
TEST_F(ClientLibrary, SizeReportsAndTheirAnswers) {
  files("big", 250, 10);
  struct Row {
    std::function<bool()> handler;
    int reports;
    SizeRecord lastFirst;  // the first record of the result
    size_t lastCount;
  };
  const Row rows[] = {
      {[] { return true; }, 2, {{}, 2500, false}, 51},
      {[] { return false; }, 1, {{}, 1000, false}, 101},
      {[]() -> bool { throw std::runtime_error("gave up"); }, 1, {{}, 1000, false}, 101}};
  QXFileClient& client = connectClient();
  for (const Row& row : rows) {
    std::vector<std::vector<SizeRecord>> reports;
    client.setSizeUpdateHandler([&](const qx::ArrayPtr& batch) {
      reports.push_back(SizeRecord::listOf(batch));
      return row.handler();
    });
    qx::ErrorPtr error;
    auto last =
        SizeRecord::listOf(Blocking(client).getSizesWithUrls(urlsOf({tree_.path("big")}), &error));
    EXPECT_FALSE(error);
    ASSERT_EQ(reports.size(), static_cast<size_t>(row.reports));
    ASSERT_EQ(reports[0].size(), 101u);
    EXPECT_EQ(reports[0][0], (SizeRecord{{}, 1000, true}));
    EXPECT_EQ(reports[0][100], (SizeRecord{{99}, 10, false}));
    ASSERT_EQ(last.size(), row.lastCount);
    EXPECT_EQ(last[0], row.lastFirst) << "final once the calculation has ended";
  }
}

// A handler may use what lives no longer than its client: once the client is
// destroyed, no handler is running any more, not even one that was under way.
// A handler may destroy its own client.
TEST_F(ClientLibrary, NoHandlerRunsOnceTheClientIsGone) {
  files("big", 150);
  const qx::ArrayPtr big = urlsOf({tree_.path("big")});
  struct Calls {
    qx::Semaphore started;
    std::atomic<int> running{0};
  };
  auto calls = std::make_shared<Calls>();
  auto client = std::make_unique<QXFileClient>();
  ASSERT_TRUE(client->connect());
  client->setSizeUpdateHandler([calls](const qx::ArrayPtr&) {
    ++calls->running;
    calls->started.signal();
    std::this_thread::sleep_for(300ms);
    --calls->running;
    return true;
  });
  client->getSizesWithUrls(big, [](qx::ArrayPtr, qx::ErrorPtr) {});
  ASSERT_TRUE(calls->started.waitFor(10s));
  client.reset();
  EXPECT_EQ(calls->running.load(), 0) << "a handler ran on after its client was destroyed";

  auto own = std::make_shared<std::unique_ptr<QXFileClient>>(std::make_unique<QXFileClient>());
  ASSERT_TRUE((*own)->connect());
  (*own)->setSizeUpdateHandler([own, calls](const qx::ArrayPtr&) {
    own->reset();
    calls->started.signal();
    return false;
  });
  (*own)->getSizesWithUrls(big, [](qx::ArrayPtr, qx::ErrorPtr) {});
  EXPECT_TRUE(calls->started.waitFor(10s)) << "a handler that destroys its client never ended";
}

// Destroyed by a reply callback, the client does not wait for a handler that
// waits for a reply itself: that reply could only come on the thread that is
// destroying the client.
TEST_F(ClientLibrary, DestroyedOnTheReplyThreadItLeavesAHandlerWaitingForAReply) {
  files("big", 150);
  struct Steps {
    qx::Semaphore inHandler, sendNow, destroyNow, destroyed, handlerDone;
  };
  auto steps = std::make_shared<Steps>();
  auto client = std::make_shared<std::unique_ptr<QXFileClient>>(std::make_unique<QXFileClient>());
  ASSERT_TRUE((*client)->connect());
  QXFileClient* raw = client->get();
  const qx::UrlPtr folder = urlOf(tree_.path("big"));
  raw->setSizeUpdateHandler([steps, raw, folder](const qx::ArrayPtr&) {
    steps->inHandler.signal();
    steps->sendNow.wait();
    Blocking(*raw).getContentsOfDirectory(folder, qx::IndexPath::make(), nullptr);
    steps->handlerDone.signal();
    return true;
  });
  raw->getSizesWithUrls(urlsOf({tree_.path("big")}), [](qx::ArrayPtr, qx::ErrorPtr) {});
  ASSERT_TRUE(steps->inHandler.waitFor(10s));
  raw->getAclEntriesWithUrl(folder, [steps, client](qx::ArrayPtr, qx::ErrorPtr) {
    steps->destroyNow.wait();
    client->reset();
    steps->destroyed.signal();
  });
  steps->sendNow.signal();
  std::this_thread::sleep_for(100ms);  // the handler's request is on its way by now
  steps->destroyNow.signal();
  EXPECT_TRUE(steps->destroyed.waitFor(10s)) << "the client waited for the handler";
  EXPECT_TRUE(steps->handlerDone.waitFor(10s));
}

// One size calculation at a time per connection, listings (levels of file
// reference URLs) beside it, and each client with a service object and a
// queue of its own.
TEST_F(ClientLibrary, AListingIsAnsweredWhileACalculationWaits) {
  files("big", 150);
  const std::string small = tree_.path("small");
  files("small", 3);
  QXFileClient& client = connectClient();
  QXFileClient& other = connectClient();
  Held held(client);
  ReplyLog log;
  client.getSizesWithUrls(urlsOf({tree_.path("big")}),
                          [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("sizes"); });
  ASSERT_TRUE(held.waitForFirst());
  client.getSizesWithUrls(urlsOf({small}), [&](qx::ArrayPtr sizes, qx::ErrorPtr) {
    log.add(sizes && sizes->count() == 4 ? "second sizes" : "second sizes, wrong");
  });
  qx::ErrorPtr error = qx::Error::errorWithDomain("stale", 1);
  qx::ArrayPtr levels =
      Blocking(client).getContentsOfDirectory(urlOf(small), qx::IndexPath::make(), &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(levels && levels->count() == 1u);
  EXPECT_EQ(pathsOf(levels->objectAs<qx::Array>(0)),
            (std::vector<std::string>{small + "/f000", small + "/f001", small + "/f002"}));
  EXPECT_TRUE(levels->objectAs<qx::Array>(0)->objectAs<qx::Url>(0)->isFileReferenceURL());
  // Not a folder: no levels, and the nil error arrives as nil.
  error = qx::Error::errorWithDomain("stale", 1);
  levels = Blocking(client).getContentsOfDirectory(urlOf(tree_.path("gone")), qx::IndexPath::make(),
                                                   &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(levels ? levels->count() : 99u, 0u);
  EXPECT_EQ(threadsNamed(services().at(0), "org.qxfile.File"), 1);

  // The other client's calculation goes through its reports to its end.
  EXPECT_TRUE(Blocking(other).getSizesWithUrls(urlsOf({tree_.path("big")}), &error));
  EXPECT_EQ(threadsNamed(services().at(0), "org.qxfile.File"), 2);
  EXPECT_EQ(log.count(), 0u);

  held.release();
  EXPECT_TRUE(eventually([&] { return log.count() == 2; }));
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"sizes", "second sizes"}));
}

// A YES to the question after the 31st rename stops there; a second rename
// waits for the first, held at its question and then told NO; a listing gets
// through meanwhile.
TEST_F(ClientLibrary, RenamesAskEvery31AndRunOneAfterTheOther) {
  QXFileClient& client = connectClient();
  std::vector<std::string> paths = files("batch", 70), names;
  for (int i = 0; i < 70; ++i) names.push_back("g" + std::to_string(i));
  std::atomic<int> questions{0};
  client.setProgressHandler([&] { return ++questions, true; });
  qx::ErrorPtr error;
  auto renamed = Blocking(client).renameUrls(urlsOf(paths), stringsOf(names), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(questions.load(), 1);
  ASSERT_EQ(pathsOf(renamed.urls).size(), 31u);
  EXPECT_EQ(pathsOf(renamed.urls).back(), tree_.path("batch/g30"));
  EXPECT_EQ(qx::cast<qx::String>(renamed.names->objectAtIndex(0))->str(), "f000");

  std::vector<std::string> first = files("first", 40), second = files("second", 1);
  Held held(client, false);
  ReplyLog log;
  client.renameUrls(urlsOf(first), stringsOf(names),
                    [&](qx::ArrayPtr urls, qx::ArrayPtr, qx::ErrorPtr) {
                      log.add("first " + std::to_string(urls ? urls->count() : 0));
                    });
  ASSERT_TRUE(held.waitForFirst());
  client.renameUrls(urlsOf(second), stringsOf({"y"}),
                    [&](qx::ArrayPtr urls, qx::ArrayPtr, qx::ErrorPtr) {
                      log.add("second " + std::to_string(urls ? urls->count() : 0));
                    });
  ASSERT_TRUE(Blocking(client).getContentsOfDirectory(urlOf(tree_.path("second")),
                                                      qx::IndexPath::make(), &error));
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(std::filesystem::exists(second[0]));
  EXPECT_EQ(log.count(), 0u);
  held.release();
  EXPECT_TRUE(eventually([&] { return log.count() == 2; }));
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"first 40", "second 1"}));
}

}  // namespace
