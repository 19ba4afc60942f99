#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcMessage.h"
#include "platform/xpc/XpcReplyWaiter.h"
#include "tests/platform/xpc/XpcTestSupport.h"

namespace qx::xpctest {
namespace {

using namespace std::chrono_literals;

std::vector<uint8_t> frameOf(const ObjectPtr& root) {
  return XpcFrame::encode(KeyedArchiver::archivedDataWithRootObject(root)->bytes());
}

// A service connection and a client connection joined by a socketpair, both
// resumed; the raw client socket is available instead when `rawClient`.
class ConnectionPair : public ::testing::Test {
 protected:
  void SetUp() override { registerFoundationClasses(); }

  void TearDown() override {
    if (client) client->invalidate();
    if (service) service->invalidate();
  }

  void connect(std::shared_ptr<TestClient> responder = std::make_shared<TestClient>()) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    service = XpcConnection::withSocket(UniqueFd(fds[0]));
    configureServiceConnection(service);
    service->setInvalidationHandler([counters = counters] { counters->serviceInvalidations++; });
    service->resume();
    client = XpcConnection::withSocket(UniqueFd(fds[1]));
    this->responder = responder;
    configureClientConnection(client, responder);
    client->resume();
    proxy = client->remoteObjectProxyWithErrorHandler<TestRequest>(
        [counters = counters](ErrorPtr) { counters->errors++; });
    ASSERT_TRUE(proxy);
  }

  // A service connection whose peer is a plain socket the test writes to.
  UniqueFd connectRaw() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    service = XpcConnection::withSocket(UniqueFd(fds[0]));
    configureServiceConnection(service);
    service->setInvalidationHandler([counters = counters] { counters->serviceInvalidations++; });
    service->resume();
    return UniqueFd(fds[1]);
  }

  // The number the service answers to incrementWithReply:, or -1.
  int64_t increment() {
    auto reply = XpcReplyWaiter<NumberPtr>::wait(
        [&](OnceCallback<void(NumberPtr)> done) { proxy->incrementWithReply(std::move(done)); });
    return reply && *reply ? (*reply)->integerValue() : -1;
  }

  std::shared_ptr<XpcConnection> service;
  std::shared_ptr<XpcConnection> client;
  std::shared_ptr<TestClient> responder;
  std::shared_ptr<TestRequest> proxy;
  // Handlers may run after the test has ended: they count into shared state.
  struct Counters {
    std::atomic<int> serviceInvalidations{0};
    std::atomic<int> errors{0};
  };
  std::shared_ptr<Counters> counters = std::make_shared<Counters>();
};

