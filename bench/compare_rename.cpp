// Batch rename against a plain rename(2) loop, side by side.
//
//   bench_compare_rename [files] [rounds] [folder]
//
// Each round makes two folders of `files` empty files (default 10000) under a
// fresh temporary folder in `folder` (default $TMPDIR or /tmp). On one,
// QXFileRename renames every file through a real connection (a socketpair;
// the client answers NO to every progress question, so the batch runs to its
// end); on the other, a loop of rename(2) gives the same files the same new
// names. The two go first in turns. Only the renames are timed: the URL and
// name arrays, like a request's decoded arguments, are made beforehand. The
// last line compares the medians (the ratio of the median times; the median of
// the rounds' own ratios and the ratio of the best times are printed before):
//
//   rename: ratio=R qxfile_s=A loop_s=B

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "protocol/QXFileResponse.h"
#include "rename/QXFileRename.h"
#include "service/QXClientCallbacks.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "bench_compare_rename: %s\n", what.c_str());
  std::exit(1);
}

// The client: lets every batch run to its end.
class AnswerNo final : public QXFileResponse {
 public:
  void progressWithReply(AnswerReply reply) override {
    ++questions;
    reply(false);
  }
  void updateFileSizes(qx::ArrayPtr, AnswerReply reply) override { reply(false); }
  std::atomic<int> questions{0};
};

struct Link {
  std::shared_ptr<qx::XpcConnection> worker;
  std::shared_ptr<qx::XpcConnection> client;
  std::shared_ptr<AnswerNo> responder = std::make_shared<AnswerNo>();

  Link() {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) fail("socketpair");
    worker = qx::XpcConnection::withSocket(qx::UniqueFd(fds[0]));
    worker->setRemoteObjectInterface(
        qx::XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
    worker->resume();
    client = qx::XpcConnection::withSocket(qx::UniqueFd(fds[1]));
    client->setExportedInterface(
        qx::XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
    client->setExportedObject<QXFileResponse>(responder);
    client->resume();
  }
  ~Link() {
    client->invalidate();
    worker->invalidate();
  }
};

std::vector<std::string> fileNames(int count, const char* prefix) {
  std::vector<std::string> names;
  names.reserve(count);
  char name[32];
  for (int i = 0; i < count; ++i) {
    std::snprintf(name, sizeof name, "%s%06d", prefix, i);
    names.emplace_back(name);
  }
  return names;
}

void makeFiles(const std::string& folder, const std::vector<std::string>& names) {
  std::filesystem::create_directory(folder);
  for (const std::string& name : names) {
    std::ofstream file(folder + "/" + name);
    if (!file) fail("cannot create " + folder + "/" + name);
  }
}

void syncFolder(const std::string& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || ::syncfs(fd) != 0) fail("cannot sync " + folder);
  ::close(fd);
}

double seconds(Clock::duration elapsed) {
  return std::chrono::duration<double>(elapsed).count();
}

double timeQxfile(Link& link, const std::string& folder, const std::vector<std::string>& from,
                  const std::vector<std::string>& to) {
  std::vector<qx::ObjectPtr> urls;
  std::vector<qx::ObjectPtr> names;
  urls.reserve(from.size());
  names.reserve(to.size());
  for (std::size_t i = 0; i < from.size(); ++i) {
    urls.push_back(qx::Url::fileURLWithPath(folder + "/" + from[i]));
    names.push_back(qx::str(to[i]));
  }
  auto urlArray = qx::Array::make(std::move(urls));
  auto nameArray = qx::Array::make(std::move(names));
  qx::ErrorPtr error;
  auto start = Clock::now();
  QXFileRename::Result result = QXFileRename::renameUrls(
      urlArray, nameArray, QXClientCallbacks::renameQuestion(link.worker), &error);
  double elapsed = seconds(Clock::now() - start);
  if (error) fail("rename failed: " + error->localizedRecoverySuggestion().value_or(""));
  if (!result.urls || result.urls->count() != from.size()) fail("the batch stopped early");
  return elapsed;
}

