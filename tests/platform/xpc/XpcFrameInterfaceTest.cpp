#include <gtest/gtest.h>

#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcInterface.h"
#include "tests/platform/xpc/XpcTestSupport.h"

namespace qx::xpctest {
namespace {

TEST(XpcFrameReader, CutsAStreamInAnyPiecesAndRefusesLengthsAboveTheLimit) {
  std::vector<uint8_t> stream;
  std::vector<std::vector<uint8_t>> sent = {{}, {1}, std::vector<uint8_t>(70000, 7), {1, 2, 3}};
  for (const auto& payload : sent) {
    auto frame = XpcFrame::encode(payload);
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  EXPECT_EQ(XpcFrame::encode(std::vector<uint8_t>{9, 8}), (std::vector<uint8_t>{0, 0, 0, 2, 9, 8}));
  for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{4096}, stream.size()}) {
    XpcFrameReader reader;
    std::vector<std::vector<uint8_t>> received;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      reader.append({stream.data() + at, std::min(piece, stream.size() - at)});
      while (auto payload = reader.next()) received.push_back(*payload);
    }
    EXPECT_EQ(received, sent) << "pieces of " << piece;
    EXPECT_EQ(reader.buffered(), 0u);
    EXPECT_FALSE(reader.failed());
  }

  XpcFrameReader atLimit;  // exactly 256 MiB: allowed, and incomplete
  atLimit.append(std::vector<uint8_t>{0x10, 0x00, 0x00, 0x00, 1, 2});
  EXPECT_FALSE(atLimit.next() || atLimit.failed());
  EXPECT_EQ(atLimit.buffered(), 6u);
  XpcFrameReader above;
  above.append(std::vector<uint8_t>{0x10, 0x00, 0x00, 0x01});
  EXPECT_FALSE(above.next());
  EXPECT_TRUE(above.failed());
  above.append(std::vector<uint8_t>{0, 0, 0, 0});  // nothing after a broken header counts
  EXPECT_FALSE(above.next());
}

TEST(XpcInterface, DefaultsFollowTheDeclaredClassesAndSetsReplaceThem) {
  XpcInterface interface(testRequestProtocol());
  const std::string echo = "echoArray:dictionary:data:number:flag:reply:";
  ClassSet url = interface.classes("echoUrl:uuid:indexPath:string:error:reply:", 0, false);
  EXPECT_TRUE(url.allows(Url::classInfo()));
  EXPECT_FALSE(url.allows(String::classInfo()));
  // A collection argument: its class plus the property-list classes.
  ClassSet array = interface.classes(echo, 0, false);
  for (const ClassInfo* cls :
       {&Array::classInfo(), &MutableArray::classInfo(), &String::classInfo(), &Number::classInfo(),
        &Data::classInfo(), &Dictionary::classInfo()})
    EXPECT_TRUE(array.allows(*cls)) << cls->name();
  EXPECT_FALSE(array.allows(Url::classInfo()) || array.allows(Uuid::classInfo()));
  // BOOL arguments and reply arguments travel as numbers.
  EXPECT_TRUE(interface.classes(echo, 4, false).allows(Number::classInfo()));
  EXPECT_TRUE(interface.classes(echo, 4, true).allows(Number::classInfo()));

  ClassSet only{&Array::classInfo(), &Url::classInfo()};
  EXPECT_TRUE(interface.setClasses(only, "countUrls:reply:", 0, false));
  EXPECT_FALSE(interface.classes("countUrls:reply:", 0, false).allows(String::classInfo()));
  EXPECT_TRUE(interface.classes("countUrls:reply:", 0, true).allows(Number::classInfo()))
      << "the reply side keeps its default";
  EXPECT_FALSE(interface.setClasses(only, "noSuchSelector:", 0, false));
  EXPECT_FALSE(interface.setClasses(only, "countUrls:reply:", 1, false));
  EXPECT_FALSE(interface.setClasses(only, "countUrls:reply:", 1, true));
}

}  // namespace
}  // namespace qx::xpctest
