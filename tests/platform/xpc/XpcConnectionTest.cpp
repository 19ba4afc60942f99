// Connections joined by socket pairs, and the frames they exchange.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcFrame.h"
#include "tests/platform/xpc/support/TestProtocols.h"
#include "tests/support/Eventually.h"

namespace qx::xpctest {
namespace {

using namespace std::chrono_literals;
using qx::test::eventually;

class ConnectionPair : public ::testing::Test {
 protected:
  void SetUp() override { registerFoundationClasses(); }

  void TearDown() override {
    if (client) client->invalidate();
    if (service) service->invalidate();
  }

  void connect(bool holdQuestions = false) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    service = XpcConnection::withSocket(UniqueFd(fds[0]));
    configureServiceConnection(service);
    service->setInvalidationHandler([counters = counters] { counters->service++; });
    service->resume();
    client = XpcConnection::withSocket(UniqueFd(fds[1]));
    responder = std::make_shared<TestClient>(holdQuestions);
    configureClientConnection(client, responder);
    client->setInvalidationHandler([counters = counters] { counters->client++; });
    client->resume();
    proxy = client->remoteObjectProxyWithErrorHandler<TestRequest>(
        [counters = counters](ErrorPtr) { counters->errors++; });
    ASSERT_TRUE(proxy);
  }

