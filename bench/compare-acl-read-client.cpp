// The connection side of bench/compare-acl-read.
//
//   compare-acl-read-client FOLDER
//     Connects to the service (starting it when nothing answers), asks once
//     to warm it up, then reads the ACL entries of every file in FOLDER with
//     one getAclEntriesWithUrl request per file, each awaited before the
//     next, and prints the seconds they took.
#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "qxfile/QXFileClient.h"
#include "qxfile/QXFileClientSync.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: compare-acl-read-client FOLDER\n");
    return 2;
  }
  const std::string folder = argv[1];
  std::vector<qx::UrlPtr> urls;
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (struct dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names)
    urls.push_back(qx::Url::fileURLWithPath(folder + "/" + name));
  if (urls.empty()) {
    fprintf(stderr, "%s: no files\n", folder.c_str());
    return 1;
  }

  QXFileClient client;
  QXFileClientSync service(client);
  qx::ErrorPtr error;
  if (!client.connect(&error) || !service.getAclEntriesWithUrl(urls.front(), &error)) {
    fprintf(stderr, "no service: %s\n", error ? error->description().c_str() : "?");
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  for (const qx::UrlPtr& url : urls) {
    if (!service.getAclEntriesWithUrl(url, &error)) {
      fprintf(stderr, "%s: %s\n", error->localizedDescription().c_str(),
              error->localizedRecoverySuggestion().value_or("").c_str());
      return 1;
    }
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  printf("%.6f\n", elapsed.count());
  return 0;
}
