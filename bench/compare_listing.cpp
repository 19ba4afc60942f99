// Listing end to end against ls: a client asks for the contents of a folder
// of generated entries over a real connection; the worker lists it on the
// other side and the levels come back as file reference URLs. The same folder
// is listed with `ls -U -1 --inode`.
//
//   bench_compare_listing [--entries N] [--runs R] [--keep DIR]
//
// Before the last line, the bytes of the listing's archive (the levels the
// reply carries, archived alone) are printed. The last line reads
//   listing: ratio=R qxfile_s=A ls_s=B
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "BenchLink.h"
#include "platform/archive/KeyedArchiver.h"

using namespace qx;
using namespace qx::bench;

namespace {

void makeFolder(const std::string& folder, long entries) {
  std::string done = folder + "/.complete";
  struct stat st;
  if (stat(done.c_str(), &st) == 0) return;
  mkdir(folder.c_str(), 0755);
  for (long i = 0; i + 1 < entries; ++i) {
    std::string path = folder + "/entry-" + std::to_string(i);
    if (i % 50 == 0) {
      mkdir(path.c_str(), 0755);
      continue;
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) std::abort();
    close(fd);
  }
  int fd = open(done.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  close(fd);
}

std::size_t countOf(const Reply& reply) {
  if (!reply.result || reply.result->count() != 1) return 0;
  auto level = cast<Array>(reply.result->objectAtIndex(0));
  return level ? level->count() : 0;
}

}  // namespace

int main(int argc, char** argv) {
  long entries = 100000;
  int runs = 5;
  std::string keep;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto next = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
    if (arg == "--entries")
      entries = std::atol(next().c_str());
    else if (arg == "--runs")
      runs = std::atoi(next().c_str());
    else if (arg == "--keep")
      keep = next();
    else {
      std::fprintf(stderr, "unknown argument %s\n", arg.c_str());
      return 2;
    }
  }
  std::string base = keep.empty() ? makeTempFolder("qx-compare-listing") : keep;
  mkdir(base.c_str(), 0755);
  std::string folder = base + "/folder-" + std::to_string(entries);
  makeFolder(folder, entries);
  std::printf("folder: %ld entries at %s\n", entries, folder.c_str());

  BenchLink link;
  std::vector<std::string> ls = {"ls", "-U", "-1", "--inode", folder};
  timeCommand(ls);  // warm the caches
  link.listing(folder);
  std::vector<double> ours, theirs;
  Reply reply;
  for (int run = 0; run < runs; ++run) {
    theirs.push_back(timeCommand(ls));
    ours.push_back(secondsOf([&] { reply = link.listing(folder); }));
  }
  int status = 0;
  if (reply.error || countOf(reply) != static_cast<std::size_t>(entries)) {
    std::printf("listing: wrong answer: %zu entries%s\n", countOf(reply),
                reply.error ? (" error: " + reply.error->description()).c_str() : "");
    status = 1;
  }
  if (reply.result) {
    DataPtr archive = KeyedArchiver::archivedDataWithRootObject(reply.result);
    std::printf("archive: bytes=%zu for %zu entries\n", archive ? archive->length() : 0,
                countOf(reply));
  }
  if (keep.empty()) removeTree(base);
  double a = median(ours);
  double b = median(theirs);
  std::printf("listing: ratio=%.2f qxfile_s=%.3f ls_s=%.3f\n", a / b, a, b);
  return status;
}
