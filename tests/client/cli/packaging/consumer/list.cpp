// An application of the installed client library: lists a folder through
// the qxfile service, one present path a line.
#include <qxfile/BlockingClient.h>
#include <qxfile/Client.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  qxfile::Client client;
  std::optional<qxfile::Error> error = client.connect();
  if (error) {
    std::fprintf(stderr, "%s\n", error->description.c_str());
    return 1;
  }
  auto levels = qxfile::BlockingClient(client).listContents(argv[1], {}, &error);
  if (error) {
    std::fprintf(stderr, "%s\n", error->description.c_str());
    return 1;
  }
  for (const auto& level : levels) {
    for (const auto& item : level) std::printf("%s\n", item.keptPath.c_str());
  }
  return 0;
}
