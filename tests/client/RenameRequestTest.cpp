// Batch renames through the client library, with the progress questions the
// service asks on the way, and their place on the operation queue.
#include <atomic>

#include "platform/dispatch/Semaphore.h"
#include "tests/client/ClientTestSupport.h"

namespace qxclienttest {
namespace {

struct Batch {
  std::vector<std::string> paths;
  std::vector<std::string> names;
};

// `count` files "<prefix>NNN" in `folder`, each to be renamed "<prefix>NNN.new".
Batch makeBatch(const std::string& folder, const std::string& prefix, int count) {
  Batch batch;
  char name[64];
  for (int i = 0; i < count; ++i) {
    std::snprintf(name, sizeof name, "%s%03d", prefix.c_str(), i);
    batch.paths.push_back(makeFile(folder + "/" + name));
    batch.names.push_back(std::string(name) + ".new");
  }
  return batch;
}

std::vector<std::string> pathsOf(const qx::ArrayPtr& urls) {
  std::vector<std::string> paths;
  if (!urls) return paths;
  for (const auto& object : *urls) {
    auto url = qx::cast<qx::Url>(object);
    paths.push_back(url ? url->path() : "<not a URL>");
  }
  return paths;
}

std::vector<std::string> textsOf(const qx::ArrayPtr& strings) {
  std::vector<std::string> texts;
  if (!strings) return texts;
  for (const auto& object : *strings) {
    auto string = qx::cast<qx::String>(object);
    texts.push_back(string ? string->str() : "<not a string>");
  }
  return texts;
}

bool exists(const std::string& path) {
  return std::filesystem::exists(path);
}

class RenameRequests : public PrivateService {};

TEST_F(RenameRequests, RenamedItemsComeBackWithTheNamesTheyHad) {
  Batch batch = makeBatch(files_.path(), "item", 3);
  QXFileClient& client = connectClient();
  std::atomic<int> questions{0};
  client.setProgressHandler([&] { return ++questions, true; });
  qx::ErrorPtr error;
  auto renamed =
      QXFileClientSync(client).renameUrls(urlsOf(batch.paths), stringsOf(batch.names), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(pathsOf(renamed.urls),
            (std::vector<std::string>{files_ / "item000.new", files_ / "item001.new",
                                      files_ / "item002.new"}));
  EXPECT_EQ(textsOf(renamed.names), (std::vector<std::string>{"item000", "item001", "item002"}));
  EXPECT_TRUE(exists(files_ / "item002.new"));
  EXPECT_FALSE(exists(files_ / "item002"));
  EXPECT_EQ(questions.load(), 0);
}

TEST_F(RenameRequests, TheClientIsAskedAfterEvery31RenamesAndYesStops) {
  Batch batch = makeBatch(files_.path(), "item", 70);
  QXFileClient& client = connectClient();
  std::atomic<int> questions{0};
  client.setProgressHandler([&] { return ++questions, true; });
  qx::ErrorPtr error;
  auto renamed =
      QXFileClientSync(client).renameUrls(urlsOf(batch.paths), stringsOf(batch.names), &error);
  EXPECT_FALSE(error);  // a stop is no failure
  EXPECT_EQ(questions.load(), 1);
  EXPECT_EQ(pathsOf(renamed.urls).size(), 31u);
  EXPECT_TRUE(exists(files_ / "item030.new"));
  EXPECT_TRUE(exists(files_ / "item031"));
}

TEST_F(RenameRequests, AnsweringNoEveryTimeLetsTheBatchRunToItsEnd) {
  Batch batch = makeBatch(files_.path(), "item", 62);
  QXFileClient& client = connectClient();
  std::atomic<int> questions{0};
  client.setProgressHandler([&] { return ++questions, false; });
  qx::ErrorPtr error;
  auto renamed =
      QXFileClientSync(client).renameUrls(urlsOf(batch.paths), stringsOf(batch.names), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(questions.load(), 2);
  EXPECT_EQ(textsOf(renamed.names).size(), 62u);
}

TEST_F(RenameRequests, AFailureComesWithTheItemsRenamedBeforeIt) {
  Batch batch = makeBatch(files_.path(), "item", 4);
  makeFile(files_ / "taken");
  batch.names[2] = "taken";
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  auto renamed = sync.renameUrls(urlsOf(batch.paths), stringsOf(batch.names), &error);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), EEXIST);
  EXPECT_EQ(error->localizedDescription(), "Error renaming files");
  EXPECT_EQ(textsOf(renamed.names), (std::vector<std::string>{"item000", "item001"}));
  EXPECT_TRUE(exists(files_ / "item002"));
  EXPECT_FALSE(exists(files_ / "item003.new"));
}

// The client holds back its answer to the first progress question until
// released (at the latest when this object goes).
class HeldProgress {
 public:
  explicit HeldProgress(QXFileClient& client) : state_(std::make_shared<State>()) {
    client.setProgressHandler([state = state_] {
      if (state->questions++ == 0) {
        state->asked.signal();
        state->release.wait();
      }
      return false;
    });
  }
  ~HeldProgress() { release(); }
  bool waitForFirstQuestion() { return state_->asked.waitFor(10s); }
  void release() {
    if (!std::exchange(released_, true)) state_->release.signal();
  }

 private:
  struct State {
    std::atomic<int> questions{0};
    qx::Semaphore asked;
    qx::Semaphore release;
  };
  std::shared_ptr<State> state_;
  bool released_ = false;
};

TEST_F(RenameRequests, TwoRenamesOfAConnectionAreCarriedOutOneAfterTheOther) {
  Batch first = makeBatch(files_.path(), "first", 40);
  Batch second = makeBatch(files_.path(), "second", 1);
  QXFileClient& client = connectClient();
  HeldProgress held(client);
  ReplyLog log;
  client.renameUrls(urlsOf(first.paths), stringsOf(first.names),
                    [&](qx::ArrayPtr urls, qx::ArrayPtr, qx::ErrorPtr) {
                      log.add("first " + std::to_string(urls ? urls->count() : 0));
                    });
  ASSERT_TRUE(held.waitForFirstQuestion());
  client.renameUrls(urlsOf(second.paths), stringsOf(second.names),
                    [&](qx::ArrayPtr urls, qx::ArrayPtr, qx::ErrorPtr) {
                      log.add("second " + std::to_string(urls ? urls->count() : 0));
                    });
  // A request on another queue gets through meanwhile; the second rename does not.
  qx::ErrorPtr error;
  ASSERT_TRUE(QXFileClientSync(client).getContentsOfDirectory(urlOf(files_.path()),
                                                              qx::IndexPath::make(), &error));
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(exists(second.paths[0]));
  EXPECT_TRUE(exists(files_ / "first031"));  // the first waits at its question
  EXPECT_EQ(log.count(), 0u);

  held.release();
  EXPECT_TRUE(eventually([&] { return log.count() == 2; }));
  EXPECT_EQ(log.entries(), (std::vector<std::string>{"first 40", "second 1"}));
  EXPECT_TRUE(exists(files_ / "second000.new"));
}

}  // namespace
}  // namespace qxclienttest