  std::shared_ptr<XpcConnection> service;
  std::shared_ptr<XpcConnection> client;
  std::shared_ptr<TestClient> responder;
  std::shared_ptr<TestRequest> proxy;
  // Handlers may run after the test has ended: they count into shared state.
  struct Counters {
    std::atomic<int> service{0}, client{0}, errors{0};
  };
  std::shared_ptr<Counters> counters = std::make_shared<Counters>();
};

TEST_F(ConnectionPair, EveryInvocationGetsExactlyOneReplyWithItsObjectsIntact) {
  connect();
  constexpr int kThreads = 4, kCalls = 100;
  std::vector<std::atomic<int>> replies(kThreads * kCalls);
  std::atomic<int> mismatches{0}, remaining{kThreads * kCalls};
  Semaphore allDone;
  // The error's user info holds a URL: decoded under the error's own sets.
  auto error = Error::errorWithDomain(
      kPOSIXErrorDomain, 13,
      Dictionary::withStringKeys({{kLocalizedDescriptionKey, str("Permission denied")},
                                  {kURLErrorKey, Url::fileURLWithPath("/tmp/a b/c%d")}}));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) {
        int slot = t * kCalls + i;
        // A collection argument without a set takes property-list classes.
        auto array = Array::make(
            {str("call " + std::to_string(slot) + " \xc3\xa9"), Number::numberWithInteger(slot),
             nullptr, Data::make(std::vector<uint8_t>(slot % 7, 0xab)),
             Dictionary::withStringKeys({{"k", Number::numberWithDouble(0.5)}}),
             Array::make({Number::numberWithBool(true)})->mutableCopy(),
             Dictionary::withStringKeys({{"k", str("v")}})->mutableCopy()});
        bool flag = slot % 2 == 0;
        proxy->echo(slot % 3 ? error : nullptr, array, flag,
                    [&, slot, array, flag](ErrorPtr e, ArrayPtr a, bool f) {
                      bool mutableKept =
                          a && a->count() == 7 &&
                          a->objectAtIndex(5)->objectClass().name() == "NSMutableArray" &&
                          a->objectAtIndex(6)->objectClass().name() == "NSMutableDictionary";
                      if (!mutableKept || !isEqual(e, slot % 3 ? error : nullptr) ||
                          !isEqual(a, array) || f != flag)
                        mismatches++;
                      replies[slot]++;
                      if (--remaining == 0) allDone.signal();
                    });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(allDone.waitFor(20s));
  std::this_thread::sleep_for(20ms);  // a duplicate reply would land by now
  for (auto& count : replies) EXPECT_EQ(count.load(), 1);
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(counters->errors.load(), 0);
  // Proxies exist for the interface each side was given only.
  EXPECT_FALSE(client->remoteObjectProxy<TestResponse>());
  EXPECT_FALSE(service->remoteObjectProxy<TestRequest>());
}

TEST_F(ConnectionPair, AWorkerAsksTheClientAndWaitsForEachAnswer) {
  connect();
  auto answers = ReplyWaiter<ArrayPtr>::wait(
      [&](auto done) { proxy->askClient(Number::numberWithInteger(4), std::move(done)); });
  ASSERT_TRUE(answers && *answers);
  auto yes = Number::numberWithBool(true), no = Number::numberWithBool(false);
  EXPECT_TRUE(isEqual(*answers, Array::make({yes, no, yes, no})));
  EXPECT_EQ(responder->questions(), (std::vector<int64_t>{0, 1, 2, 3}));
}

TEST_F(ConnectionPair, RefusedInvocationsGetAnErrorAndTheConnectionGoesOn) {
  connect();
  auto refusal = [&](std::string selector, std::vector<ObjectPtr> arguments) {
    Semaphore done;
    std::string reason = "replied";
    client->sendInvocation(
        std::move(selector), std::move(arguments), [&](std::vector<ObjectPtr>) { done.signal(); },
        [&](ErrorPtr error) {
          reason = error->localizedDescription();
          done.signal();
        });
    EXPECT_TRUE(done.waitFor(10s));
    return reason;
  };
  auto url = Url::fileURLWithPath("/a");
  for (const auto& [selector, arguments, reason] :
       std::vector<std::tuple<std::string, std::vector<ObjectPtr>, std::string>>{
           // Classes outside the argument's set, at the top or nested.
           {"countUrls:reply:", {Array::make({url, str("b")})}, "NSString"},
           {"countUrls:reply:", {Dictionary::make()}, "refused"},
           {"echoError:array:flag:reply:", {str("no error"), nullptr, nullptr}, "NSString"},
           // A collection argument without a set takes property-list elements only.
           {"echoError:array:flag:reply:",
            {nullptr, Array::make({Uuid::make()}), Number::numberWithBool(true)},
            "NSUUID"},
           {"noSuchSelector:reply:", {}, "unknown selector"},
           {"incrementWithReply:", {str("extra")}, "wrong number of arguments"},
           {"note:", {str("a reply to a method without one")}, "no reply"},
       }) {
    EXPECT_THAT(refusal(selector, arguments), ::testing::HasSubstr(reason)) << selector;
  }
  EXPECT_FALSE(waitForReply(*client, "noSuchSelector:reply:", {}));
  // Sets for selectors or arguments the protocol lacks are not taken.
  ClassSet only{&Array::classInfo(), &Url::classInfo()};
  auto& exported = *service->exportedInterface();
  EXPECT_FALSE(exported.setClasses(only, "noSuchSelector:", 0, false));
  EXPECT_FALSE(exported.setClasses(only, "countUrls:reply:", 1, false));
  EXPECT_FALSE(exported.setClasses(only, "countUrls:reply:", 1, true));
  EXPECT_TRUE(exported.classes("countUrls:reply:", 0, true).allows(Number::classInfo()))
      << "setting an argument's set leaves the reply's alone";
  EXPECT_TRUE(service->isValid() && client->isValid());
  auto count = ReplyWaiter<NumberPtr>::wait([&](auto done) {
    proxy->countUrls(Array::make({url, Url::fileURLWithPath("/b")}), std::move(done));
  });
  ASSERT_TRUE(count && *count);
  EXPECT_EQ((*count)->integerValue(), 2);
  // Nil arguments cross; invocations without a reply block arrive in order.
  auto nils = ReplyWaiter<ErrorPtr, ArrayPtr, bool>::wait(
      [&](auto done) { proxy->echo(nullptr, nullptr, true, std::move(done)); });
  ASSERT_TRUE(nils);
  EXPECT_FALSE(std::get<0>(*nils) || std::get<1>(*nils));
  proxy->note(str("one"));
  proxy->note(nullptr);
  proxy->note(str("three"));
  auto notes = waitForReply(*client, "notesWithReply:", {});
  ASSERT_TRUE(notes && notes->size() == 1);
  EXPECT_TRUE(isEqual((*notes)[0], Array::make({str("one"), nullptr, str("three")})));
  EXPECT_EQ(counters->service.load(), 0);
}

TEST_F(ConnectionPair, InvalidationEndsPendingWorkAndRunsEachHandlerOnce) {
  connect(/*holdQuestions=*/true);
  std::weak_ptr<void> exported = service->exportedObject();
  ASSERT_FALSE(exported.expired());
  // The service's worker waits for an answer the client holds back, and a second call waits behind
  // it on the same serial queue.
  std::atomic<bool> replied{false};
  proxy->askClient(Number::numberWithInteger(3), [&](ArrayPtr) { replied = true; });
  ASSERT_TRUE(eventually([&] { return responder->questions().size() == 1; }));
  std::atomic<int> pendingErrors{0};
  client->sendInvocation(
      "askClient:reply:", {Number::numberWithInteger(1)},
      [&](std::vector<ObjectPtr>) { replied = true; }, [&](ErrorPtr) { pendingErrors++; });

  client->invalidate();
  client->invalidate();
  EXPECT_FALSE(client->isValid());
  EXPECT_TRUE(eventually([&] { return counters->service == 1 && counters->client == 1; }));
  // The service's exported object goes once its running request has ended.
  EXPECT_TRUE(eventually([&] { return exported.expired(); }));
  EXPECT_TRUE(eventually([&] { return pendingErrors == 1; }));
  EXPECT_FALSE(replied.load());

  // Sends on an invalid connection are dropped; their error handlers say so.
  std::atomic<int64_t> code{0};
  client->sendInvocation(
      "incrementWithReply:", {}, [&](std::vector<ObjectPtr>) { replied = true; },
      [&](ErrorPtr error) { code = error->code(); });
  EXPECT_TRUE(eventually([&] { return code == kXpcConnectionInvalidError; }));
  EXPECT_FALSE(waitForReply(*client, "incrementWithReply:", {}));
  responder->answerHeld(false);  // answering after the end goes nowhere
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(std::tuple(counters->client.load(), counters->service.load(), replied.load()),
            std::tuple(1, 1, false))
      << "invalidation handlers, and no reply";
}

TEST_F(ConnectionPair, ACallerWaitingForAReplyIsReleasedWhenThePeerGoesAway) {
  connect(/*holdQuestions=*/true);
  auto reply = waitForReply(*client, "incrementWithReply:", {});
  ASSERT_TRUE(reply && reply->size() == 1);
  EXPECT_TRUE(isEqual((*reply)[0], Number::numberWithInteger(1)));
  std::optional<std::vector<ObjectPtr>> waited = std::vector<ObjectPtr>{};
  std::thread waiter(
      [&] { waited = waitForReply(*client, "askClient:reply:", {Number::numberWithInteger(1)}); });
  EXPECT_TRUE(eventually([&] { return responder->questions().size() == 1; }));
  service->invalidate();
  waiter.join();
  EXPECT_FALSE(waited.has_value());
  EXPECT_TRUE(eventually([&] { return counters->client == 1; }));
}

// Frames: a big-endian length before each payload. How a stream cut in any pieces reads back is the
// frame_reader fuzz target's check, replayed on its seeds by the suite.
TEST(XpcFrameReader, LengthsAreBigEndianAndRefusedAboveTheLimit) {
  EXPECT_EQ(XpcFrame::encode(std::vector<uint8_t>{9, 8}), (std::vector<uint8_t>{0, 0, 0, 2, 9, 8}));
  XpcFrameReader atLimit;  // exactly 256 MiB: allowed, and incomplete
  atLimit.append(std::vector<uint8_t>{0x10, 0x00, 0x00, 0x00, 1, 2});
  EXPECT_FALSE(atLimit.next() || atLimit.failed());
  EXPECT_EQ(atLimit.buffered(), 6u);
  XpcFrameReader above;
  above.append(std::vector<uint8_t>{0x10, 0x00, 0x00, 0x01});
  EXPECT_TRUE(!above.next() && above.failed());
  above.append(std::vector<uint8_t>{0, 0, 0, 0});  // nothing after a broken header counts
  EXPECT_FALSE(above.next());
}

// Reader threads run deliveries themselves and keep reading afterwards; a delivery that blocks must
// hand reading over, or two peers writing to each other from their deliveries would each wait for
// the other to read.
class Peer {
 public:
  virtual ~Peer() = default;
  // Asks the receiver to send a large `take:` back at once.
  virtual void kick() = 0;
  virtual void take(DataPtr bytes) = 0;
  virtual void ask(OnceCallback<void(bool)> reply) = 0;
};

class PeerProxy final : public Peer, XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;
  void kick() override { sendWithoutReply(&Peer::kick); }
  void take(DataPtr bytes) override { sendWithoutReply(&Peer::take, bytes); }
  void ask(OnceCallback<void(bool)> reply) override { send(&Peer::ask, std::move(reply)); }
};

