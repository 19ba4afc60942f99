// The client library against the real service: all seven requests and both
// callbacks, every reply called exactly once, and where the service runs
// each request.
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "model/QXAclEntry.h"
#include "platform/dispatch/Semaphore.h"
#include "tests/client/ClientTestSupport.h"
#include "tests/support/SizeRecord.h"

namespace qxclienttest {
namespace {

using qx::test::SizeRecord;
constexpr int64_t kConnectionInvalid = 4099;

// The identity UUIDs of ids, as the service forms them.
qx::UuidPtr userUuid(uid_t uid) {
  char text[64];
  std::snprintf(text, sizeof text, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA%08X", uid);
  return qx::Uuid::withString(text);
}
qx::UuidPtr groupUuid(gid_t gid) {
  char text[64];
  std::snprintf(text, sizeof text, "ABCDEFAB-CDEF-ABCD-EFAB-CDEF%08X", gid);
  return qx::Uuid::withString(text);
}

// Stores a one-entry extended ACL in the item's attribute, in the service's
// own layout: an allow entry for `who` with the given rights.
void storeAcl(const std::string& path, const qx::UuidPtr& who, uint32_t rights) {
  std::vector<uint8_t> bytes;
  for (uint32_t value : {0x012cc16du, 1u, 0u}) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(uint8_t(value >> shift));
  }
  bytes.insert(bytes.end(), who->bytes().begin(), who->bytes().end());
  for (uint32_t value : {1u, rights}) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(uint8_t(value >> shift));
  }
  ASSERT_EQ(lsetxattr(path.c_str(), "user.qxfile.acl", bytes.data(), bytes.size(), 0), 0);
}

std::string storedAcl(const std::string& path) {
  char bytes[4096];
  ssize_t length = lgetxattr(path.c_str(), "user.qxfile.acl", bytes, sizeof bytes);
  return length > 0 ? std::string(bytes, length) : "";
}

std::vector<std::string> pathsOf(const qx::ArrayPtr& urls) {
  std::vector<std::string> paths;
  if (!urls) return paths;
  for (const auto& object : *urls) paths.push_back(qx::cast<qx::Url>(object)->path());
  return paths;
}

// The names of the threads of process `pid`.
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
  EXPECT_FALSE(QXFileClientSync(client).getSizesWithUrls(urlsOf({"/"}), &error));
  EXPECT_EQ(error ? error->code() : 0, kConnectionInvalid);

  // The service is found through the environment, else beside the library.
  setenv("QXFILE_SERVICE_PATH", "/opt/elsewhere/qxfile-service", 1);
  EXPECT_EQ(QXFileClient::servicePath(), "/opt/elsewhere/qxfile-service");
  unsetenv("QXFILE_SERVICE_PATH");
  EXPECT_EQ(QXFileClient::servicePath(), QX_SERVICE_EXECUTABLE);
}

class ClientLibrary : public PrivateService {};

