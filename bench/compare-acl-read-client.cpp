// The connection side of bench/compare-acl-read.
//
//   compare-acl-read-client FOLDER
//     Connects to the service (starting it when nothing answers), asks once
//     to warm it up, then reads the ACL entries of every file in FOLDER with
//     one ACL read request per file, each awaited before the
//     next, and prints the seconds they took.
#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "qxfile/BlockingClient.h"
#include "qxfile/Client.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: compare-acl-read-client FOLDER\n");
    return 2;
  }
  const std::string folder = argv[1];
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (struct dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  std::vector<std::filesystem::path> paths;
  for (const std::string& name : names) paths.push_back(std::filesystem::path(folder) / name);
  if (paths.empty()) {
    fprintf(stderr, "%s: no files\n", folder.c_str());
    return 1;
  }

  qxfile::Client client;
  qxfile::BlockingClient service(client);
  std::optional<qxfile::Error> error = client.connect();
  if (!error) service.getAcl(paths.front(), &error);
  if (error) {
    fprintf(stderr, "no service: %s\n", error->description.c_str());
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  for (const std::filesystem::path& path : paths) {
    service.getAcl(path, &error);
    if (error) {
      fprintf(stderr, "%s: %s\n", error->description.c_str(),
              error->recoverySuggestion.value_or("").c_str());
      return 1;
    }
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  printf("%.6f\n", elapsed.count());
  return 0;
}
