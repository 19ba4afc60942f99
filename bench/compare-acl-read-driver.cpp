// The qxfile sides of bench/compare-acl-read.
//
//   compare-acl-read-driver generate FOLDER FILES
//     Makes the new folder FOLDER with FILES empty files (mode 0644) in it.
//   compare-acl-read-driver read FOLDER
//     Reads the ACL entries of every file in FOLDER in process, through the
//     worker (QXFileAcl::entriesForUrl, no connection), and prints the
//     seconds it took. The names are listed before the clock starts.
//
// compare-acl-read-client does the same read through a real connection.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "acl/QXFileAcl.h"
#include "platform/foundation/Url.h"

namespace {

int generate(const std::string& folder, long files) {
  umask(022);
  if (mkdir(folder.c_str(), 0755) != 0) {
    perror(folder.c_str());
    return 1;
  }
  for (long i = 0; i < files; ++i) {
    const std::string path = folder + "/f" + std::to_string(i);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
      perror(path.c_str());
      return 1;
    }
    close(fd);
  }
  printf("%ld files\n", files);
  return 0;
}

std::vector<std::string> filesIn(const std::string& folder) {
  std::vector<std::string> paths;
  DIR* dir = opendir(folder.c_str());
  if (!dir) return paths;
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') paths.push_back(folder + "/" + entry->d_name);
  }
  closedir(dir);
  std::sort(paths.begin(), paths.end());
  return paths;
}

int read(const std::string& folder) {
  const std::vector<std::string> paths = filesIn(folder);
  if (paths.empty()) {
    fprintf(stderr, "%s: no files\n", folder.c_str());
    return 1;
  }
  std::vector<qx::UrlPtr> urls;
  for (const std::string& path : paths) urls.push_back(qx::Url::fileURLWithPath(path));
  std::size_t records = 0;
  const auto start = std::chrono::steady_clock::now();
  for (const qx::UrlPtr& url : urls) {
    qx::ErrorPtr error;
    qx::ArrayPtr entries = QXFileAcl::entriesForUrl(url, &error);
    if (!entries) {
      fprintf(stderr, "%s: %s\n", error->localizedDescription().c_str(),
              error->localizedRecoverySuggestion().value_or("").c_str());
      return 1;
    }
    records += entries->count();
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  fprintf(stderr, "%zu files, %zu records\n", urls.size(), records);
  printf("%.6f\n", elapsed.count());
  return 0;
}

int usage() {
  fprintf(stderr,
          "usage: compare-acl-read-driver generate FOLDER FILES\n"
          "       compare-acl-read-driver read FOLDER\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "generate") {
    char* end = nullptr;
    long files = strtol(argv[3], &end, 10);
    if (*end != '\0' || files <= 0) return usage();
    return generate(argv[2], files);
  }
  if (argc == 3 && std::string(argv[1]) == "read") return read(argv[2]);
  return usage();
}
