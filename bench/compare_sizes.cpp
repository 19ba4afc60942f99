// Sizes end to end against du: a client asks for the size of a generated tree
// over a real connection and answers YES to every report; the worker walks on
// the other side. The same tree is measured with `du -s -b`.
//
//   bench_compare_sizes [--files N] [--memory-entries M] [--runs R] [--keep DIR] [--cold]
//
// N files (default 200000) in folders of 100; M entries (default 1000000, 0 to
// skip) for the memory run, made in a child process. With --keep the trees
// are made under DIR and kept for later runs. The last line reads
//   sizes: ratio=R qxfile_s=A du_s=B
//
// Before it, a "floor" line adds up what any implementation of the exchange
// has to spend, each part measured alone on the same tree: the walk with
// nothing built, encoding every report and decoding it as the client does
// (and the same for the answers), and one bare socket round trip per report
// with the same byte counts, where the thread that writes also reads the
// answer, so no thread hands anything to another.
//
// With --cold, the page cache, dentries and inodes are dropped before every
// timed run of either side (which needs root), as a user meets a folder the
// first time its size is asked; the last line then reads
//   sizes-cold: ratio=R qxfile_s=A du_s=B
// and the warm runs and the floor are left out.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BenchLink.h"
#include "model/QXFileSizeItem.h"
#include "platform/walk/TreeWalk.h"
#include "platform/xpc/UniqueFd.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcMessage.h"
#include "protocol/QXFileResponse.h"
#include "service/QXClientCallbacks.h"
#include "sizes/QXFileSizes.h"
#include "sizes/QXSizeCalculation.h"

using namespace qx;
using namespace qx::bench;

namespace {

struct Tree {
  long entries = 0;  // files and folders, the top folder included
  long long bytes = 0;
};

// Groups of ten folders of 100 files; one file in seven holds 10 bytes.
Tree makeTree(const std::string& root, long files) {
  Tree tree;
  mkdir(root.c_str(), 0755);
  tree.entries = 1;
  long made = 0;
  for (int group = 0; made < files; ++group) {
    std::string groupPath = root + "/group" + std::to_string(group);
    mkdir(groupPath.c_str(), 0755);
    ++tree.entries;
    for (int folder = 0; folder < 10 && made < files; ++folder) {
      std::string folderPath = groupPath + "/folder" + std::to_string(folder);
      mkdir(folderPath.c_str(), 0755);
      ++tree.entries;
      for (int file = 0; file < 100 && made < files; ++file, ++made) {
        std::string filePath = folderPath + "/file" + std::to_string(file);
        int fd = open(filePath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) std::abort();
        if (made % 7 == 0) {
          if (write(fd, "0123456789", 10) != 10) std::abort();
          tree.bytes += 10;
        }
        close(fd);
        ++tree.entries;
      }
    }
  }
  return tree;
}

// Reuses a kept tree: its size is recorded next to it.
Tree treeAt(const std::string& root, long files) {
  std::string note = root + ".info";
  Tree tree;
  if (FILE* f = std::fopen(note.c_str(), "r")) {
    bool ok = std::fscanf(f, "%ld %lld", &tree.entries, &tree.bytes) == 2;
    std::fclose(f);
    if (ok) return tree;
  }
  tree = makeTree(root, files);
  if (FILE* f = std::fopen(note.c_str(), "w")) {
    std::fprintf(f, "%ld %lld\n", tree.entries, tree.bytes);
    std::fclose(f);
  }
  return tree;
}

// The total of the record with the empty index path: the requested folder.
int64_t totalOf(const Reply& reply) {
  if (!reply.result) return -1;
  for (const ObjectPtr& object : *reply.result) {
    auto record = cast<Dictionary>(object);
    auto path = record ? record->objectForKeyAs<IndexPath>("QXIndexPath") : nullptr;
    auto item = record ? record->objectForKeyAs<QXFileSizeItem>("QXFileSizeItem") : nullptr;
    if (path && item && path->length() == 0) return item->busy() ? -1 : item->size();
  }
  return -1;
}

// In a child process: the peak memory of one size calculation per entry.
int memoryRun(const std::string& root, long entries) {
  BenchLink link;
  long before = peakResidentBytes();
  Reply reply;
  double seconds = secondsOf([&] { reply = link.sizes({root}); });
  long after = peakResidentBytes();
  if (reply.error || totalOf(reply) < 0) {
    std::printf("memory: the calculation failed\n");
    return 1;
  }
  std::printf(
      "memory: entries=%ld peak_rss_growth_bytes=%ld bytes_per_entry=%.1f peak_rss_bytes=%ld "
      "qxfile_s=%.3f reports=%zu\n",
      entries, after - before, double(after - before) / entries, after, seconds, reply.reports);
  return 0;
}

// The calculation in this process with reports answered at once: the walk and
// the size tree alone, without the connection.
double inProcessSeconds(const std::string& root) {
  auto urls = Array::make({Url::fileURLWithPath(root)});
  return secondsOf([&] {
    QXSizeCalculation calculation(urls, [](const QXSizeUpdates&) { return true; });
    ErrorPtr error;
    calculation.run(&error);
  });
}

// The walk the calculation makes, with nothing built from it.
double walkSeconds(const std::string& root) {
  return secondsOf([&] {
    auto walk = TreeWalk::open({root}, TreeWalk::NoChdir | TreeWalk::Physical | TreeWalk::XDev,
                               &QXFileSizes::compare);
    while (walk && walk->read()) {
    }
    if (walk) walk->close();
  });
}

// The class sets of the client's side, as the client library declares them:
// the records of a report, the answer's boolean.
class ClientSets final : public XpcArgumentSets {
 public:
  ClientSets() : interface_(QXFileResponse::protocol()) {
    if (!QXFileResponse::restrictArguments(interface_)) std::abort();
  }
  std::optional<std::vector<ClassSet>> forInvocation(std::string_view selector) override {
    return interface_.argumentClasses(selector, false);
  }
  std::optional<std::vector<ClassSet>> forReply(uint64_t) override {
    return interface_.argumentClasses(reportSelector(), true);
  }
  static const std::string& reportSelector() {
    return QXFileResponse::protocol().method(&QXFileResponse::updateFileSizes)->selector;
  }