TEST_F(ConnectionPair, EveryInvocationGetsExactlyOneReplyWithItsObjectsIntact) {
  connect();
  constexpr int kThreads = 4;
  constexpr int kCalls = 100;
  std::vector<std::atomic<int>> replies(kThreads * kCalls);
  std::atomic<int> mismatches{0};
  Semaphore allDone;
  std::atomic<int> remaining{kThreads * kCalls};
  auto url = Url::fileURLWithPath("/tmp/a b/c%d");
  auto uuid = Uuid::make();
  auto indexPath = IndexPath::make({1, 300, 2});
  auto error = Error::errorWithDomain(
      kPOSIXErrorDomain, 13,
      Dictionary::withStringKeys(
          {{kLocalizedDescriptionKey, str("Permission denied")}, {kURLErrorKey, url}}));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) {
        int slot = t * kCalls + i;
        auto text = str("call " + std::to_string(slot) + " \xc3\xa9");
        auto mutableArray = MutableArray::make();
        mutableArray->addObject(Number::numberWithBool(true));
        auto mutableDictionary = MutableDictionary::make();
        mutableDictionary->setObject(str("v"), "k");
        auto array =
            Array::make({str("x"), Number::numberWithInteger(slot), nullptr, Data::make({0, 1, 2}),
                         Array::make({str("nested")}), mutableArray, mutableDictionary});
        auto dictionary = Dictionary::withStringKeys(
            {{"k", Number::numberWithDouble(0.5)}, {"list", mutableArray}});
        auto data = Data::make(std::vector<uint8_t>(slot % 7, 0xab));
        auto number = Number::numberWithInteger(-static_cast<int64_t>(slot) * 1000000007LL);
        bool flag = slot % 2 == 0;
        if (i % 2 == 0) {
          proxy->echoObjects(
              url, uuid, indexPath, text, error,
              [&, slot, text](UrlPtr u, UuidPtr id, IndexPathPtr ip, StringPtr s, ErrorPtr e) {
                if (!isEqual(u, url) || !isEqual(id, uuid) || !isEqual(ip, indexPath) ||
                    !isEqual(s, text) || !isEqual(e, error))
                  mismatches.fetch_add(1);
                replies[slot].fetch_add(1);
                if (remaining.fetch_sub(1) == 1) allDone.signal();
              });
        } else {
          proxy->echoCollections(
              array, dictionary, data, number, flag,
              [&, slot, array, dictionary, data, number, flag](ArrayPtr a, DictionaryPtr d,
                                                               DataPtr bytes, NumberPtr n, bool f) {
                bool mutableKept =
                    a && a->count() == 7 && a->objectAtIndex(5) &&
                    a->objectAtIndex(5)->objectClass().name() == "NSMutableArray" &&
                    a->objectAtIndex(6)->objectClass().name() == "NSMutableDictionary";
                if (!mutableKept || !isEqual(a, array) || !isEqual(d, dictionary) ||
                    !isEqual(bytes, data) || !isEqual(n, number) || f != flag)
                  mismatches.fetch_add(1);
                replies[slot].fetch_add(1);
                if (remaining.fetch_sub(1) == 1) allDone.signal();
              });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(allDone.waitFor(20s));
  std::this_thread::sleep_for(20ms);  // a duplicate reply would land by now
  for (auto& count : replies) EXPECT_EQ(count.load(), 1);
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(counters->errors.load(), 0);
}

TEST_F(ConnectionPair, NilArgumentsAndNoReplyInvocationsCross) {
  connect();
  auto reply =
      XpcReplyWaiter<UrlPtr, UuidPtr, IndexPathPtr, StringPtr, ErrorPtr>::wait([&](auto done) {
        proxy->echoObjects(nullptr, nullptr, nullptr, nullptr, nullptr, std::move(done));
      });
  ASSERT_TRUE(reply);
  EXPECT_FALSE(std::get<0>(*reply));
  EXPECT_FALSE(std::get<4>(*reply));
  // Invocations without a reply block are delivered in order before later ones.
  proxy->note(str("one"));
  proxy->note(nullptr);
  proxy->note(str("three"));
  auto notes =
      XpcReplyWaiter<ArrayPtr>::wait([&](auto done) { proxy->notesWithReply(std::move(done)); });
  ASSERT_TRUE(notes && *notes);
  ASSERT_EQ((*notes)->count(), 3u);
  EXPECT_TRUE(isEqual((**notes)[0], str("one")));
  EXPECT_FALSE((**notes)[1]);
  EXPECT_TRUE(isEqual((**notes)[2], str("three")));
}

TEST_F(ConnectionPair, RefusedInvocationsGetAnErrorAndTheConnectionGoesOn) {
  connect();
  auto refusal = [&](std::string selector, std::vector<ObjectPtr> arguments) {
    Semaphore done;
    std::string reason;
    bool replied = false;
    client->sendInvocation(
        std::move(selector), std::move(arguments),
        [&](std::vector<ObjectPtr>) {
          replied = true;
          done.signal();
        },
        [&](ErrorPtr error) {
          reason = error->localizedDescription();
          done.signal();
        });
    EXPECT_TRUE(done.waitFor(10s));
    EXPECT_FALSE(replied);
    return reason;
  };
  auto urls = Array::make({Url::fileURLWithPath("/a"), Url::fileURLWithPath("/b")});
  // A class outside the argument's set, at the top or nested.
  EXPECT_NE(refusal("countUrls:reply:", {Array::make({Url::fileURLWithPath("/a"), str("b")})})
                .find("NSString"),
            std::string::npos);
  EXPECT_NE(refusal("countUrls:reply:", {Dictionary::make()}).find("refused"), std::string::npos);
  EXPECT_NE(refusal("echoUrl:uuid:indexPath:string:error:reply:",
                    {str("/not/a/url"), nullptr, nullptr, nullptr, nullptr})
                .find("NSString"),
            std::string::npos);
  // A collection argument without a set takes property-list elements only.
  EXPECT_NE(refusal("echoArray:dictionary:data:number:flag:reply:",
                    {Array::make({Uuid::make()}), nullptr, nullptr, nullptr,
                     Number::numberWithBool(true)})
                .find("NSUUID"),
            std::string::npos);
  EXPECT_NE(refusal("noSuchSelector:reply:", {}).find("unknown selector"), std::string::npos);
  EXPECT_NE(refusal("incrementWithReply:", {str("extra")}).find("wrong number of arguments"),
            std::string::npos);
  EXPECT_NE(refusal("note:", {str("a reply to a method without one")}).find("no reply"),
            std::string::npos);
  EXPECT_TRUE(service->isValid());
  EXPECT_TRUE(client->isValid());
  auto count =
      XpcReplyWaiter<NumberPtr>::wait([&](auto done) { proxy->countUrls(urls, std::move(done)); });
  ASSERT_TRUE(count && *count);
  EXPECT_EQ((*count)->integerValue(), 2);
  EXPECT_EQ(increment(), 1);
  EXPECT_EQ(counters->serviceInvalidations.load(), 0);
}

TEST_F(ConnectionPair, HandWrittenFramesInTheDocumentedLayoutAreAnswered) {
  UniqueFd raw = connectRaw();
  // An invocation built from plain Foundation objects, as any client could.
  auto invocation = Dictionary::withStringKeys(
      {{"selector", str("countUrls:reply:")},
       {"arguments", Array::make({Array::make({Url::fileURLWithPath("/x")})})},
       {"sequence", Number::numberWithInteger(41)}});
  ASSERT_TRUE(writeAll(raw.get(), frameOf(invocation)));
  auto unknown = Dictionary::withStringKeys({{"selector", str("nope")},
                                             {"arguments", Array::make()},
                                             {"sequence", Number::numberWithInteger(42)}});
  ASSERT_TRUE(writeAll(raw.get(), frameOf(unknown)));
  XpcFrameReader frames;
  std::vector<DictionaryPtr> answers;
  uint8_t buffer[4096];
  while (answers.size() < 2) {
    ssize_t got = ::recv(raw.get(), buffer, sizeof buffer, 0);
    ASSERT_GT(got, 0);
    frames.append({buffer, static_cast<std::size_t>(got)});
    while (auto payload = frames.next()) {
      answers.push_back(cast<Dictionary>(KeyedUnarchiver::unarchiveObjectWithData(*payload)));
    }
  }
  ASSERT_TRUE(answers[0] && answers[1]);
  EXPECT_EQ(answers[0]->count(), 2u);
  EXPECT_EQ(answers[0]->objectForKeyAs<Number>("replyTo")->integerValue(), 41);
  auto arguments = answers[0]->objectForKeyAs<Array>("arguments");
  ASSERT_TRUE(arguments);
  ASSERT_EQ(arguments->count(), 1u);
  EXPECT_EQ(arguments->objectAs<Number>(0)->integerValue(), 1);
  EXPECT_EQ(answers[1]->objectForKeyAs<Number>("refused")->integerValue(), 42);
  EXPECT_NE(answers[1]->objectForKeyAs<String>("reason")->str().find("unknown selector"),
            std::string::npos);
}

// Frames that are not messages end the connection (and only it).
TEST_F(ConnectionPair, GarbageEndsTheConnection) {
  UniqueFd raw = connectRaw();
  std::vector<uint8_t> garbage = {0, 0, 0, 8, 'n', 'o', 't', ' ', 'a', 'r', 'c', 'h'};
  ASSERT_TRUE(writeAll(raw.get(), garbage));
  EXPECT_TRUE(peerClosesWithin(raw.get(), 5s));
  EXPECT_TRUE(eventually([&] { return counters->serviceInvalidations.load() == 1; }));
}

TEST_F(ConnectionPair, AnOversizedLengthEndsTheConnectionWithoutWaitingForTheBytes) {
  UniqueFd raw = connectRaw();
  std::vector<uint8_t> header = {0x10, 0x00, 0x00, 0x01};  // 256 MiB + 1
  ASSERT_TRUE(writeAll(raw.get(), header));
  EXPECT_TRUE(peerClosesWithin(raw.get(), 5s));
}

TEST_F(ConnectionPair, ATruncatedFrameEndsTheConnectionAtTheEndOfTheStream) {
  UniqueFd raw = connectRaw();
  auto frame = frameOf(Dictionary::withStringKeys({{"selector", str("incrementWithReply:")},
                                                   {"arguments", Array::make()},
                                                   {"sequence", Number::numberWithInteger(1)}}));
  frame.resize(frame.size() / 2);
  ASSERT_TRUE(writeAll(raw.get(), frame));
  ::shutdown(raw.get(), SHUT_WR);
  EXPECT_TRUE(peerClosesWithin(raw.get(), 5s));
  EXPECT_TRUE(eventually([&] { return counters->serviceInvalidations.load() == 1; }));
}

TEST_F(ConnectionPair, MessagesOfNoKnownShapeEndTheConnection) {
  for (ObjectPtr root : std::vector<ObjectPtr>{
           Array::make({str("selector")}),                         // not a dictionary
           Dictionary::withStringKeys({{"hello", str("world")}}),  // no known key
           Dictionary::withStringKeys({{"selector", str("incrementWithReply:")},  // no sequence
                                       {"arguments", Array::make()}}),
           Dictionary::withStringKeys({{"replyTo", str("1")}}),  // bad replyTo
       }) {
    counters = std::make_shared<Counters>();
    UniqueFd raw = connectRaw();
    ASSERT_TRUE(writeAll(raw.get(), frameOf(root)));
    EXPECT_TRUE(peerClosesWithin(raw.get(), 5s)) << root->description();
    EXPECT_TRUE(eventually([&] { return counters->serviceInvalidations.load() == 1; }))
        << root->description();
  }
}

TEST_F(ConnectionPair, InvalidationDropsPendingRepliesReleasesTheExportedObjectAndRunsHandlerOnce) {
  connect(std::make_shared<TestClient>(true, /*hold=*/true));
  std::weak_ptr<void> exported = service->exportedObject();
  ASSERT_FALSE(exported.expired());
  std::atomic<int> clientInvalidations{0};
  client->setInvalidationHandler([&] { clientInvalidations.fetch_add(1); });

  // The service's worker waits for an answer the client holds back.
  std::atomic<bool> replied{false};
  proxy->askClient(Number::numberWithInteger(3), nullptr, [&](ArrayPtr) { replied = true; });
  ASSERT_TRUE(eventually([&] { return responder->questionCount() == 1; }));
  // A reply handler of the client that is still waiting when it invalidates.
  std::atomic<bool> lateReplyRan{false};
  std::atomic<int> lateErrors{0};
  client->sendInvocation(
      "askClient:marker:reply:", {Number::numberWithInteger(1), nullptr},
      [&](std::vector<ObjectPtr>) { lateReplyRan = true; }, [&](ErrorPtr) { lateErrors++; });

  client->invalidate();
  client->invalidate();
  EXPECT_FALSE(client->isValid());
  EXPECT_TRUE(eventually([&] { return counters->serviceInvalidations.load() == 1; }));
  EXPECT_TRUE(eventually([&] { return clientInvalidations.load() == 1; }));
  // The service's exported object goes once its running request has ended.
  EXPECT_TRUE(eventually([&] { return exported.expired(); }));
  EXPECT_TRUE(eventually([&] { return lateErrors.load() == 1; }));
  EXPECT_FALSE(replied.load());
  EXPECT_FALSE(lateReplyRan.load());

  // Sends on an invalid connection are dropped; their error handlers say so.
  std::atomic<int> droppedErrors{0};
  std::atomic<int64_t> code{0};
  client->sendInvocation(
      "incrementWithReply:", {}, [&](std::vector<ObjectPtr>) { replied = true; },
      [&](ErrorPtr error) {
        code = error->code();
        droppedErrors++;
      });
  EXPECT_TRUE(eventually([&] { return droppedErrors.load() == 1; }));
  EXPECT_EQ(code.load(), kXpcConnectionInvalidError);
  EXPECT_FALSE(client->sendInvocationAndWait("incrementWithReply:", {}));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(clientInvalidations.load(), 1);
  EXPECT_EQ(counters->serviceInvalidations.load(), 1);
  responder->answerHeld(false);  // answering after the end goes nowhere
}

TEST_F(ConnectionPair, AWorkerAsksTheClientAndWaitsForEachAnswer) {
  connect(std::make_shared<TestClient>(/*answer=*/true));
  auto answers = XpcReplyWaiter<ArrayPtr>::wait(
      [&](auto done) { proxy->askClient(Number::numberWithInteger(5), nullptr, std::move(done)); });
  ASSERT_TRUE(answers && *answers);
  ASSERT_EQ((*answers)->count(), 5u);
  for (const ObjectPtr& answer : **answers)
    EXPECT_TRUE(isEqual(answer, Number::numberWithBool(true)));
  EXPECT_EQ(responder->questions(), (std::vector<int64_t>{0, 1, 2, 3, 4}));
}

TEST_F(ConnectionPair, AWaitingWorkerIsReleasedWithNoAnswerWhenTheClientGoesAway) {
  auto folder =
      std::filesystem::temp_directory_path() / ("qx-xpc-marker-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  auto marker = (folder / "released").string();
  connect(std::make_shared<TestClient>(true, /*hold=*/true));
  proxy->askClient(Number::numberWithInteger(10), str(marker), [](ArrayPtr) {});
  ASSERT_TRUE(eventually([&] { return responder->questionCount() == 1; }));
  std::weak_ptr<void> exported = service->exportedObject();
  client->invalidate();
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(marker); }));
  EXPECT_TRUE(eventually([&] {
    std::ifstream in(marker);
    std::string line;
    std::getline(in, line);
    return line == "no answer";
  }));
  // The worker has finished: nothing holds the exported object any more.
  EXPECT_TRUE(eventually([&] { return exported.expired(); }));
  EXPECT_EQ(responder->questionCount(), 1u);
  std::filesystem::remove_all(folder);
}

