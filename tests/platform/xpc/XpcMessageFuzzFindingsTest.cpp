// Messages the fuzzer found to break a rule of the incoming side: what decodes
// as a message must encode again into a payload that decodes the same way.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcMessage.h"

namespace qx::xpctest {
namespace {

// Replies carry an array of URLs and an error, as the client's listing reply
// does; invocations are unknown.
class ListingReplySets final : public XpcArgumentSets {
 public:
  std::optional<std::vector<ClassSet>> forInvocation(std::string_view) override {
    return std::nullopt;
  }
  std::optional<std::vector<ClassSet>> forReply(uint64_t) override {
    return std::vector<ClassSet>{{&Array::classInfo(), &Url::classInfo()}, {&Error::classInfo()}};
  }
};

std::vector<uint8_t> finding(const char* name) {
  std::ifstream in(std::filesystem::path(QX_SOURCE_DIR) / "tests/platform/xpc/fuzz-findings" / name,
                   std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Decodes `payload` as a message, encodes it again and decodes that: both
// decodes must agree. Returns the first decode.
XpcMessage decodeTwice(std::span<const uint8_t> payload) {
  ListingReplySets sets;
  XpcIncoming first = XpcIncoming::decode(payload, sets);
  EXPECT_EQ(first.status, XpcIncoming::Status::Message) << first.reason;
  XpcIncoming second = XpcIncoming::decode(first.message.encode(), sets);
  EXPECT_EQ(second.status, XpcIncoming::Status::Message) << second.reason;
  EXPECT_EQ(second.message.sequence, first.message.sequence);
  EXPECT_EQ(second.message.arguments.size(), first.message.arguments.size());
  for (std::size_t i = 0; i < first.message.arguments.size() && i < second.message.arguments.size();
       ++i) {
    const ObjectPtr& before = first.message.arguments[i];
    const ObjectPtr& after = second.message.arguments[i];
    EXPECT_EQ(before == nullptr, after == nullptr) << "argument " << i;
    if (before && after) {
      EXPECT_TRUE(after->isEqual(*before)) << after->description();
    }
  }
  return first.message;
}

TEST(XpcMessageFuzzFindings, AFileReferenceWithoutAKeptPathCrossesAgain) {
  registerFoundationClasses();
  // The fuzzer's input: a listing reply whose reference URL lost its
  // "qx.path" key. It decodes; its second crossing used to be refused.
  std::vector<uint8_t> payload = finding("reference-url-without-kept-path.bplist");
  ASSERT_FALSE(payload.empty());
  XpcMessage message = decodeTwice(payload);
  ASSERT_EQ(message.arguments.size(), 2u);
  auto levels = cast<Array>(message.arguments[0]);
  ASSERT_TRUE(levels && levels->count() == 2);
  auto reference = cast<Array>(levels->objectAtIndex(0))->objectAs<FileReferenceUrl>(0);
  ASSERT_NE(reference, nullptr);
  EXPECT_EQ(reference->keptPath(), "");
  EXPECT_EQ(reference->absoluteString(), "file:///.file/id=201.9103475");

  // The same reference made here crosses twice as well.
  auto made = std::make_shared<FileReferenceUrl>(201, 9103475, "");
  decodeTwice(XpcMessage::reply(7, {Array::make({made}), nullptr}).encode());
}

}  // namespace
}  // namespace qx::xpctest
