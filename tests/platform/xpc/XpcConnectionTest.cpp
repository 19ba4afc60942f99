// Connections joined by socket pairs, and the frames they exchange.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/foundation/Number.h"
#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcMessage.h"
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
  // What each refusal says: rows of data/frames.jsonl. Here: it reaches the caller's error handler.
  Semaphore refused;
  std::string reason = "replied";
  client->sendInvocation(
      "countUrls:reply:", {Dictionary::make()}, [&](std::vector<ObjectPtr>) { refused.signal(); },
      [&](ErrorPtr error) {
        reason = error->localizedDescription();
        refused.signal();
      });
  ASSERT_TRUE(refused.waitFor(10s));
  EXPECT_THAT(reason, ::testing::HasSubstr("refused"));
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
    proxy->countUrls(Array::make({Url::fileURLWithPath("/a"), Url::fileURLWithPath("/b")}),
                     std::move(done));
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

// Messages whose arguments are nil, numbers and strings are written from their values; the bytes
// are those of archiving the message as objects, which the peer's decoding is tested against.
TEST(XpcMessageEncoding, PlainArgumentsGiveTheBytesOfTheObjectArchive) {
  registerFoundationClasses();
  StringPtr shared = str("twice");
  std::vector<ObjectPtr> many;
  for (int i = 0; i < 300; ++i) many.push_back(Number::numberWithInteger(i * 1000 - 150000));
  struct Row {
    const char* what;
    XpcMessage message;
  };
  const Row rows[] = {
      {"no arguments", XpcMessage::invocation("progressWithReply:", {}, 12)},
      {"nil", XpcMessage::invocation("take:", {nullptr}, 1)},
      {"booleans",
       XpcMessage::invocation(
           "take:and:", {Number::numberWithBool(true), Number::numberWithBool(false)}, 0)},
      {"integers of each width",
       XpcMessage::invocation(
           "take:",
           {Number::numberWithInteger(0), Number::numberWithInteger(255),
            Number::numberWithInteger(256), Number::numberWithInteger(70000),
            Number::numberWithInteger(int64_t{1} << 40), Number::numberWithInteger(-1),
            Number::numberWithInteger(INT64_MIN), Number::numberWithUnsignedInt(UINT32_MAX),
            Number::numberWithInteger(255)},
           (uint64_t{1} << 33) + 5)},
      {"doubles",
       XpcMessage::invocation("take:",
                              {Number::numberWithDouble(0.5), Number::numberWithDouble(-1e300),
                               Number::numberWithDouble(0.5)},
                              3)},
      {"strings",
       XpcMessage::invocation("take:",
                              {str(""), str("plain"), str("selector"), str("Grüße, 東京 🗂"),
                               str("Grüße, 東京 🗂"), str("plain"), shared, shared, nullptr},
                              4)},
      {"more arguments than references of one byte", XpcMessage::invocation("take:", many, 5)},
      {"boolean reply", XpcMessage::reply(7, {Number::numberWithBool(true)})},
      {"empty reply", XpcMessage::reply(1, {})},
      {"mixed reply",
       XpcMessage::reply(UINT32_MAX, {nullptr, str("é"), Number::numberWithInteger(-2)})},
      {"refusal", XpcMessage::refusal(9, "unknown selector \"x:\" ∅")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<uint8_t> direct = row.message.encode();
    EXPECT_FALSE(direct.empty());
    EXPECT_EQ(direct, row.message.encodeObjectGraph());
  }
}

// Reader threads run deliveries themselves and keep reading afterwards; a delivery that blocks must
// hand reading over, or two peers writing to each other from their deliveries would each wait for
// the other to read. Two ends that each export the test service and call the other's; fill:
// replies with far more than a socket buffer holds, so that the write blocks until the peer reads.
constexpr int64_t kLarge = 8 << 20;

class ReadingTurn : public ::testing::Test {
 protected:
  void SetUp() override {
    registerFoundationClasses();
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    for (int i : {0, 1}) {
      ends[i] = XpcConnection::withSocket(UniqueFd(fds[i]));
      configureServiceConnection(ends[i]);
      ends[i]->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(testRequestProtocol()));
      peers[i] = ends[i]->remoteObjectProxy<TestRequest>();
    }
  }
  void TearDown() override {
    for (auto& end : ends) end->invalidate();
  }
  // Asks the peer of end `i` for the large reply; `received` is signalled when it has come.
  void askForLarge(int i) {
    peers[i]->fill(Number::numberWithInteger(kLarge), [received = received[i]](DataPtr bytes) {
      if (bytes && bytes->length() == kLarge) received->signal();
    });
  }

  std::shared_ptr<XpcConnection> ends[2];
  std::shared_ptr<TestRequest> peers[2];
  std::shared_ptr<Semaphore> received[2] = {std::make_shared<Semaphore>(),
                                            std::make_shared<Semaphore>()};
};

TEST_F(ReadingTurn, PeersWritingLargeFramesToEachOtherFromDeliveriesBothGetThrough) {
  // Both requests are queued before reading starts, so each side's first delivery writes its
  // large reply while the other side does the same.
  askForLarge(0);
  askForLarge(1);
  for (auto& end : ends) end->resume();
  EXPECT_TRUE(received[0]->waitFor(20s));
  EXPECT_TRUE(received[1]->waitFor(20s));
}

// A thread that waits for its answers reads them itself, keeping the reading turn between its
// questions; once it stays away (here: busy, never asking again), the connection must read the
// other messages without it.
TEST_F(ReadingTurn, AThreadThatStopsAskingDoesNotHoldUpTheReading) {
  for (auto& end : ends) end->resume();
  Semaphore askedEnough, release;
  std::thread asker([&] {
    for (int i = 1; i <= 20; ++i) {
      auto count = ReplyWaiter<NumberPtr>::wait(
          [&](auto reply) { peers[0]->incrementWithReply(std::move(reply)); });
      EXPECT_TRUE(count && *count && (*count)->integerValue() == i);
    }
    askedEnough.signal();
    release.wait();
  });
  askedEnough.wait();
  askForLarge(1);  // read by ends[0] while the asker is away
  EXPECT_TRUE(received[1]->waitFor(20s));
  release.signal();
  asker.join();
}

}  // namespace
}  // namespace qx::xpctest