 private:
  XpcInterface interface_;
};

// What the reports of one calculation cost to encode and decode, and the
// frame sizes they make: each report and its answer.
struct Traffic {
  double codecSeconds = 0;
  std::vector<std::pair<std::size_t, std::size_t>> frames;
};

Traffic reportTraffic(const std::string& root) {
  Traffic traffic;
  ClientSets sets;
  uint64_t sequence = 0;
  auto urls = Array::make({Url::fileURLWithPath(root)});
  QXSizeCalculation calculation(urls, [&](const QXSizeUpdates& updates) {
    ArrayPtr batch = QXClientCallbacks::wireRecords(updates);
    ++sequence;
    std::size_t reportBytes = 0, answerBytes = 0;
    bool decoded = false;
    traffic.codecSeconds += secondsOf([&] {
      auto report =
          XpcMessage::invocation(ClientSets::reportSelector(), {batch}, sequence).encode();
      XpcIncoming received = XpcIncoming::decode(report, sets);
      auto answer = XpcMessage::reply(sequence, {Number::numberWithBool(true)}).encode();
      XpcIncoming answered = XpcIncoming::decode(answer, sets);
      decoded = received.status == XpcIncoming::Status::Message &&
                answered.status == XpcIncoming::Status::Message;
      reportBytes = report.size();
      answerBytes = answer.size();
    });
    traffic.frames.emplace_back(reportBytes, answerBytes);
    return decoded;
  });
  ErrorPtr error;
  calculation.run(&error);
  return traffic;
}

bool transfer(int fd, std::vector<char>& buffer, std::size_t bytes, bool sending) {
  if (buffer.size() < bytes) buffer.resize(bytes);
  for (std::size_t done = 0; done < bytes;) {
    ssize_t moved = sending ? ::send(fd, buffer.data() + done, bytes - done, MSG_NOSIGNAL)
                            : ::recv(fd, buffer.data() + done, bytes - done, 0);
    if (moved <= 0) return false;
    done += static_cast<std::size_t>(moved);
  }
  return true;
}

// One round trip per report over a socket pair, with the frames' sizes: the
// writing thread reads the answer itself, and the peer answers as soon as it
// has read a report.
double roundTripSeconds(const Traffic& traffic) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  UniqueFd near(fds[0]), far(fds[1]);
  std::thread peer([&] {
    std::vector<char> buffer;
    for (const auto& [report, answer] : traffic.frames) {
      if (!transfer(far.get(), buffer, report, false) || !transfer(far.get(), buffer, answer, true))
        return;
    }
  });
  std::vector<char> buffer;
  double seconds = secondsOf([&] {
    for (const auto& [report, answer] : traffic.frames) {
      if (!transfer(near.get(), buffer, report, true) ||
          !transfer(near.get(), buffer, answer, false))
        std::abort();
    }
  });
  peer.join();
  return seconds;
}

// Context switches of every thread of this process so far, voluntary and not.
long contextSwitches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw + usage.ru_nivcsw;
}

// Writes back dirty pages and drops the clean ones, with dentries and inodes.
// False, with the reason in `why`, when this process may not.
bool dropCaches(std::string& why) {
  if (geteuid() != 0) {
    why = "dropping the page cache needs root";
    return false;
  }
  sync();
  UniqueFd fd(open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC));
  if (!fd || write(fd.get(), "3", 1) != 1) {
    why = std::string("cannot write /proc/sys/vm/drop_caches: ") + std::strerror(errno);
    return false;
  }
  return true;
}

