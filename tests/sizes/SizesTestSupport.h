#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/OnceCallback.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcProtocol.h"
#include "service/QXFileResponse.h"
#include "tests/support/TempTree.h"

namespace qx::sizestest {

// A temporary tree named for the sizes tests, whose files are filled with
// a number of bytes.
class TempTree : public qx::test::TempTree {
 public:
  TempTree() : qx::test::TempTree("qx-sizes") {}

  UrlPtr url(const std::string& relative) const { return Url::fileURLWithPath(path(relative)); }
  void file(const std::string& relative, std::size_t bytes = 0) const {
    qx::test::TempTree::file(relative, std::string(bytes, 'x'));
  }
};

// Runs the calling thread with the file-system identity of an unprivileged
// user (setfsuid/setfsgid are per thread), so permissions really apply.
class AsNobody {
 public:
  AsNobody();
  ~AsNobody();
  AsNobody(const AsNobody&) = delete;
  AsNobody& operator=(const AsNobody&) = delete;
};

// One update record as the client reads it.
struct Record {
  std::vector<uint64_t> indexPath;
  int64_t size;
  bool busy;
  bool operator==(const Record&) const = default;
};
std::vector<Record> recordsOf(const ArrayPtr& batch);
std::string describe(const std::vector<Record>& records);

// The client end: records every batch it receives (decoded from the wire) and
// answers each with `answer(n)` for the n-th report, or holds the reply
// blocks when `answer` is empty.
class SizesClient final : public QXFileResponse {
 public:
  using Answer = std::function<bool(std::size_t report)>;
  explicit SizesClient(Answer answer) : answer_(std::move(answer)) {}

  void progressWithReply(OnceCallback<void(bool)> reply) override { reply(false); }
  void updateFileSizes(ArrayPtr sizes, OnceCallback<void(bool)> reply) override;

  std::vector<std::vector<Record>> reports();
  // Waits until `count` reports have arrived.
  bool waitForReports(std::size_t count);
  // Answers the held reply blocks.
  void answerHeld(bool answer);

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  Answer answer_;
  std::vector<std::vector<Record>> reports_;
  std::vector<OnceCallback<void(bool)>> held_;
};

// A worker-side connection joined by a socketpair to a client connection
// that exports `client`, both resumed.
struct Link {
  explicit Link(std::shared_ptr<SizesClient> client);
  ~Link();
  std::shared_ptr<XpcConnection> worker;
  std::shared_ptr<XpcConnection> clientEnd;
  std::shared_ptr<SizesClient> client;
};

ArrayPtr urls(const std::vector<UrlPtr>& list);

}  // namespace qx::sizestest