TEST_F(ConnectionPair, SendInvocationAndWaitReturnsTheReplyOrNothing) {
  connect(std::make_shared<TestClient>(true, /*hold=*/true));
  auto reply = client->sendInvocationAndWait("incrementWithReply:", {});
  ASSERT_TRUE(reply);
  ASSERT_EQ(reply->size(), 1u);
  EXPECT_TRUE(isEqual((*reply)[0], Number::numberWithInteger(1)));
  EXPECT_FALSE(client->sendInvocationAndWait("noSuchSelector:reply:", {}));  // refused
  // The peer going away releases a waiting caller.
  std::optional<std::vector<ObjectPtr>> waited = std::vector<ObjectPtr>{};
  std::thread waiter([&] {
    waited = client->sendInvocationAndWait("askClient:marker:reply:",
                                           {Number::numberWithInteger(1), nullptr});
  });
  // The client holds the worker's question back, so the call stays open until
  // the service side goes away.
  ASSERT_TRUE(eventually([&] { return responder->questionCount() == 1; }));
  service->invalidate();
  waiter.join();
  EXPECT_FALSE(waited.has_value());
}

TEST_F(ConnectionPair, RemoteProxiesNeedTheMatchingInterface) {
  connect();
  EXPECT_FALSE(client->remoteObjectProxy<TestResponse>());
  EXPECT_TRUE(service->remoteObjectProxy<TestResponse>());
  EXPECT_FALSE(service->remoteObjectProxy<TestRequest>());
}

}  // namespace
}  // namespace qx::xpctest
