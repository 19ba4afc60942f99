// An application of the installed client library: lists a folder through
// the qxfile service, one present path a line.
#include <qxfile/QXFileClient.h>
#include <qxfile/QXFileClientSync.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  QXFileClient client;
  qx::ErrorPtr error;
  if (!client.connect(&error)) {
    std::fprintf(stderr, "%s\n", error->localizedDescription().c_str());
    return 1;
  }
  QXFileClientSync sync(client);
  qx::ArrayPtr levels =
      sync.getContentsOfDirectory(qx::Url::fileURLWithPath(argv[1]), qx::IndexPath::make(), &error);
  if (!levels || error) {
    std::fprintf(stderr, "%s\n", error->localizedDescription().c_str());
    return 1;
  }
  for (const auto& level : *levels) {
    for (const auto& item : *qx::cast<qx::Array>(level)) {
      std::printf("%s\n", qx::cast<qx::Url>(item)->path().c_str());
    }
  }
  return 0;
}
