// The service frame in process: a QXFileService and its delegate on one end
// of a socket pair, a plain connection on the other.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "model/ModelClasses.h"
#include "model/QXFileSizeItem.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcListener.h"
#include "platform/xpc/XpcReplyWaiter.h"
#include "service/QXFileRequest.h"
#include "service/QXFileResponse.h"
#include "service/QXFileService.h"
#include "service/QXFileServiceDelegate.h"

namespace {

using namespace std::chrono_literals;

bool eventually(const std::function<bool()>& condition) {
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

// Answers the service's size reports only when told to.
class HoldingClient final : public QXFileResponse {
 public:
  void progressWithReply(AnswerReply reply) override { reply(false); }
  void updateFileSizes(qx::ArrayPtr, AnswerReply reply) override {
    std::lock_guard lock(mutex_);
    held_.push_back(std::move(reply));
    reported_.signal();
  }
  bool waitForReport() { return reported_.waitFor(10s); }

 private:
  std::mutex mutex_;
  std::vector<AnswerReply> held_;
  qx::Semaphore reported_;
};

class ServiceFrame : public ::testing::Test {
 protected:
  void SetUp() override {
    registerModelClasses();
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    serviceEnd = qx::XpcConnection::withSocket(qx::UniqueFd(fds[0]));
    clientEnd = qx::XpcConnection::withSocket(qx::UniqueFd(fds[1]));
    std::string pattern = (std::filesystem::temp_directory_path() / "qx-frame-XXXXXX").string();
    ASSERT_TRUE(::mkdtemp(pattern.data()));
    folder = pattern;
  }
  void TearDown() override {
    clientEnd->invalidate();
    serviceEnd->invalidate();
    std::filesystem::remove_all(folder);
  }

  // Accepts the service end as the service's listener would.
  bool accept() {
    qx::XpcListener listener(qx::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    return QXFileServiceDelegate().shouldAcceptNewConnection(listener, serviceEnd);
  }

  // The client end, exporting `responder` when given.
  std::shared_ptr<QXFileRequest> clientProxy(std::shared_ptr<QXFileResponse> responder = nullptr) {
    clientEnd->setRemoteObjectInterface(
        qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol()));
    auto callbacks = qx::XpcInterface::interfaceWithProtocol(QXFileResponse::protocol());
    callbacks->setClasses(
        {&qx::Array::classInfo(), &qx::Dictionary::classInfo(), &qx::String::classInfo(),
         &qx::IndexPath::classInfo(), &QXFileSizeItem::classInfo()},
        "updateFileSizes:reply:", 0, false);
    clientEnd->setExportedInterface(callbacks);
    if (responder) clientEnd->setExportedObject<QXFileResponse>(responder);
    clientEnd->resume();
    return clientEnd->remoteObjectProxy<QXFileRequest>();
  }

  std::shared_ptr<qx::XpcConnection> serviceEnd;
  std::shared_ptr<qx::XpcConnection> clientEnd;
  std::string folder;
};

TEST_F(ServiceFrame, AServiceWithoutAConnectionTouchesNone) {
  auto service = std::make_shared<QXFileService>();
  EXPECT_FALSE(service->connection());
  EXPECT_EQ(service->queue().label(), "org.qxfile.FileService.OperationQueue");
  service.reset();
  EXPECT_TRUE(serviceEnd->isValid());
}

TEST_F(ServiceFrame, DestroyingTheServiceClosesItsConnection) {
  serviceEnd->setExportedInterface(
      qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol()));
  auto service = std::make_shared<QXFileService>(serviceEnd);
  EXPECT_EQ(service->connection(), serviceEnd);
  serviceEnd->resume();
  std::atomic<bool> clientSawEnd{false};
  clientEnd->setInvalidationHandler([&] { clientSawEnd = true; });
  clientEnd->resume();
  service.reset();
  EXPECT_FALSE(serviceEnd->isValid());
  EXPECT_TRUE(eventually([&] { return clientSawEnd.load(); }));
}

TEST_F(ServiceFrame, TheDelegateAcceptsWithBothProtocolsAndAServiceOfItsOwn) {
  ASSERT_TRUE(accept());
  EXPECT_EQ(serviceEnd->remoteObjectInterface()->protocol().name(), "QXFileResponse");
  EXPECT_EQ(serviceEnd->exportedInterface()->protocol().name(), "QXFileRequest");
  EXPECT_TRUE(serviceEnd->remoteObjectProxy<QXFileResponse>());
  std::weak_ptr<void> exported = serviceEnd->exportedObject();
  ASSERT_FALSE(exported.expired());

  // Resumed: a request is answered by the service's worker.
  std::string item = folder + "/item";
  std::ofstream(item) << "x";
  auto proxy = clientProxy();
  auto reply = qx::XpcReplyWaiter<qx::ErrorPtr>::wait([&](auto done) {
    proxy->setAclEntries(qx::Array::make(), qx::Url::fileURLWithPath(folder + "/missing"),
                         std::move(done));
  });
  ASSERT_TRUE(reply);
  ASSERT_TRUE(*reply);  // the item is missing: the worker's error
  EXPECT_EQ((*reply)->code(), ENOENT);

  // The connection's end releases its service.
  clientEnd->invalidate();
  EXPECT_TRUE(eventually([&] { return exported.expired(); }));
}

// A queued calculation holds its service: the connection ending does not
// destroy the service under it, and the released worker lets it go.
TEST_F(ServiceFrame, AWaitingCalculationKeepsItsServiceUntilItEnds) {
  for (int i = 0; i < 120; ++i) std::ofstream(folder + "/f" + std::to_string(i)) << "x";
  ASSERT_TRUE(accept());
  std::weak_ptr<void> exported = serviceEnd->exportedObject();
  auto responder = std::make_shared<HoldingClient>();
  auto proxy = clientProxy(responder);
  std::atomic<int> replies{0};
  proxy->getSizesWithUrls(qx::Array::make({qx::Url::fileURLWithPath(folder)}),
                          [&](qx::ArrayPtr, qx::ErrorPtr) { ++replies; });
  ASSERT_TRUE(responder->waitForReport());
  // The worker waits for the held answer; the service is still there.
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(exported.expired());

  clientEnd->invalidate();  // the waiting worker is released as if told to stop
  EXPECT_TRUE(eventually([&] { return exported.expired(); }));
  EXPECT_FALSE(serviceEnd->isValid());
  EXPECT_EQ(replies.load(), 0);  // its reply had nowhere to go
}

}  // namespace