TEST_F(ClientLibrary, ClientsOfOneUserShareOneServiceAndEveryReplyComesOnce) {
  std::string path = files("items", 1)[0];
  QXFileClient* clients[] = {&connectClient(), &connectClient()};
  constexpr int kThreads = 4, kRequests = 50;
  std::vector<std::atomic<int>> replies(2 * kThreads * kRequests);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2 * kRequests; ++i) {
        int slot = t * 2 * kRequests + i;
        clients[i % 2]->getAclEntriesWithUrl(urlOf(path),
                                             [&, slot](qx::ArrayPtr entries, qx::ErrorPtr) {
                                               if (!entries || entries->count() != 5) ++failures;
                                               ++replies[slot];
                                             });
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
    std::thread waiter([&] { sizes = QXFileClientSync(client).getSizesWithUrls(big, &error); });
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

TEST_F(ClientLibrary, ABlockingCallOnTheReplyThreadFailsAtOnce) {
  std::string path = files("items", 1)[0];
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
  EXPECT_EQ(nested ? nested->code() : 0, EDEADLK);
  EXPECT_FALSE(client.isReplyThread());
}

TEST_F(ClientLibrary, AclRequestsEndToEnd) {
  std::string source = files("items", 1, 5)[0];
  chmod(source.c_str(), 0754);
  storeAcl(source, groupUuid(4242), 0x2 | 0x80);
  tree_.folder("top", 0750);
  std::string top = tree_.path("top");
  std::string below = files("top/sub", 1)[0];
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error = qx::Error::errorWithDomain("stale", 1);
  qx::ArrayPtr entries = sync.getAclEntriesWithUrl(urlOf(source), &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(entries && entries->count() == 6u);
  EXPECT_TRUE(qx::isEqual(entries->objectAtIndex(0), qx::str("ACL")));
  EXPECT_TRUE(qx::isEqual(entries->objectAtIndex(2), qx::str("POSIX")));
  EXPECT_TRUE(qx::isEqual(entries->objectAs<QXAclEntry>(1)->uuid(), groupUuid(4242)));
  EXPECT_TRUE(qx::isEqual(entries->objectAs<QXAclEntry>(3)->uuid(), userUuid(getuid())));
  EXPECT_TRUE(qx::isEqual(entries->objectAs<QXAclEntry>(4)->uuid(), groupUuid(getgid())));

  // Saved to another item.
  tree_.file("items/target");
  std::string target = tree_.path("items/target");
  EXPECT_TRUE(sync.setAclEntries(entries, urlOf(target), &error));
  EXPECT_EQ(modeOf(target), 0754u);
  EXPECT_EQ(storedAcl(target), storedAcl(source));

  // The top folder's settings go to everything below it.
  storeAcl(top, groupUuid(4242), 0x2 | 0x80);
  qx::ArrayPtr folderEntries = sync.getAclEntriesWithUrl(urlOf(top), &error);
  EXPECT_TRUE(sync.propagateAclEntries(folderEntries, urlOf(top), &error));
  for (const std::string& item : {tree_.path("top/sub"), below}) {
    EXPECT_EQ(modeOf(item), 0750u) << item;
    EXPECT_FALSE(storedAcl(item).empty()) << item;
  }

  qx::ArrayPtr access = sync.getAclAccessWithUrl(urlOf(target), userUuid(getuid()), &error);
  EXPECT_TRUE(access && access->count() == 3u);

  // The entries argument admits arrays, strings, tree nodes and entries only:
  // anything else is refused before the service, and the connection goes on.
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
  EXPECT_EQ(modeOf(target), 0754u);
  EXPECT_TRUE(sync.setAclEntries(entries, urlOf(target), &error));
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
  qx::ArrayPtr entries =
      QXFileClientSync(client).getAclEntriesWithUrl(urlOf(tree_.path("top")), &error);
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
    auto last = SizeRecord::listOf(
        QXFileClientSync(client).getSizesWithUrls(urlsOf({tree_.path("big")}), &error));
    EXPECT_FALSE(error);
    ASSERT_EQ(reports.size(), static_cast<size_t>(row.reports));
    ASSERT_EQ(reports[0].size(), 101u);
    EXPECT_EQ(reports[0][0], (SizeRecord{{}, 1000, true}));
    EXPECT_EQ(reports[0][100], (SizeRecord{{99}, 10, false}));
    ASSERT_EQ(last.size(), row.lastCount);
    EXPECT_EQ(last[0], row.lastFirst) << "final once the calculation has ended";
  }
}

TEST_F(ClientLibrary, ListingsComeAsLevelsOfReferenceUrls) {
  for (const char* name : {"top/b", "top/A", "top/a", "top/sub/x"}) {
    std::filesystem::create_directories(tree_.path(std::filesystem::path(name).parent_path()));
    tree_.file(name);
  }
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  qx::ArrayPtr levels =
      sync.getContentsOfDirectory(urlOf(tree_.path("top")), qx::IndexPath::make({3}), &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(levels && levels->count() == 2u);
  const std::string top = tree_.path("top");
  EXPECT_EQ(pathsOf(levels->objectAs<qx::Array>(0)),
            (std::vector<std::string>{top + "/A", top + "/a", top + "/b", top + "/sub"}));
  EXPECT_EQ(pathsOf(levels->objectAs<qx::Array>(1)), std::vector<std::string>{top + "/sub/x"});
  EXPECT_TRUE(levels->objectAs<qx::Array>(0)->objectAs<qx::Url>(0)->isFileReferenceURL());
  // Not a folder: no levels, and the nil error arrives as nil.
  error = qx::Error::errorWithDomain("stale", 1);
  levels = sync.getContentsOfDirectory(urlOf(tree_.path("gone")), qx::IndexPath::make(), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(levels ? levels->count() : 99u, 0u);
}

// One size calculation at a time per connection, listings beside it, and
// each client with a service object and a queue of its own.
TEST_F(ClientLibrary, AListingIsAnsweredWhileACalculationWaits) {
  files("big", 150);
  files("small", 3);
  QXFileClient& client = connectClient();
  QXFileClient& other = connectClient();
  Held held(client);
  ReplyLog log;
  client.getSizesWithUrls(urlsOf({tree_.path("big")}),
                          [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("sizes"); });
  ASSERT_TRUE(held.waitForFirst());
  client.getSizesWithUrls(urlsOf({tree_.path("small")}), [&](qx::ArrayPtr sizes, qx::ErrorPtr) {
    log.add(sizes && sizes->count() == 4 ? "second sizes" : "second sizes, wrong");
  });
  client.getContentsOfDirectory(urlOf(tree_.path("small")), qx::IndexPath::make(),
                                [&](qx::ArrayPtr levels, qx::ErrorPtr) {
                                  log.add(levels && levels->count() == 1 ? "listing" : "bad");
                                });
  EXPECT_TRUE(eventually([&] { return log.count() == 1; }));
  EXPECT_EQ(threadsNamed(services().at(0), "org.qxfile.File"), 1);

  // The other client's calculation goes through its reports to its end.
  qx::ErrorPtr error;
  EXPECT_TRUE(QXFileClientSync(other).getSizesWithUrls(urlsOf({tree_.path("big")}), &error));
  EXPECT_EQ(threadsNamed(services().at(0), "org.qxfile.File"), 2);
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"listing"}));

  held.release();
  EXPECT_TRUE(eventually([&] { return log.count() == 3; }));
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"listing", "sizes", "second sizes"}));
}

