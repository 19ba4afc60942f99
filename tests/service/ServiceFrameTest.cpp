// The service frame in process: a QXFileService and its delegate, or a worker's questions to its
// client, on one end of a socket pair, a plain connection on the other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "model/QXFileSizeItem.h"
#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcListener.h"
#include "protocol/QXFileRequest.h"
#include "protocol/QXFileResponse.h"
#include "service/QXClientCallbacks.h"
#include "service/QXFileServiceDelegate.h"
#include "tests/support/Eventually.h"
#include "tests/support/TempTree.h"

namespace {

using namespace std::chrono_literals;
using qx::test::eventually;
using ::testing::HasSubstr;

// The client's side of the callbacks a worker sends: holds every reply block until answerHeld(), or
// until the test drops them with the connection.
class HoldingResponder final : public QXFileResponse {
 public:
  void updateFileSizes(qx::ArrayPtr, AnswerReply reply) override { hold(std::move(reply)); }
  void progressWithReply(AnswerReply reply) override { hold(std::move(reply)); }

  // Waits until `count` callbacks have arrived.
  bool waitForCalls(std::size_t count) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(20), [&] { return calls_ >= count; });
  }
  void answerHeld(bool answer) {
    std::vector<AnswerReply> held;
    {
      std::lock_guard lock(mutex_);
      held.swap(held_);
    }
    for (auto& reply : held) reply(answer);
  }

 private:
  void hold(AnswerReply reply) {
    std::lock_guard lock(mutex_);
    ++calls_;
    held_.push_back(std::move(reply));
    arrived_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::size_t calls_ = 0;
  std::vector<AnswerReply> held_;
};

class ServiceFrame : public ::testing::Test {
 protected:
  void SetUp() override {
    registerModelClasses();
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    serviceEnd = qx::XpcConnection::withSocket(qx::UniqueFd(fds[0]));
    clientEnd = qx::XpcConnection::withSocket(qx::UniqueFd(fds[1]));
  }
  void TearDown() override {
    clientEnd->invalidate();
    serviceEnd->invalidate();
  }

  // Accepts the service end as the service's listener would.
  bool accept() {
    qx::XpcListener listener(qx::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    return QXFileServiceDelegate().shouldAcceptNewConnection(listener, serviceEnd);
  }

  // The client end, exporting `responder` when given.
  std::shared_ptr<QXFileRequest> clientProxy(std::shared_ptr<QXFileResponse> responder = nullptr) {
    auto requests = qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol());
    auto callbacks = qx::XpcInterface::interfaceWithProtocol(QXFileResponse::protocol());
    EXPECT_TRUE(QXFileRequest::restrictReplies(*requests));
    EXPECT_TRUE(QXFileResponse::restrictArguments(*callbacks));
    clientEnd->setRemoteObjectInterface(requests);
    clientEnd->setExportedInterface(callbacks);
    if (responder) clientEnd->setExportedObject<QXFileResponse>(responder);
    clientEnd->resume();
    return clientEnd->remoteObjectProxy<QXFileRequest>();
  }

  std::shared_ptr<qx::XpcConnection> serviceEnd;
  std::shared_ptr<qx::XpcConnection> clientEnd;
  qx::test::TempTree files{"qx-frame"};
};

// How a worker asks its client through `connection`, and what it concludes: true when it is to
// stop.
struct Question {
  const char* name;
  std::function<bool(const std::shared_ptr<qx::XpcConnection>& connection)> stops;
};

const Question kQuestions[] = {
    {"size report",
     [](const auto& connection) {
       return !QXClientCallbacks::sizeReport(connection)(
           {{qx::IndexPath::make(), QXFileSizeItem::make(1)}});
     }},
    {"rename question",
     [](const auto& connection) { return QXClientCallbacks::renameQuestion(connection)(); }},
};

