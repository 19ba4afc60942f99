// The workers' callbacks as calls of a client at the other end of a real
// connection: the answers pass through with their senses, the size updates
// cross as records, and a call that gets no answer releases the worker with
// "stop".
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>

#include "model/QXFileSizeItem.h"
#include "platform/foundation/Foundation.h"
#include "service/QXClientCallbacks.h"
#include "tests/support/ResponseLink.h"
#include "tests/support/SizeRecord.h"

namespace qx {
namespace {

using namespace std::chrono_literals;
using test::SizeRecord;

QXSizeUpdates twoUpdates() {
  auto folder = QXFileSizeItem::make(300);
  folder->setBusy(true);
  auto file = QXFileSizeItem::make(300);
  file->setBusy(false);
  return {{IndexPath::make(), folder}, {IndexPath::make(std::vector<uint64_t>{0}), file}};
}

// Each callback of one kind: how the worker asks, and what it concludes.
struct Kind {
  const char* name;
  // Asks through `connection`; true when the worker is to stop.
  std::function<bool(const std::shared_ptr<XpcConnection>& connection)> stops;
  // The client's answer that means "stop".
  bool stopAnswer;
};

const Kind kKinds[] = {
    {"size report",
     [](const std::shared_ptr<XpcConnection>& connection) {
       return !QXClientCallbacks::sizeReport(connection)(twoUpdates());
     },
     false},
    {"rename question",
     [](const std::shared_ptr<XpcConnection>& connection) {
       return QXClientCallbacks::renameQuestion(connection)();
     },
     true},
};

TEST(QXClientCallbacks, TheClientsAnswersKeepTheirSenses) {
  for (const Kind& kind : kKinds) {
    for (bool answer : {false, true}) {
      SCOPED_TRACE(std::string(kind.name) + (answer ? " YES" : " NO"));
      test::ResponseLink link([&](int) { return answer; }, [&](int) { return answer; });
      EXPECT_EQ(kind.stops(link.worker), answer == kind.stopAnswer);
    }
  }
}

TEST(QXClientCallbacks, SizeUpdatesCrossAsRecordsOfTheirState) {
  test::ResponseLink link([](int) { return true; });
  ASSERT_TRUE(QXClientCallbacks::sizeReport(link.worker)(twoUpdates()));
  ASSERT_EQ(link.client->reports().size(), 1u);
  EXPECT_EQ(SizeRecord::listOf(link.client->reports()[0]),
            (std::vector<SizeRecord>{{{}, 300, true}, {{0}, 300, false}}));
}

// The client leaves while the worker waits, or there is no connection at
// all: the worker is released, told to stop.
TEST(QXClientCallbacks, ACallWithoutAnAnswerStops) {
  for (const Kind& kind : kKinds) {
    for (bool connected : {true, false}) {
      SCOPED_TRACE(std::string(kind.name) + (connected ? " client leaves" : " no connection"));
      test::ResponseLink holding;  // holds every call
      auto asking = std::async(std::launch::async,
                               [&] { return kind.stops(connected ? holding.worker : nullptr); });
      if (connected) {
        ASSERT_TRUE(holding.client->waitForCalls(1));
        EXPECT_EQ(asking.wait_for(100ms), std::future_status::timeout) << "the worker waits";
        holding.clientEnd->invalidate();
      }
      ASSERT_EQ(asking.wait_for(10s), std::future_status::ready);
      EXPECT_TRUE(asking.get());
    }
  }
}

}  // namespace
}  // namespace qx