double timeLoop(const std::string& folder, const std::vector<std::string>& from,
                const std::vector<std::string>& to) {
  std::vector<std::string> oldPaths;
  std::vector<std::string> newPaths;
  for (std::size_t i = 0; i < from.size(); ++i) {
    oldPaths.push_back(folder + "/" + from[i]);
    newPaths.push_back(folder + "/" + to[i]);
  }
  auto start = Clock::now();
  for (std::size_t i = 0; i < oldPaths.size(); ++i) {
    if (::rename(oldPaths[i].c_str(), newPaths[i].c_str()) != 0) fail("rename(2) failed");
  }
  return seconds(Clock::now() - start);
}

// The questions of one batch alone, asked back to back as the worker asks
// them: what the client's answers add to a batch.
double timeQuestions(Link& link, int questions) {
  auto client = link.worker->remoteObjectProxy<QXFileResponse>();
  auto start = Clock::now();
  for (int i = 0; i < questions; ++i) {
    auto stop = qx::ReplyWaiter<bool>::wait(
        [&](QXFileResponse::AnswerReply reply) { client->progressWithReply(std::move(reply)); });
    if (!stop || *stop) fail("the client did not answer NO");
  }
  return seconds(Clock::now() - start);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  const int files = argc > 1 ? std::atoi(argv[1]) : 10000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
  const char* tmp = std::getenv("TMPDIR");
  std::string parent = argc > 3 ? argv[3] : (tmp && *tmp ? tmp : "/tmp");
  if (files <= 0 || rounds <= 0) fail("usage: bench_compare_rename [files] [rounds] [folder]");

  qx::registerFoundationClasses();
  std::string pattern = parent + "/qx-rename-bench-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) fail("cannot make a folder in " + parent);
  const std::string work = pattern;
  const std::vector<std::string> from = fileNames(files, "item-");
  const std::vector<std::string> to = fileNames(files, "renamed item ");

  Link link;
  std::vector<double> qxTimes;
  std::vector<double> loopTimes;
  for (int round = 0; round < rounds; ++round) {
    const std::string qxFolder = work + "/qxfile";
    const std::string loopFolder = work + "/loop";
    makeFiles(qxFolder, from);
    makeFiles(loopFolder, from);
    syncFolder(work);  // the creations' write-back should not land in a timed part
    double qx = 0;
    double loop = 0;
    if (round % 2 == 0) {
      qx = timeQxfile(link, qxFolder, from, to);
      loop = timeLoop(loopFolder, from, to);
    } else {
      loop = timeLoop(loopFolder, from, to);
      qx = timeQxfile(link, qxFolder, from, to);
    }
    qxTimes.push_back(qx);
    loopTimes.push_back(loop);
    std::printf("round %d: qxfile_s=%.4f loop_s=%.4f ratio=%.3f\n", round + 1, qx, loop, qx / loop);
    std::fflush(stdout);
    std::filesystem::remove_all(qxFolder);
    std::filesystem::remove_all(loopFolder);
  }
  std::filesystem::remove_all(work);

  const int questionsPerBatch = files / 31;
  std::printf("files=%d rounds=%d questions per batch=%d (asked %d in all)\n", files, rounds,
              questionsPerBatch, link.responder->questions.load());
  std::vector<double> questionTimes;
  for (int round = 0; round < rounds; ++round) {
    questionTimes.push_back(timeQuestions(link, questionsPerBatch));
  }
  std::printf("the %d questions of a batch alone: %.4f s (median)\n", questionsPerBatch,
              median(questionTimes));
  std::vector<double> ratios;
  for (std::size_t i = 0; i < qxTimes.size(); ++i) ratios.push_back(qxTimes[i] / loopTimes[i]);
  std::printf("median of the rounds' ratios: %.3f\n", median(ratios));
  const double qxBest = *std::min_element(qxTimes.begin(), qxTimes.end());
  const double loopBest = *std::min_element(loopTimes.begin(), loopTimes.end());
  std::printf("best of each: ratio=%.3f qxfile_s=%.4f loop_s=%.4f\n", qxBest / loopBest, qxBest,
              loopBest);
  const double qx = median(qxTimes);
  const double loop = median(loopTimes);
  std::printf("rename: ratio=%.3f qxfile_s=%.4f loop_s=%.4f\n", qx / loop, qx, loop);
  return 0;
}