TEST_F(ClientLibrary, RenamesAskEvery31AndRunOneAfterTheOther) {
  struct Row {
    int items;
    bool answer;  // true: stop
    int questions;
    int renamed;
  };
  QXFileClient& client = connectClient();
  for (const Row& row : {Row{3, true, 0, 3}, Row{70, true, 1, 31}, Row{62, false, 2, 62}}) {
    const std::string folder = "batch" + std::to_string(row.items);
    std::vector<std::string> paths = files(folder, row.items), names;
    for (int i = 0; i < row.items; ++i) names.push_back("g" + std::to_string(i));
    std::atomic<int> questions{0};
    client.setProgressHandler([&] { return ++questions, row.answer; });
    qx::ErrorPtr error;
    auto renamed = QXFileClientSync(client).renameUrls(urlsOf(paths), stringsOf(names), &error);
    EXPECT_FALSE(error);
    EXPECT_EQ(questions.load(), row.questions);
    ASSERT_EQ(pathsOf(renamed.urls).size(), static_cast<size_t>(row.renamed));
    EXPECT_EQ(pathsOf(renamed.urls).back(),
              tree_.path(folder + "/g" + std::to_string(row.renamed - 1)));
    EXPECT_EQ(qx::cast<qx::String>(renamed.names->objectAtIndex(0))->str(), "f000");
  }
  // A failure comes with the items renamed before it.
  std::vector<std::string> paths = files("fail", 3);
  tree_.file("fail/taken");
  qx::ErrorPtr error;
  auto renamed =
      QXFileClientSync(client).renameUrls(urlsOf(paths), stringsOf({"a", "taken", "c"}), &error);
  EXPECT_EQ(error ? error->code() : 0, EEXIST);
  EXPECT_EQ(error ? error->localizedDescription() : "", "Error renaming files");
  EXPECT_EQ(pathsOf(renamed.urls), std::vector<std::string>{tree_.path("fail/a")});

  // The second rename waits for the first, held at its question; a listing
  // gets through meanwhile.
  std::vector<std::string> first = files("first", 40), second = files("second", 1);
  Held held(client, false);
  ReplyLog log;
  std::vector<std::string> newNames;
  for (int i = 0; i < 40; ++i) newNames.push_back("n" + std::to_string(i));
  client.renameUrls(urlsOf(first), stringsOf(newNames),
                    [&](qx::ArrayPtr urls, qx::ArrayPtr, qx::ErrorPtr) {
                      log.add("first " + std::to_string(urls ? urls->count() : 0));
                    });
  ASSERT_TRUE(held.waitForFirst());
  client.renameUrls(urlsOf(second), stringsOf({"y"}),
                    [&](qx::ArrayPtr urls, qx::ArrayPtr, qx::ErrorPtr) {
                      log.add("second " + std::to_string(urls ? urls->count() : 0));
                    });
  ASSERT_TRUE(QXFileClientSync(client).getContentsOfDirectory(urlOf(tree_.path("second")),
                                                              qx::IndexPath::make(), &error));
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(std::filesystem::exists(second[0]));
  EXPECT_EQ(log.count(), 0u);
  held.release();
  EXPECT_TRUE(eventually([&] { return log.count() == 2; }));
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"first 40", "second 1"}));
}

}  // namespace
}  // namespace qxclienttest