// The client leaves while the workers wait, or there is no connection at all: each worker is
// released, told to stop.
TEST_F(ServiceFrame, AQuestionWithoutAnAnswerStops) {
  auto holding = std::make_shared<HoldingResponder>();
  ASSERT_TRUE(accept());
  clientProxy(holding);
  std::vector<std::future<bool>> asking;
  for (const Question& question : kQuestions) {
    EXPECT_TRUE(question.stops(nullptr)) << question.name;
    asking.push_back(std::async(std::launch::async, [&] { return question.stops(serviceEnd); }));
  }
  ASSERT_TRUE(holding->waitForCalls(std::size(kQuestions)));
  for (auto& stop : asking) EXPECT_EQ(stop.wait_for(100ms), std::future_status::timeout);
  clientEnd->invalidate();
  for (std::size_t i = 0; i < asking.size(); ++i) {
    ASSERT_EQ(asking[i].wait_for(10s), std::future_status::ready) << kQuestions[i].name;
    EXPECT_TRUE(asking[i].get()) << kQuestions[i].name;
  }
}

// A size calculation of a connection waits for its client: a rename of the connection queues behind
// it, a listing and an ACL request do not. A propagation over a large tree then works on the
// connection's delivery queue: the client's answers to the size reports are still read, each one
// bringing the next report, an ACL request waits behind the propagation, and the end of the
// connection stops everything at once.
TEST_F(ServiceFrame, ALongPropagationLeavesTheConnectionAnswering) {
  constexpr int kFolders = 100, kFilesPerFolder = 1000;  // 100,100 items to propagate
  files.folder("deep", 0750);
  for (int folder = 0; folder < kFolders; ++folder) {
    const std::string name = "deep/" + std::to_string(folder);
    files.folder(name, 0755);
    for (int file = 0; file < kFilesPerFolder; ++file)
      files.file(name + "/" + std::to_string(file));
  }
  for (int i = 0; i < 2000; ++i) files.file("counted/" + std::to_string(i), "x");
  files.file("item", "x");
  auto touchedFolders = [&] {
    int touched = 0;
    for (int folder = 0; folder < kFolders; ++folder) {
      struct stat st {};
      ::lstat(files.path("deep/" + std::to_string(folder)).c_str(), &st);
      touched += (st.st_mode & 07777) != 0755 ? 1 : 0;
    }
    return touched;
  };

  ASSERT_TRUE(accept());
  std::weak_ptr<void> exported = serviceEnd->exportedObject();
  auto responder = std::make_shared<HoldingResponder>();
  auto proxy = clientProxy(responder);
  auto deep = qx::Url::fileURLWithPath(files.path("deep"));

  // The calculation first: it reaches its first report and waits there.
  std::atomic<bool> answered{false};
  proxy->getSizesWithUrls(qx::Array::make({qx::Url::fileURLWithPath(files.path("counted"))}),
                          [&](qx::ArrayPtr, qx::ErrorPtr) { answered = true; });
  ASSERT_TRUE(responder->waitForCalls(1));
  proxy->renameUrls(qx::Array::make({qx::Url::fileURLWithPath(files.path("item"))}),
                    qx::Array::make({qx::str("renamed")}),
                    [&](qx::ArrayPtr, qx::ArrayPtr, qx::ErrorPtr) { answered = true; });
  auto levels = qx::ReplyWaiter<qx::ArrayPtr, qx::ErrorPtr>::wait([&](auto done) {
    proxy->getContentsOfDirectory(deep, qx::IndexPath::make(), std::move(done));
  });
  EXPECT_TRUE(levels && std::get<0>(*levels));
  auto entries = qx::ReplyWaiter<qx::ArrayPtr, qx::ErrorPtr>::wait(
      [&](auto done) { proxy->getAclEntriesWithUrl(deep, std::move(done)); });
  ASSERT_TRUE(entries && std::get<0>(*entries)) << "the folder's own settings to propagate";
  proxy->propagateAclEntries(std::get<0>(*entries), deep, [&](qx::ErrorPtr) { answered = true; });
  proxy->getAclEntriesWithUrl(deep, [&](qx::ArrayPtr, qx::ErrorPtr) { answered = true; });
  ASSERT_TRUE(eventually([&] { return touchedFolders() > 0; })) << "the propagation runs";

  // Each answer is read while the propagation works, and the next report comes.
  for (std::size_t report = 2; report <= 6; ++report) {
    responder->answerHeld(true);
    ASSERT_TRUE(responder->waitForCalls(report)) << "report " << report;
  }
  ASSERT_LT(touchedFolders(), kFolders) << "the tree is too small to outlast the reports";
  EXPECT_FALSE(answered.load()) << "the rename waits for the calculation, the ACL request for the "
                                   "propagation before it";
  EXPECT_FALSE(std::filesystem::exists(files.path("renamed")));

  auto closed = std::chrono::steady_clock::now();
  clientEnd->invalidate();
  EXPECT_TRUE(eventually([&] { return exported.expired(); }, std::chrono::seconds(1)))
      << "every operation lets its service go within a second";
  EXPECT_LT(std::chrono::steady_clock::now() - closed, std::chrono::seconds(1));
  const int touched = touchedFolders();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(touchedFolders(), touched) << "the propagation stopped";
  EXPECT_LT(touched, kFolders);
}

