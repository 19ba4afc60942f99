// The typed client API against the object-model layer under it, side by side
// on one service process: what the typed layer (qxfile::Client with
// qxfile::BlockingClient, as tools use it) adds over calling QXFileClient
// directly and waiting for its reply.
//
//   bench_compare_client [--files N] [--requests N] [--runs R]
//
// The service is started on demand, as an application starts it, in a socket
// folder of this run's own (QXFILE_SOCKET_DIR); the executable is the one
// QXFileClient::servicePath() names: $QXFILE_SERVICE_PATH, else the one built
// beside the library. Each run times both layers, in turns (the order swaps
// every run), and the lines compare the medians over R runs (default 9).
// Both sides start from a path, as an application does, and make their
// records from it on every request:
//
//   client-request: ratio=R typed_us=A internal_us=B
//     microseconds for one ACL read of one file, each awaited before the next,
//     over N requests (default 2000) a run;
//   client-sizes: ratio=R typed_s=A internal_s=B
//     seconds for the size of a generated tree of N files (default 50000) in
//     folders of 100, every report read by a progress handler that answers
//     "go on".
//
// R is the typed layer's time over the internal one's. The typed client runs
// size calculations on a connection of their own, made by the first one (in
// the warm-up) and kept for the next.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/lib/QXFileClient.h"
#include "model/QXFileSizeItem.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/IndexPath.h"
#include "protocol/QXFileResponse.h"
#include "qxfile/BlockingClient.h"
#include "qxfile/Client.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  long files = 50000;
  long requests = 2000;
  int runs = 9;
};

// A step that went wrong; caught in main, after the scratch folders are gone.
struct Failure {
  std::string what;
};

[[noreturn]] void fail(const std::string& what) {
  throw Failure{what};
}

std::optional<Options> parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const long value = std::strtol(argv[i + 1], nullptr, 10);
    if (value <= 0) return std::nullopt;
    if (flag == "--files") {
      options.files = value;
    } else if (flag == "--requests") {
      options.requests = value;
    } else if (flag == "--runs") {
      options.runs = static_cast<int>(value);
    } else {
      return std::nullopt;
    }
  }
  if (argc % 2 == 0) return std::nullopt;
  return options;
}