const XpcProtocol& peerProtocol() {
  static const XpcProtocol protocol = XpcProtocol::describe<Peer, PeerProxy>(
      "Peer", {xpcMethod("kick", &Peer::kick), xpcMethod("take:", &Peer::take),
               xpcMethod("askWithReply:", &Peer::ask)});
  return protocol;
}

// Far more than a socket buffer holds, so that the write blocks until the peer reads.
constexpr std::size_t kLarge = 8u << 20;

class Endpoint final : public Peer {
 public:
  std::shared_ptr<Peer> remote;
  Semaphore received;

  void kick() override { remote->take(Data::make(std::vector<uint8_t>(kLarge, 0x5a))); }
  void take(DataPtr bytes) override {
    if (bytes && bytes->length() == kLarge) received.signal();
  }
  void ask(OnceCallback<void(bool)> reply) override { reply(true); }
};

// Two endpoints joined by a socket pair.
class ReadingTurn : public ::testing::Test {
 protected:
  void SetUp() override {
    registerFoundationClasses();
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    first = connect(fds[0], one);
    second = connect(fds[1], two);
  }
  void TearDown() override {
    first->invalidate();
    second->invalidate();
  }
  static std::shared_ptr<XpcConnection> connect(int fd, const std::shared_ptr<Endpoint>& endpoint) {
    auto connection = XpcConnection::withSocket(UniqueFd(fd));
    connection->setExportedInterface(XpcInterface::interfaceWithProtocol(peerProtocol()));
    connection->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(peerProtocol()));
    connection->setExportedObject<Peer>(endpoint);
    endpoint->remote = connection->remoteObjectProxy<Peer>();
    return connection;
  }

  std::shared_ptr<Endpoint> one = std::make_shared<Endpoint>(), two = std::make_shared<Endpoint>();
  std::shared_ptr<XpcConnection> first, second;
};

