// Sizes end to end against du: a client asks for the size of a generated tree
// over a real connection and answers YES to every report; the worker walks on
// the other side. The same tree is measured with `du -s -b`.
//
//   bench_compare_sizes [--files N] [--memory-entries M] [--runs R] [--keep DIR]
//
// N files (default 200000) in folders of 100; M entries (default 1000000, 0 to
// skip) for the memory run, made in a child process. With --keep the trees
// are made under DIR and kept for later runs. The last line reads
//   sizes: ratio=R qxfile_s=A du_s=B
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BenchLink.h"
#include "model/QXFileSizeItem.h"
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
    QXSizeCalculation calculation(urls, [](const ArrayPtr&) { return true; });
    ErrorPtr error;
    calculation.run(&error);
  });
}

}  // namespace

int main(int argc, char** argv) {
  long files = 200000;
  long memoryEntries = 1000000;
  int runs = 3;
  std::string keep;
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
  std::vector<std::string> du = {"du", "-s", "-b", root};
  timeCommand(du);  // warm the caches
  link.sizes({root});
  std::vector<double> ours, theirs, local;
  Reply reply;
  for (int run = 0; run < runs; ++run) {
    theirs.push_back(timeCommand(du));
    ours.push_back(secondsOf([&] { reply = link.sizes({root}); }));
    local.push_back(inProcessSeconds(root));
  }
  int status = 0;
  if (reply.error || totalOf(reply) != tree.bytes) {
    std::printf("sizes: wrong answer: total %lld, expected %lld%s\n",
                static_cast<long long>(totalOf(reply)), tree.bytes,
                reply.error ? (" error: " + reply.error->description()).c_str() : "");
    status = 1;
  }
  std::printf("reports: %zu for %ld entries\n", reply.reports, tree.entries);
  std::printf("without the connection: qxfile_s=%.3f\n", median(local));
  if (keep.empty()) removeTree(base);
  double a = median(ours);
  double b = median(theirs);
  std::printf("sizes: ratio=%.2f qxfile_s=%.3f du_s=%.3f\n", a / b, a, b);
  return status;
}