// du and the service, each run after the caches are dropped, in turns that
// alternate which side goes first.
int coldRuns(BenchLink& link, const std::string& root, const Tree& tree, int runs) {
  std::string why;
  if (!dropCaches(why)) {
    std::printf("sizes-cold: skipped: %s\n", why.c_str());
    return 0;
  }
  std::vector<std::string> du = {"du", "-s", "-b", root};
  std::vector<double> ours, theirs;
  Reply reply;
  auto timeDu = [&] {
    if (dropCaches(why)) theirs.push_back(timeCommand(du));
  };
  auto timeOurs = [&] {
    if (dropCaches(why)) ours.push_back(secondsOf([&] { reply = link.sizes({root}); }));
  };
  for (int run = 0; run < runs; ++run) {
    if (run % 2 == 0) {
      timeDu();
      timeOurs();
    } else {
      timeOurs();
      timeDu();
    }
    if (!ours.empty() && !theirs.empty()) {
      std::printf("cold run %d: qxfile_s=%.3f du_s=%.3f\n", run + 1, ours.back(), theirs.back());
    }
  }
  if (ours.empty() || theirs.empty()) {
    std::printf("sizes-cold: skipped: %s\n", why.c_str());
    return 0;
  }
  if (reply.error || totalOf(reply) != tree.bytes) {
    std::printf("sizes-cold: wrong answer: total %lld, expected %lld\n",
                static_cast<long long>(totalOf(reply)), tree.bytes);
    return 1;
  }
  double a = median(ours);
  double b = median(theirs);
  std::printf("sizes-cold: ratio=%.2f qxfile_s=%.3f du_s=%.3f\n", a / b, a, b);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  long files = 200000;
  long memoryEntries = 1000000;
  int runs = 3;
  std::string keep;
  bool cold = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto next = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
    if (arg == "--files")
      files = std::atol(next().c_str());
    else if (arg == "--memory-entries")
      memoryEntries = std::atol(next().c_str());
    else if (arg == "--runs")
      runs = std::atoi(next().c_str());
    else if (arg == "--keep")
      keep = next();
    else if (arg == "--cold")
      cold = true;
    else if (arg == "--memory-run") {
      std::string root = next();
      return memoryRun(root, std::atol(next().c_str()));
    } else {
      std::fprintf(stderr, "unknown argument %s\n", arg.c_str());
      return 2;
    }
  }
  std::string base = keep.empty() ? makeTempFolder("qx-compare-sizes") : keep;
  mkdir(base.c_str(), 0755);
  std::string root = base + "/tree-" + std::to_string(files);
  Tree tree = treeAt(root, files);
  std::printf("tree: %ld entries, %lld bytes in files, at %s\n", tree.entries, tree.bytes,
              root.c_str());

  if (memoryEntries > 0) {
    // Files only count toward the entries: about one folder per 100 files.
    long memoryFiles = memoryEntries * 100 / 101;
    std::string memoryRoot = base + "/tree-" + std::to_string(memoryFiles);
    Tree big = treeAt(memoryRoot, memoryFiles);
    std::string command = std::string("'") + argv[0] + "' --memory-run '" + memoryRoot + "' " +
                          std::to_string(big.entries);
    std::fflush(stdout);
    if (std::system(command.c_str()) != 0) std::printf("memory: run failed\n");
    if (keep.empty()) removeTree(memoryRoot);
  }

  BenchLink link;
  if (cold) {
    int status = coldRuns(link, root, tree, runs);
    if (keep.empty()) removeTree(base);
    return status;
  }
  std::vector<std::string> du = {"du", "-s", "-b", root};
  timeCommand(du);  // warm the caches
  long switchesBefore = contextSwitches();
  Reply warm = link.sizes({root});
  long switches = contextSwitches() - switchesBefore;
  std::vector<double> ours, theirs, local, walks, codecs, roundTrips;
  Reply reply;
  for (int run = 0; run < runs; ++run) {
    theirs.push_back(timeCommand(du));
    ours.push_back(secondsOf([&] { reply = link.sizes({root}); }));
    local.push_back(inProcessSeconds(root));
    walks.push_back(walkSeconds(root));
    Traffic traffic = reportTraffic(root);
    codecs.push_back(traffic.codecSeconds);
    roundTrips.push_back(roundTripSeconds(traffic));
  }
  int status = 0;
  if (reply.error || totalOf(reply) != tree.bytes) {
    std::printf("sizes: wrong answer: total %lld, expected %lld%s\n",
                static_cast<long long>(totalOf(reply)), tree.bytes,
                reply.error ? (" error: " + reply.error->description()).c_str() : "");
    status = 1;
  }
  std::printf("reports: %zu for %ld entries\n", reply.reports, tree.entries);
  // Threads handing work to each other show here, whatever the load.
  std::printf("context switches: %.2f per report (%ld in one run)\n",
              warm.reports ? double(switches) / double(warm.reports) : 0.0, switches);
  std::printf("without the connection: qxfile_s=%.3f\n", median(local));
  if (keep.empty()) removeTree(base);
  double a = median(ours);
  double b = median(theirs);
  double floor = median(walks) + median(codecs) + median(roundTrips);
  std::printf("floor: walk_s=%.3f codec_s=%.3f round_trips_s=%.3f sum_s=%.3f ratio=%.2f\n",
              median(walks), median(codecs), median(roundTrips), floor, floor / b);
  std::printf("sizes: ratio=%.2f qxfile_s=%.3f du_s=%.3f\n", a / b, a, b);
  return status;
}