// A folder under /tmp, removed with everything in it at the end.
class ScratchFolder {
 public:
  explicit ScratchFolder(const char* prefix) {
    std::string pattern = std::string("/tmp/") + prefix + "-XXXXXX";
    if (!mkdtemp(pattern.data())) fail("mkdtemp: " + std::string(strerror(errno)));
    path_ = pattern;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Groups of ten folders of 100 files; one file in seven holds 10 bytes.
// Returns the bytes the files hold.
int64_t makeTree(const std::string& root, long files) {
  int64_t bytes = 0;
  long made = 0;
  for (int group = 0; made < files; ++group) {
    const std::string groupPath = root + "/group" + std::to_string(group);
    mkdir(groupPath.c_str(), 0755);
    for (int folder = 0; folder < 10 && made < files; ++folder) {
      const std::string folderPath = groupPath + "/folder" + std::to_string(folder);
      mkdir(folderPath.c_str(), 0755);
      for (int file = 0; file < 100 && made < files; ++file, ++made) {
        const std::string filePath = folderPath + "/file" + std::to_string(file);
        const int fd = open(filePath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) fail(filePath + ": " + strerror(errno));
        if (made % 7 == 0) {
          if (write(fd, "0123456789", 10) != 10) fail(filePath + ": short write");
          bytes += 10;
        }
        close(fd);
      }
    }
  }
  return bytes;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double secondsOf(const std::function<void()>& work) {
  const auto start = Clock::now();
  work();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string describe(const qx::ErrorPtr& error) {
  return error ? error->localizedDescription() : std::string("no answer");
}

// The object-model layer, each reply awaited as BlockingClient awaits one.
class InternalSide {
  // Reads size records by their keys; false when one is not a size record.
  static bool readSizes(const qx::ArrayPtr& batch, int64_t* total) {
    for (const auto& object : *batch) {
      auto record = qx::cast<qx::Dictionary>(object);
      auto indexPath =
          record ? record->objectForKeyAs<qx::IndexPath>(QXFileResponse::kIndexPathKey) : nullptr;
      auto item = record ? record->objectForKeyAs<QXFileSizeItem>(QXFileResponse::kFileSizeItemKey)
                         : nullptr;
      if (!indexPath || !item) return false;
      if (indexPath->length() == 0 && !item->busy()) *total = item->size();
    }
    return true;
  }

 public:
  explicit InternalSide(QXFileClient& client) : client_(client) {}

  void readAcl(const std::string& path) {
    std::promise<std::pair<qx::ArrayPtr, qx::ErrorPtr>> answer;
    auto reply = answer.get_future();
    client_.getAclEntriesWithUrl(qx::Url::fileURLWithPath(path),
                                 [&answer](qx::ArrayPtr entries, qx::ErrorPtr error) {
                                   answer.set_value({std::move(entries), std::move(error)});
                                 });
    const auto [entries, error] = reply.get();
    if (!entries || error) fail("internal getAclEntriesWithUrl: " + describe(error));
  }

  // The final size of the top item (the empty index path), read from the
  // reports as they come and from the last records the reply carries.
  int64_t totalSize(const std::string& path) {
    int64_t total = -1;
    client_.setSizeUpdateHandler(
        [&total](const qx::ArrayPtr& batch) { return readSizes(batch, &total); });
    bool readable = true;
    std::promise<qx::ErrorPtr> answer;
    auto reply = answer.get_future();
    client_.getSizesWithUrls(qx::Array::make({qx::Url::fileURLWithPath(path)}),
                             [&](qx::ArrayPtr last, qx::ErrorPtr error) {
                               if (last) readable = readSizes(last, &total);
                               answer.set_value(error);
                             });
    if (auto error = reply.get()) fail("internal getSizesWithUrls: " + describe(error));
    if (!readable) fail("internal getSizesWithUrls: a record that is not a size record");
    client_.setSizeUpdateHandler(nullptr);
    return total;
  }

 private:
  QXFileClient& client_;
};

// The typed layer, through its blocking calls.
class TypedSide {
 public:
  explicit TypedSide(qxfile::Client& client) : blocking_(client) {}

  void readAcl(const std::filesystem::path& item) {
    std::optional<qxfile::Error> error;
    blocking_.getAcl(item, &error);
    if (error) fail("typed getAcl: " + error->description);
  }

  int64_t totalSize(const std::filesystem::path& item) {
    int64_t total = -1;
    auto read = [&total](const std::vector<qxfile::SizeUpdate>& updates) {
      for (const auto& update : updates) {
        if (update.indexPath.empty() && !update.busy) total = update.size;
      }
      return true;
    };
    std::optional<qxfile::Error> error;
    read(blocking_.getSizes({item}, read, &error));
    if (error) fail("typed getSizes: " + error->description);
    return total;
  }

 private:
  qxfile::BlockingClient blocking_;
};

// Times `typed` and `internal` once each per run, in turns, the order
// swapped every run; returns the medians (typed, internal).
std::pair<double, double> alternate(int runs, const std::function<void()>& typed,
                                    const std::function<void()>& internal) {
  std::vector<double> typedTimes, internalTimes;
  for (int run = 0; run < runs; ++run) {
    if (run % 2 == 0) {
      typedTimes.push_back(secondsOf(typed));
      internalTimes.push_back(secondsOf(internal));
    } else {
      internalTimes.push_back(secondsOf(internal));
      typedTimes.push_back(secondsOf(typed));
    }
  }
  return {median(typedTimes), median(internalTimes)};
}

}  // namespace

int run(int argc, char** argv) {
  const auto options = parse(argc, argv);
  if (!options) {
    fprintf(stderr, "usage: bench_compare_client [--files N] [--requests N] [--runs R]\n");
    return 2;
  }
  ScratchFolder sockets("qx-bench-sockets");
  chmod(sockets.path().c_str(), 0700);
  setenv("QXFILE_SOCKET_DIR", sockets.path().c_str(), 1);
  setenv("QXFILE_IDLE_EXIT_MS", "300", 1);
  fprintf(stderr, "service: %s\n", QXFileClient::servicePath().c_str());

  ScratchFolder tree("qx-bench-client");
  const std::string root = tree.path() + "/tree";
  mkdir(root.c_str(), 0755);
  const int64_t bytes = makeTree(root, options->files);
  const std::string file = root + "/group0/folder0/file1";

  {
    qxfile::Client typedClient;
    QXFileClient internalClient;
    if (auto error = typedClient.connect()) fail("typed connect: " + error->description);
    qx::ErrorPtr failure;
    if (!internalClient.connect(&failure)) fail("internal connect: " + describe(failure));
    TypedSide typed(typedClient);
    InternalSide internal(internalClient);

    // One of each first: the service's first answers, the size connection.
    typed.readAcl(file);
    internal.readAcl(file);
    const int64_t typedTotal = typed.totalSize(root);
    const int64_t internalTotal = internal.totalSize(root);
    if (typedTotal != internalTotal || typedTotal < bytes) {
      fail("the totals differ: typed " + std::to_string(typedTotal) + ", internal " +
           std::to_string(internalTotal) + ", file contents " + std::to_string(bytes));
    }
    fprintf(stderr, "tree: %ld files, %lld bytes in all\n", options->files,
            static_cast<long long>(typedTotal));

    const long requests = options->requests;
    const auto [typedRequests, internalRequests] = alternate(
        options->runs,
        [&] {
          for (long i = 0; i < requests; ++i) typed.readAcl(file);
        },
        [&] {
          for (long i = 0; i < requests; ++i) internal.readAcl(file);
        });
    const double typedUs = typedRequests / requests * 1e6;
    const double internalUs = internalRequests / requests * 1e6;
    printf("client-request: ratio=%.3f typed_us=%.2f internal_us=%.2f\n", typedUs / internalUs,
           typedUs, internalUs);
    fflush(stdout);

    const auto [typedSizes, internalSizes] = alternate(
        options->runs, [&] { typed.totalSize(root); }, [&] { internal.totalSize(root); });
    printf("client-sizes: ratio=%.3f typed_s=%.4f internal_s=%.4f\n", typedSizes / internalSizes,
           typedSizes, internalSizes);
  }
  return 0;
}

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const Failure& failure) {
    fprintf(stderr, "bench_compare_client: %s\n", failure.what.c_str());
    return 1;
  }
}
