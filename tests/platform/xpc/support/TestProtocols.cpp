#include "tests/platform/xpc/support/TestProtocols.h"

#include <unistd.h>

#include <fstream>

#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcReplyWaiter.h"

namespace qx::xpctest {

const XpcProtocol& testRequestProtocol() {
  static const XpcProtocol protocol = XpcProtocol::describe<TestRequest, TestRequestProxy>(
      "TestRequest",
      {
          xpcMethod("echoUrl:uuid:indexPath:string:error:reply:", &TestRequest::echoObjects),
          xpcMethod("echoArray:dictionary:data:number:flag:reply:", &TestRequest::echoCollections),
          xpcMethod("countUrls:reply:", &TestRequest::countUrls),
          xpcMethod("incrementWithReply:", &TestRequest::incrementWithReply),
          xpcMethod("processIdWithReply:", &TestRequest::processIdWithReply),
          xpcMethod("askClient:marker:reply:", &TestRequest::askClient),
          xpcMethod("note:", &TestRequest::note),
          xpcMethod("notesWithReply:", &TestRequest::notesWithReply),
      });
  return protocol;
}

const XpcProtocol& testResponseProtocol() {
  static const XpcProtocol protocol = XpcProtocol::describe<TestResponse, TestResponseProxy>(
      "TestResponse", {xpcMethod("question:reply:", &TestResponse::question)});
  return protocol;
}

TestService::TestService(std::shared_ptr<XpcConnection> connection)
    : connection_(std::move(connection)) {
  ClassSet urls{&Array::classInfo(), &Url::classInfo()};
  connection_->exportedInterface()->setClasses(urls, "countUrls:reply:", 0, false);
}

TestService::~TestService() {
  connection_->invalidate();
}

void TestService::echoObjects(
    UrlPtr url, UuidPtr uuid, IndexPathPtr indexPath, StringPtr string, ErrorPtr error,
    OnceCallback<void(UrlPtr, UuidPtr, IndexPathPtr, StringPtr, ErrorPtr)> reply) {
  reply(url, uuid, indexPath, string, error);
}

void TestService::echoCollections(
    ArrayPtr array, DictionaryPtr dictionary, DataPtr data, NumberPtr number, bool flag,
    OnceCallback<void(ArrayPtr, DictionaryPtr, DataPtr, NumberPtr, bool)> reply) {
  reply(array, dictionary, data, number, flag);
}

void TestService::countUrls(ArrayPtr urls, OnceCallback<void(NumberPtr)> reply) {
  reply(Number::numberWithInteger(urls ? static_cast<int64_t>(urls->count()) : -1));
}

void TestService::incrementWithReply(OnceCallback<void(NumberPtr)> reply) {
  reply(Number::numberWithInteger(++counter_));
}

void TestService::processIdWithReply(OnceCallback<void(NumberPtr)> reply) {
  reply(Number::numberWithInteger(::getpid()));
}

void TestService::askClient(NumberPtr count, StringPtr marker, OnceCallback<void(ArrayPtr)> reply) {
  queue_.async([self = shared_from_this(), count, marker, reply = std::move(reply)]() mutable {
    std::vector<ObjectPtr> answers;
    bool released = false;
    int64_t total = count ? count->integerValue() : 0;
    for (int64_t i = 0; i < total && !released; ++i) {
      auto proxy = self->connection_->remoteObjectProxy<TestResponse>();
      auto answer = XpcReplyWaiter<bool>::wait([&](OnceCallback<void(bool)> answered) {
        proxy->question(Number::numberWithInteger(i), std::move(answered));
      });
      if (answer) {
        answers.push_back(Number::numberWithBool(*answer));
      } else {
        released = true;
      }
    }
    if (marker) {
      std::ofstream(marker->str()) << (released ? "no answer" : "answered") << "\n";
    }
    reply(Array::make(std::move(answers)));
  });
}

void TestService::note(StringPtr text) {
  notes_.push_back(text);
}

void TestService::notesWithReply(OnceCallback<void(ArrayPtr)> reply) {
  reply(Array::make(notes_));
}

void configureServiceConnection(const std::shared_ptr<XpcConnection>& connection) {
  connection->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(testResponseProtocol()));
  connection->setExportedInterface(XpcInterface::interfaceWithProtocol(testRequestProtocol()));
  auto service = std::make_shared<TestService>(connection);
  connection->setExportedObject<TestRequest>(service);
}

bool TestServiceDelegate::shouldAcceptNewConnection(
    XpcListener&, const std::shared_ptr<XpcConnection>& connection) {
  configureServiceConnection(connection);
  connection->resume();
  return true;
}

}  // namespace qx::xpctest
