// The four codec passes of one size report as the connection makes them, each
// repeated in a function of its own so that callgrind counts its instructions
// alone (load-independent, unlike timings on a shared machine):
//
//   valgrind --tool=callgrind --toggle-collect='*servicePass*' build/bench/codec_passes
//
// and the collected total divided by the printed repetitions is one pass. The
// passes: the service encodes the updateFileSizes:reply: invocation carrying
// 100 records (index paths of length 3 and size items, built as the worker
// builds them), the client decodes it with its restricted sets, the client
// encodes the boolean reply, and the service decodes that.
//
//   codec_passes [repetitions] [pass]   pass: all (default) or one of
//   serviceEncode clientDecode clientEncode serviceDecode, and serviceObjects:
//   the service's report made by archiving its record objects instead
//   (--toggle-collect='*objectsPass*'), the bytes the service's writer matches
#include <cstdio>
#include <cstdlib>
#include <string>

#include "model/ModelClasses.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcMessage.h"
#include "protocol/QXFileResponse.h"
#include "service/QXClientCallbacks.h"
#include "service/QXSizeReportWriter.h"

using namespace qx;

namespace {

constexpr const char* kSelector = "updateFileSizes:reply:";
constexpr uint64_t kSequence = 7;

QXSizeUpdates sizeUpdates() {
  QXSizeUpdates updates;
  for (uint64_t i = 0; i < 100; ++i) {
    auto item = QXFileSizeItem::make(static_cast<int64_t>(i * 4096 + 17));
    item->setBusy(i % 3 == 0);
    updates.push_back({IndexPath::make({0, 3, i}), std::move(item)});
  }
  return updates;
}

// The client's exported interface decides the invocation's sets, the
// service's remote interface the reply's.
class Sets final : public XpcArgumentSets {
 public:
  Sets() : interface_(QXFileResponse::protocol()) {
    if (!QXFileResponse::restrictArguments(interface_)) std::abort();
  }
  std::optional<std::vector<ClassSet>> forInvocation(std::string_view selector) override {
    return interface_.argumentClasses(selector, false);
  }
  std::optional<std::vector<ClassSet>> forReply(uint64_t) override {
    return interface_.argumentClasses(kSelector, true);
  }

 private:
  XpcInterface interface_;
};

// The report as the service writes it, straight from the records.
[[gnu::noinline]] std::size_t servicePassEncode(const QXSizeUpdates& updates, int times) {
  std::size_t bytes = 0;
  for (int i = 0; i < times; ++i) {
    bytes += QXSizeReportWriter::invocation(kSelector, updates, kSequence).size();
  }
  return bytes;
}

// The same archive made by archiving the record objects (serviceObjects).
[[gnu::noinline]] std::size_t objectsPassEncode(const QXSizeUpdates& updates, int times) {
  std::size_t bytes = 0;
  for (int i = 0; i < times; ++i) {
    bytes += XpcMessage::invocation(kSelector, {QXClientCallbacks::wireRecords(updates)}, kSequence)
                 .encode()
                 .size();
  }
  return bytes;
}

[[gnu::noinline]] std::size_t clientPassDecode(const std::vector<uint8_t>& payload, Sets& sets,
                                               int times) {
  std::size_t decoded = 0;
  for (int i = 0; i < times; ++i) {
    XpcIncoming incoming = XpcIncoming::decode(payload, sets);
    auto records = incoming.message.arguments.empty()
                       ? nullptr
                       : cast<Array>(incoming.message.arguments.front());
    decoded += records ? records->count() : 0;
  }
  return decoded;
}

[[gnu::noinline]] std::size_t clientPassEncode(int times) {
  std::size_t bytes = 0;
  for (int i = 0; i < times; ++i) {
    bytes += XpcMessage::reply(kSequence, {Number::numberWithBool(true)}).encode().size();
  }
  return bytes;
}

[[gnu::noinline]] std::size_t servicePassDecode(const std::vector<uint8_t>& payload, Sets& sets,
                                                int times) {
  std::size_t decoded = 0;
  for (int i = 0; i < times; ++i) {
    decoded += XpcIncoming::decode(payload, sets).message.arguments.size();
  }
  return decoded;
}

}  // namespace

int main(int argc, char** argv) {
  int times = argc > 1 ? std::atoi(argv[1]) : 200;
  std::string pass = argc > 2 ? argv[2] : "all";
  auto wanted = [&](const char* name) { return pass == "all" || pass == name; };
  registerModelClasses();
  Sets sets;
  QXSizeUpdates updates = sizeUpdates();
  std::vector<uint8_t> report =
      XpcMessage::invocation(kSelector, {QXClientCallbacks::wireRecords(updates)}, kSequence)
          .encode();
  std::vector<uint8_t> answer =
      XpcMessage::reply(kSequence, {Number::numberWithBool(true)}).encode();
  XpcIncoming check = XpcIncoming::decode(report, sets);
  if (check.status != XpcIncoming::Status::Message) {
    std::fprintf(stderr, "the report does not decode: %s\n", check.reason.c_str());
    return 1;
  }
  std::size_t sink = 0;
  if (wanted("serviceEncode")) sink += servicePassEncode(updates, times);
  if (wanted("serviceObjects")) sink += objectsPassEncode(updates, times);
  if (wanted("clientDecode")) sink += clientPassDecode(report, sets, times);
  if (wanted("clientEncode")) sink += clientPassEncode(times);
  if (wanted("serviceDecode")) sink += servicePassDecode(answer, sets, times);
  std::printf("repetitions=%d report_bytes=%zu reply_bytes=%zu (%zu)\n", times, report.size(),
              answer.size(), sink);
  return 0;
}
