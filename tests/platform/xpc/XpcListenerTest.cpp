// The listener when the process has no descriptor to spare: a connection
// waiting in the backlog cannot be accepted yet, and the listener waits for
// descriptors to free up instead of polling the readable socket over and over.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcListener.h"
#include "platform/xpc/XpcListenerDelegate.h"
#include "platform/xpc/XpcServiceSocket.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

using namespace std::chrono_literals;

class SignallingDelegate final : public XpcListenerDelegate {
 public:
  bool shouldAcceptNewConnection(XpcListener&, const std::shared_ptr<XpcConnection>&) override {
    accepted.signal();
    return false;
  }
  Semaphore accepted;
};

double processCpuMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Runs in a child: the descriptor limit is lowered for the whole process.
std::string acceptWithoutDescriptors(const std::string& path) {
  std::string error;
  UniqueFd listening = XpcServiceSocket::bindListening(path, &error);
  if (!listening) return "bind: " + error;
  auto listener = XpcListener::listenerWithSocket(std::move(listening));
  auto delegate = std::make_shared<SignallingDelegate>();
  listener->setDelegate(delegate);
  UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  std::thread accepting([&] { listener->resume(); });

  int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit saved{};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  rlimit none = saved;
  none.rlim_cur = static_cast<rlim_t>(lowestFree);
  if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return "setrlimit failed";
  if (::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    return "connect failed";
  double before = processCpuMilliseconds();
  std::this_thread::sleep_for(500ms);
  double spent = processCpuMilliseconds() - before;
  ::setrlimit(RLIMIT_NOFILE, &saved);
  bool accepted = delegate->accepted.waitFor(5s);
  listener->invalidate();
  accepting.join();

  std::string problems;
  if (spent > 100) {
    problems += "the listener used " + std::to_string(static_cast<int>(spent)) +
                " ms of processor time in 500 ms without descriptors; ";
  }
  if (!accepted) problems += "the waiting connection was never accepted";
  return problems;
}

TEST(XpcListenerDescriptors, OutOfDescriptorsItWaitsAndAcceptsOnceSomeFreeUp) {
  test::TempTree tree("qx-listener");
  const std::string path = tree.path("service.sock");
  EXPECT_EQ(test::ChildProcess::runAs(0, 0, [&] { return acceptWithoutDescriptors(path); }), "");
}

}  // namespace
}  // namespace qx
