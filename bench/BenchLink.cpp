#include "BenchLink.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>

#include "model/ModelClasses.h"
#include "platform/xpc/UniqueFd.h"
#include "platform/xpc/XpcInterface.h"
#include "protocol/QXFileRequest.h"
#include "protocol/QXFileResponse.h"
#include "service/QXFileService.h"

extern char** environ;

namespace qx::bench {

namespace {

// The client side: answers YES to every report.
class BenchClient final : public QXFileResponse {
 public:
  void progressWithReply(AnswerReply reply) override { reply(false); }
  void updateFileSizes(ArrayPtr, AnswerReply reply) override {
    ++reports;
    reply(true);
  }
  std::atomic<std::size_t> reports{0};
};

}  // namespace

struct BenchLink::Parts {
  std::shared_ptr<XpcConnection> worker;
  std::shared_ptr<XpcConnection> client;
  std::shared_ptr<QXFileService> service;
  std::shared_ptr<BenchClient> answers;
};

BenchLink::BenchLink() : parts_(std::make_unique<Parts>()) {
  registerFoundationClasses();
  registerModelClasses();
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  // The service's end, set up as its listener delegate does for a new peer.
  parts_->worker = XpcConnection::withSocket(UniqueFd(fds[0]));
  parts_->worker->setRemoteObjectInterface(
      XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
  parts_->worker->setExportedInterface(
      XpcInterface::interfaceWithProtocol(QXFileRequest::protocol()));
  parts_->service = std::make_shared<QXFileService>(parts_->worker);
  parts_->worker->setExportedObject<QXFileRequest>(parts_->service);
  parts_->worker->resume();

  // The client's end, with the rules of the client library.
  parts_->client = XpcConnection::withSocket(UniqueFd(fds[1]));
  auto callbacks = XpcInterface::interfaceWithProtocol(QXFileResponse::protocol());
  auto requests = XpcInterface::interfaceWithProtocol(QXFileRequest::protocol());
  if (!QXFileResponse::restrictArguments(*callbacks) || !QXFileRequest::restrictReplies(*requests))
    std::abort();
  parts_->client->setExportedInterface(callbacks);
  parts_->client->setRemoteObjectInterface(requests);
  parts_->answers = std::make_shared<BenchClient>();
  parts_->client->setExportedObject<QXFileResponse>(parts_->answers);
  parts_->client->resume();
}

BenchLink::~BenchLink() {
  parts_->client->invalidate();
  parts_->worker->invalidate();
}

Reply BenchLink::sizes(const std::vector<std::string>& paths) {
  std::vector<ObjectPtr> urls;
  for (const std::string& path : paths) urls.push_back(Url::fileURLWithPath(path));
  std::promise<Reply> done;
  std::size_t before = parts_->answers->reports;
  auto proxy = parts_->client->remoteObjectProxy<QXFileRequest>();
  proxy->getSizesWithUrls(Array::make(urls), [&](ArrayPtr result, ErrorPtr error) {
    done.set_value({result, error, 0});
  });
  Reply reply = done.get_future().get();
  reply.reports = parts_->answers->reports - before;
  return reply;
}

Reply BenchLink::listing(const std::string& path) {
  std::promise<Reply> done;
  auto proxy = parts_->client->remoteObjectProxy<QXFileRequest>();
  proxy->getContentsOfDirectory(Url::fileURLWithPath(path), IndexPath::make(),
                                [&](ArrayPtr result, ErrorPtr error) {
                                  done.set_value({result, error, 0});
                                });
  return done.get_future().get();
}

double secondsOf(const std::function<void()>& work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

double timeCommand(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  int status = 0;
  double seconds = secondsOf([&] {
    pid_t pid;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
      status = -1;
      return;
    }
    waitpid(pid, &status, 0);
  });
  posix_spawn_file_actions_destroy(&actions);
  return status == 0 ? seconds : -1;
}

long peakResidentBytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss * 1024L;
}

void removeTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
}

std::string makeTempFolder(const std::string& prefix) {
  std::string pattern = "/tmp/" + prefix + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  return pattern;
}

}  // namespace qx::bench
