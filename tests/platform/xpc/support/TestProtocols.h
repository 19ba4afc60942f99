#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/OnceCallback.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcListenerDelegate.h"
#include "platform/xpc/XpcProtocol.h"
#include "platform/xpc/XpcRemoteProxy.h"

namespace qx::xpctest {

// The protocol of the test service: echoes of every Foundation class, a
// restricted argument, per-connection state, and a request whose worker asks
// the client and waits for each answer.
class TestRequest {
 public:
  virtual ~TestRequest() = default;
  virtual void echoObjects(
      UrlPtr url, UuidPtr uuid, IndexPathPtr indexPath, StringPtr string, ErrorPtr error,
      OnceCallback<void(UrlPtr, UuidPtr, IndexPathPtr, StringPtr, ErrorPtr)> reply) = 0;
  virtual void echoCollections(
      ArrayPtr array, DictionaryPtr dictionary, DataPtr data, NumberPtr number, bool flag,
      OnceCallback<void(ArrayPtr, DictionaryPtr, DataPtr, NumberPtr, bool)> reply) = 0;
  // Argument 0 is restricted to NSArray and NSURL.
  virtual void countUrls(ArrayPtr urls, OnceCallback<void(NumberPtr)> reply) = 0;
  virtual void incrementWithReply(OnceCallback<void(NumberPtr)> reply) = 0;
  virtual void processIdWithReply(OnceCallback<void(NumberPtr)> reply) = 0;
  // On the object's operation queue: asks the client `count` questions, each
  // time waiting for the answer; replies with the answers. When released with
  // no answer it writes "no answer" to `marker` (when given) and stops.
  virtual void askClient(NumberPtr count, StringPtr marker, OnceCallback<void(ArrayPtr)> reply) = 0;
  // No reply block.
  virtual void note(StringPtr text) = 0;
  virtual void notesWithReply(OnceCallback<void(ArrayPtr)> reply) = 0;
};

// The protocol the test client exports.
class TestResponse {
 public:
  virtual ~TestResponse() = default;
  virtual void question(NumberPtr index, OnceCallback<void(bool)> reply) = 0;
};

const XpcProtocol& testRequestProtocol();
const XpcProtocol& testResponseProtocol();

class TestRequestProxy final : public TestRequest, XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;
  void echoObjects(
      UrlPtr url, UuidPtr uuid, IndexPathPtr indexPath, StringPtr string, ErrorPtr error,
      OnceCallback<void(UrlPtr, UuidPtr, IndexPathPtr, StringPtr, ErrorPtr)> reply) override {
    send("echoUrl:uuid:indexPath:string:error:reply:", std::move(reply), url, uuid, indexPath,
         string, error);
  }
  void echoCollections(
      ArrayPtr array, DictionaryPtr dictionary, DataPtr data, NumberPtr number, bool flag,
      OnceCallback<void(ArrayPtr, DictionaryPtr, DataPtr, NumberPtr, bool)> reply) override {
    send("echoArray:dictionary:data:number:flag:reply:", std::move(reply), array, dictionary, data,
         number, flag);
  }
  void countUrls(ArrayPtr urls, OnceCallback<void(NumberPtr)> reply) override {
    send("countUrls:reply:", std::move(reply), urls);
  }
  void incrementWithReply(OnceCallback<void(NumberPtr)> reply) override {
    send("incrementWithReply:", std::move(reply));
  }
  void processIdWithReply(OnceCallback<void(NumberPtr)> reply) override {
    send("processIdWithReply:", std::move(reply));
  }
  void askClient(NumberPtr count, StringPtr marker, OnceCallback<void(ArrayPtr)> reply) override {
    send("askClient:marker:reply:", std::move(reply), count, marker);
  }
  void note(StringPtr text) override { sendWithoutReply("note:", text); }
  void notesWithReply(OnceCallback<void(ArrayPtr)> reply) override {
    send("notesWithReply:", std::move(reply));
  }
};

class TestResponseProxy final : public TestResponse, XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;
  void question(NumberPtr index, OnceCallback<void(bool)> reply) override {
    send("question:reply:", std::move(reply), index);
  }
};

// The exported object of one test-service connection. Like the service's own
// per-connection object it holds its connection and invalidates it when
// destroyed.
class TestService final : public TestRequest, public std::enable_shared_from_this<TestService> {
 public:
  explicit TestService(std::shared_ptr<XpcConnection> connection);
  ~TestService() override;

  void echoObjects(
      UrlPtr url, UuidPtr uuid, IndexPathPtr indexPath, StringPtr string, ErrorPtr error,
      OnceCallback<void(UrlPtr, UuidPtr, IndexPathPtr, StringPtr, ErrorPtr)> reply) override;
  void echoCollections(
      ArrayPtr array, DictionaryPtr dictionary, DataPtr data, NumberPtr number, bool flag,
      OnceCallback<void(ArrayPtr, DictionaryPtr, DataPtr, NumberPtr, bool)> reply) override;
  void countUrls(ArrayPtr urls, OnceCallback<void(NumberPtr)> reply) override;
  void incrementWithReply(OnceCallback<void(NumberPtr)> reply) override;
  void processIdWithReply(OnceCallback<void(NumberPtr)> reply) override;
  void askClient(NumberPtr count, StringPtr marker, OnceCallback<void(ArrayPtr)> reply) override;
  void note(StringPtr text) override;
  void notesWithReply(OnceCallback<void(ArrayPtr)> reply) override;

 private:
  std::shared_ptr<XpcConnection> connection_;
  SerialQueue queue_{"qx.test.OperationQueue"};
  int64_t counter_ = 0;  // touched on the delivery queue only
  std::vector<ObjectPtr> notes_;
};

// Configures each new connection as the test service does and accepts it.
class TestServiceDelegate final : public XpcListenerDelegate {
 public:
  bool shouldAcceptNewConnection(XpcListener& listener,
                                 const std::shared_ptr<XpcConnection>& connection) override;
};

// Sets up `connection` as the service side of the test protocols.
void configureServiceConnection(const std::shared_ptr<XpcConnection>& connection);

}  // namespace qx::xpctest