TEST_F(ReadingTurn, PeersWritingLargeFramesToEachOtherFromDeliveriesBothGetThrough) {
  // Both kicks are queued before reading starts, so each side's first delivery writes its large
  // frame while the other side does the same.
  one->remote->kick();
  two->remote->kick();
  first->resume();
  second->resume();
  EXPECT_TRUE(one->received.waitFor(std::chrono::seconds(20)));
  EXPECT_TRUE(two->received.waitFor(std::chrono::seconds(20)));
}

// A thread that waits for its answers reads them itself, keeping the reading turn between its
// questions; once it stays away (here: busy, never asking again), the connection must read the
// other messages without it.
TEST_F(ReadingTurn, AThreadThatStopsAskingDoesNotHoldUpTheReading) {
  first->resume();
  second->resume();
  Semaphore askedEnough, release;
  std::thread asker([&] {
    for (int i = 0; i < 20; ++i) {
      auto yes = ReplyWaiter<bool>::wait([&](auto reply) { one->remote->ask(std::move(reply)); });
      EXPECT_EQ(yes, std::optional<bool>(true));
    }
    askedEnough.signal();
    release.wait();
  });
  askedEnough.wait();
  two->remote->kick();  // read by `first` while the asker is away; answered with a take:
  EXPECT_TRUE(two->received.waitFor(std::chrono::seconds(20)));
  release.signal();
  asker.join();
}

}  // namespace
}  // namespace qx::xpctest