using qx::Array;
using qx::str;

// "replied", or the reason the invocation was refused.
std::string send(qx::XpcConnection& connection, const std::string& selector,
                 std::vector<qx::ObjectPtr> arguments) {
  auto outcome = std::make_shared<std::string>("no answer");
  auto done = std::make_shared<qx::Semaphore>();
  connection.sendInvocation(
      selector, std::move(arguments),
      [outcome, done](std::vector<qx::ObjectPtr>) {
        *outcome = "replied";
        done->signal();
      },
      [outcome, done](qx::ErrorPtr error) {
        *outcome = error ? error->localizedDescription() : "no reason";
        done->signal();
      });
  EXPECT_TRUE(done->waitFor(std::chrono::seconds(10))) << selector;
  return *outcome;
}

// The classes allowed in incoming arguments are enforced by the connection, before any request
// reaches the service.
TEST_F(ServiceFrame, ArgumentsOutsideTheAllowedClassesAreRefusedBeforeAnyWork) {
  ASSERT_TRUE(accept());
  clientProxy();
  files.file("item", "x");
  std::string item = files.path("item");
  ::chmod(item.c_str(), 0640);
  auto url = qx::Url::fileURLWithPath(item);
  auto urls = Array::make({url});
  auto names = Array::make({str("renamed")});
  // The selector, its arguments, and the class named in the refusal.
  for (const auto& [selector, arguments, refusedClass] :
       std::vector<std::tuple<std::string, std::vector<qx::ObjectPtr>, std::string>>{
           {"setAclEntries:url:reply:",
            {Array::make({str("ACL"), str("POSIX"), qx::Number::numberWithInteger(0777)}), url},
            "NSNumber"},
           {"setAclEntries:url:reply:", {Array::make({str("ACL"), url}), url}, "NSURL"},
           {"propagateAclEntries:url:reply:",
            {Array::make({str("ACL"), qx::Dictionary::make()}), url},
            "NSDictionary"},
           {"renameUrls:names:reply:", {Array::make({str(item)}), names}, "NSString"},
           {"getSizesWithUrls:reply:", {Array::make({qx::Uuid::make()})}, "NSUUID"},
           // The names keep the default rule of collections: property-list objects only, also when
           // the same array object is both arguments, archived and decoded once.
           {"renameUrls:names:reply:", {urls, urls->copy()}, "NSURL"},
           {"renameUrls:names:reply:", {urls, urls}, "NSURL"},
       }) {
    EXPECT_THAT(send(*clientEnd, selector, arguments), HasSubstr(refusedClass)) << selector;
  }
  struct stat st {};
  EXPECT_EQ(::lstat(item.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0640u);
  // Strings, arrays, entries and their tree nodes pass and reach the worker.
  auto entry = QXAclEntry::make(qx::Uuid::make(), 1, Array::make(), false);
  EXPECT_EQ(send(*clientEnd,
                 "setAclEntries:url:reply:", {Array::make({str("ACL"), entry, str("POSIX")}), url}),
            "replied");
  EXPECT_EQ(send(*clientEnd, "getSizesWithUrls:reply:", {urls}), "replied");
  EXPECT_EQ(send(*clientEnd, "renameUrls:names:reply:", {urls, names}), "replied");
  EXPECT_TRUE(std::filesystem::exists(files.path("renamed")));
  EXPECT_TRUE(clientEnd->isValid());
}

}  // namespace
