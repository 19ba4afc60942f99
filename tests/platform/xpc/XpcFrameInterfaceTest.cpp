#include <gtest/gtest.h>

#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcInterface.h"
#include "tests/platform/xpc/XpcTestSupport.h"

namespace qx::xpctest {
namespace {

std::vector<uint8_t> bytes(std::initializer_list<int> values) {
  std::vector<uint8_t> out;
  for (int v : values) out.push_back(static_cast<uint8_t>(v));
  return out;
}

TEST(XpcFrameReader, CutsAStreamArrivingInAnyPiecesIntoPayloads) {
  std::vector<uint8_t> stream;
  std::vector<std::vector<uint8_t>> sent = {{}, {1}, std::vector<uint8_t>(70000, 7), {1, 2, 3}};
  for (const auto& payload : sent) {
    auto frame = XpcFrame::encode(payload);
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  EXPECT_EQ(XpcFrame::encode(std::vector<uint8_t>{9, 8}), bytes({0, 0, 0, 2, 9, 8}));
  for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{4096}, stream.size()}) {
    XpcFrameReader reader;
    std::vector<std::vector<uint8_t>> received;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      std::size_t n = std::min(piece, stream.size() - at);
      reader.append({stream.data() + at, n});
      while (auto payload = reader.next()) received.push_back(*payload);
    }
    EXPECT_EQ(received, sent) << "pieces of " << piece;
    EXPECT_EQ(reader.buffered(), 0u);
    EXPECT_FALSE(reader.failed());
  }
}

TEST(XpcFrameReader, RefusesLengthsAboveTheLimitWithoutAllocatingThem) {
  XpcFrameReader atLimit;
  atLimit.append(bytes({0x10, 0x00, 0x00, 0x00, 1, 2}));  // exactly 256 MiB: allowed, incomplete
  EXPECT_FALSE(atLimit.next());
  EXPECT_FALSE(atLimit.failed());
  EXPECT_EQ(atLimit.buffered(), 6u);

  XpcFrameReader above;
  above.append(bytes({0x10, 0x00, 0x00, 0x01}));
  EXPECT_FALSE(above.next());
  EXPECT_TRUE(above.failed());
  above.append(bytes({0, 0, 0, 0}));  // nothing after a broken header counts
  EXPECT_FALSE(above.next());
}

TEST(XpcInterface, DefaultsFollowTheDeclaredClassesAndSetsReplaceThem) {
  XpcInterface interface(testRequestProtocol());
  auto has = [](const ClassSet& set, const ClassInfo& cls) { return set.allows(cls); };

  ClassSet url = interface.classes("echoUrl:uuid:indexPath:string:error:reply:", 0, false);
  EXPECT_TRUE(has(url, Url::classInfo()));
  EXPECT_FALSE(has(url, String::classInfo()));

  // A collection argument: its class plus the property-list classes.
  ClassSet array = interface.classes("echoArray:dictionary:data:number:flag:reply:", 0, false);
  for (const ClassInfo* cls :
       {&Array::classInfo(), &MutableArray::classInfo(), &String::classInfo(), &Number::classInfo(),
        &Data::classInfo(), &Dictionary::classInfo()})
    EXPECT_TRUE(has(array, *cls)) << cls->name();
  EXPECT_FALSE(has(array, Url::classInfo()));
  EXPECT_FALSE(has(array, Uuid::classInfo()));

  // BOOL arguments and reply arguments are numbers.
  ClassSet flag = interface.classes("echoArray:dictionary:data:number:flag:reply:", 4, false);
  EXPECT_TRUE(has(flag, Number::classInfo()));
  ClassSet replyFlag = interface.classes("echoArray:dictionary:data:number:flag:reply:", 4, true);
  EXPECT_TRUE(has(replyFlag, Number::classInfo()));
  const XpcMethod* method =
      testRequestProtocol().method("echoArray:dictionary:data:number:flag:reply:");
  ASSERT_TRUE(method);
  EXPECT_TRUE(method->arguments[4].isBool);
  EXPECT_TRUE(method->hasReply);
  EXPECT_FALSE(testRequestProtocol().method("note:")->hasReply);

  ClassSet only{&Array::classInfo(), &Url::classInfo()};
  EXPECT_TRUE(interface.setClasses(only, "countUrls:reply:", 0, false));
  ClassSet restricted = interface.classes("countUrls:reply:", 0, false);
  EXPECT_TRUE(has(restricted, Url::classInfo()));
  EXPECT_FALSE(has(restricted, String::classInfo()));
  // The reply side of the same selector keeps its default.
  EXPECT_TRUE(has(interface.classes("countUrls:reply:", 0, true), Number::classInfo()));

  EXPECT_FALSE(interface.setClasses(only, "noSuchSelector:", 0, false));
  EXPECT_FALSE(interface.setClasses(only, "countUrls:reply:", 1, false));
  EXPECT_FALSE(interface.setClasses(only, "countUrls:reply:", 1, true));
  EXPECT_FALSE(interface.argumentClasses("noSuchSelector:", false));
  EXPECT_EQ(interface.argumentClasses("echoUrl:uuid:indexPath:string:error:reply:", false)->size(),
            5u);
}

TEST(XpcInterface, InvokersCallTheMethodOnlyWithArgumentsOfTheirTypes) {
  auto client = std::make_shared<TestClient>(true);
  const XpcMethod* question = testResponseProtocol().method("question:reply:");
  ASSERT_TRUE(question);
  bool answered = false;
  bool answer = false;
  std::vector<ObjectPtr> good = {Number::numberWithInteger(4)};
  EXPECT_TRUE(question->invoke(static_cast<TestResponse*>(client.get()), good,
                               [&](std::vector<ObjectPtr> reply) {
                                 answered = true;
                                 answer = cast<Number>(reply.at(0))->boolValue();
                               }));
  EXPECT_TRUE(answered);
  EXPECT_TRUE(answer);
  std::vector<ObjectPtr> wrongType = {str("4")};
  EXPECT_FALSE(question->invoke(static_cast<TestResponse*>(client.get()), wrongType, nullptr));
  std::vector<ObjectPtr> wrongCount = {};
  EXPECT_FALSE(question->invoke(static_cast<TestResponse*>(client.get()), wrongCount, nullptr));
  EXPECT_EQ(client->questionCount(), 1u);
}

}  // namespace
}  // namespace qx::xpctest
