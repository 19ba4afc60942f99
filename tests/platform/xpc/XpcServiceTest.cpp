// The test service as a real process: started on demand, shared, idle exit, hostile frames,
// departed clients, other users, the socket folder, and a listener out of descriptors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <thread>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcListener.h"
#include "platform/xpc/XpcMessage.h"
#include "platform/xpc/XpcServiceSocket.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"
#include "tests/platform/xpc/support/TestProtocols.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

extern char** environ;

namespace qx::xpctest {
namespace {

using namespace std::chrono_literals;
using qx::test::eventually;
namespace fs = std::filesystem;
using ::testing::HasSubstr;
using testing::json;

inline bool writeAll(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
  }
  return true;
}

// True when the peer closes `fd` within the timeout, whatever it sends before.
inline bool peerClosesWithin(int fd, std::chrono::milliseconds timeout) {
  timeval tv{static_cast<time_t>(timeout.count() / 1000),
             static_cast<suseconds_t>((timeout.count() % 1000) * 1000)};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  uint8_t buffer[4096];
  for (;;) {
    ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got == 0) return true;
    if (got < 0) return errno == ECONNRESET;
  }
}

constexpr const char* kService = QX_XPC_TEST_SERVICE;
constexpr auto kIdle = 300ms;  // the sandbox's idle time

class ServiceProcess : public ::testing::Test {
 protected:
  void SetUp() override { registerFoundationClasses(); }

  void TearDown() override {
    EXPECT_TRUE(sandbox.allGoneWithin(10s)) << "a service still runs";
    for (pid_t pid : sandbox.services()) ::kill(pid, SIGKILL);
  }

  std::shared_ptr<XpcConnection> connectClient() {
    ErrorPtr error;
    auto connection = XpcConnection::connectToService(kService, &error);
    EXPECT_TRUE(connection) << (error ? error->localizedDescription() : "");
    if (!connection) return nullptr;
    configureClientConnection(connection, std::make_shared<TestClient>());
    connection->resume();
    return connection;
  }

  // The connection's counter after one more; -1 without an answer.
  static int64_t increment(const std::shared_ptr<XpcConnection>& connection) {
    auto proxy = connection->remoteObjectProxy<TestRequest>();
    auto reply = ReplyWaiter<NumberPtr>::wait(
        [&](OnceCallback<void(NumberPtr)> done) { proxy->incrementWithReply(std::move(done)); });
    return reply && *reply ? (*reply)->integerValue() : -1;
  }

  std::string socketPath() const { return sandbox.socketFolder() + "/service.sock"; }

  qx::test::ServiceSandbox sandbox{kService};
};

TEST_F(ServiceProcess, StartsOnDemandServesEachClientItsOwnObjectAndExitsWhenIdle) {
  auto first = connectClient();
  auto second = connectClient();
  ASSERT_TRUE(first && second);
  const int64_t counts[] = {increment(first), increment(first), increment(second),
                            increment(first)};
  EXPECT_THAT(counts, ::testing::ElementsAre(1, 2, 1, 3)) << "each client its own counter";
  ASSERT_EQ(sandbox.services().size(), 1u) << "both clients meet one service";
  const pid_t pid = sandbox.services()[0];

  // An open connection keeps the service up past its idle time.
  first->invalidate();
  std::this_thread::sleep_for(kIdle * 2);
  EXPECT_EQ(sandbox.services(), std::vector<pid_t>{pid});
  EXPECT_EQ(increment(second), 2);
  auto closed = std::chrono::steady_clock::now();
  second->invalidate();
  ASSERT_TRUE(sandbox.allGoneWithin(10s));
  EXPECT_GE(std::chrono::steady_clock::now() - closed, kIdle - 50ms);

  // The next client starts a new service on the stale socket.
  auto third = connectClient();
  ASSERT_EQ(increment(third), 1);
  const std::vector<pid_t> restarted = sandbox.services();
  EXPECT_TRUE(restarted.size() == 1 && restarted[0] != pid);
  third->invalidate();
  EXPECT_TRUE(sandbox.allGoneWithin(10s));
}

TEST_F(ServiceProcess, StartedWithoutASocketItBindsThePerUserSocketItself) {
  char* argv[] = {const_cast<char*>(kService), nullptr};
  pid_t pid, second;
  ASSERT_EQ(::posix_spawn(&pid, kService, nullptr, nullptr, argv, environ), 0);
  UniqueFd socket;
  ASSERT_TRUE(
      eventually([&] { return (socket = XpcServiceSocket::connectTo(socketPath())).valid(); }));
  auto connection = XpcConnection::withSocket(std::move(socket));
  configureClientConnection(connection, nullptr);
  connection->resume();
  EXPECT_EQ(increment(connection), 1);
  EXPECT_EQ(sandbox.services(), std::vector<pid_t>{pid});
  // A second one finds the socket taken and leaves at once.
  ASSERT_EQ(::posix_spawn(&second, kService, nullptr, nullptr, argv, environ), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(second, &status, 0), second);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  EXPECT_EQ(increment(connection), 2);
  connection->invalidate();
  EXPECT_TRUE(eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }));
}

// Each client starts the service it does not find, under a lock of its own open file: eight at once
// must still share one.
TEST_F(ServiceProcess, EightClientsStartedAtOnceShareOneService) {
  std::vector<std::future<std::shared_ptr<XpcConnection>>> clients;
  for (int i = 0; i < 8; ++i)
    clients.push_back(std::async(std::launch::async, [&] { return connectClient(); }));
  std::vector<std::shared_ptr<XpcConnection>> connections;
  for (auto& client : clients) connections.push_back(client.get());
  std::set<int64_t> answers;
  for (auto& connection : connections) answers.insert(connection ? increment(connection) : -1);
  EXPECT_EQ(answers, std::set<int64_t>{1});
  EXPECT_EQ(sandbox.services().size(), 1u);
  for (auto& connection : connections) {
    if (connection) connection->invalidate();
  }
}

// A service leaving when idle makes its last check for waiting connections and closes its socket
// under the exclusive lock. Clients connect only under the shared lock, so none can slip in between
// that check and the closing, where the kernel would take the connection and the closing then drop
// it.
TEST_F(ServiceProcess, ClientsConnectOnlyWhileNoServiceMakesItsLastCheck) {
  auto first = connectClient();
  ASSERT_EQ(increment(first), 1);
  const std::vector<pid_t> running = sandbox.services();
  std::future<std::shared_ptr<XpcConnection>> second;
  {
    XpcLockFile leaving(XpcServiceSocket::lockPathForSocket(socketPath()));
    ASSERT_TRUE(leaving.locked());
    second = std::async(std::launch::async, [&] { return connectClient(); });
    EXPECT_EQ(second.wait_for(kIdle), std::future_status::timeout);
  }
  auto connection = second.get();
  ASSERT_TRUE(connection);
  EXPECT_EQ(increment(connection), 1);
  EXPECT_EQ(sandbox.services(), running);
  first->invalidate();
  connection->invalidate();
}

// The root of a keyed archive read as plain JSON: arrays and dictionaries by their NS.objects and
// NS.keys, other objects as they stand.
json plain(const json& archive, const json& reference) {
  const json& value = archive["$objects"][reference["UID"].get<std::size_t>()];
  if (value == "$null") return nullptr;
  if (!value.is_object() || !value.contains("NS.objects")) return value;
  json result = value.contains("NS.keys") ? json::object() : json::array();
  for (std::size_t i = 0; i < value["NS.objects"].size(); ++i) {
    json element = plain(archive, value["NS.objects"][i]);
    if (result.is_array()) {
      result.push_back(element);
    } else {
      result[plain(archive, value["NS.keys"][i]).get<std::string>()] = element;
    }
  }
  return result;
}

// The first message the peer sends on `fd`, as plain JSON; null when the connection closes first.
json firstMessage(int fd) {
  timeval tv{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  XpcFrameReader reader;
  uint8_t buffer[4096];
  for (ssize_t got; (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
    reader.append({buffer, static_cast<std::size_t>(got)});
    if (auto payload = reader.next()) {
      json archive = testing::readJson(*payload);
      return plain(archive, archive["$top"]["root"]);
    }
  }
  return nullptr;
}

// data/frames.jsonl: what one client connection sends, a "frame" in hex or a "message" (a keyed
// archive as JSON, written independently of the archiver) framed, less "cut" bytes at the end; and
// the "answer" read back, or "closes": the service closes that connection and goes on serving
// others.
TEST_F(ServiceProcess, EachDataFrameGetsItsAnswerOrClosesOnlyItsOwnConnection) {
  auto good = connectClient();
  ASSERT_TRUE(good);
  std::ifstream rows(QX_SOURCE_DIR "/tests/platform/xpc/data/frames.jsonl");
  int64_t served = 0;
  for (std::string line; std::getline(rows, line);) {
    const json row = json::parse(line);
    SCOPED_TRACE(row["why"].get<std::string>());
    std::vector<uint8_t> bytes = row.contains("frame")
                                     ? testing::unhex(row["frame"])
                                     : XpcFrame::encode(testing::writeJson(row["message"]));
    bytes.resize(bytes.size() - row.value("cut", 0u));
    UniqueFd raw = XpcServiceSocket::connectTo(socketPath());
    ASSERT_TRUE(raw);
    ASSERT_TRUE(writeAll(raw.get(), bytes));
    if (row.contains("cut")) ::shutdown(raw.get(), SHUT_WR);  // a cut frame waits for the end
    if (row.contains("closes")) {
      EXPECT_TRUE(peerClosesWithin(raw.get(), 5s));
    } else {
      json answer = firstMessage(raw.get());
      if (row.contains("reason holds")) {
        EXPECT_THAT(answer.value("reason", ""), HasSubstr(row["reason holds"])) << answer;
        answer.erase("reason");
      }
      EXPECT_EQ(answer, row["answer"]);
    }
    EXPECT_EQ(increment(good), ++served);
  }
  EXPECT_EQ(served, 16);
  EXPECT_EQ(sandbox.services().size(), 1u);
  good->invalidate();
}

TEST_F(ServiceProcess, PeersOfAnotherUserAreClosedAtOnce) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a peer under another uid";
  // A socket that another user may reach, handed over as socket activation does.
  std::string path = sandbox.socketFolder() + "/open/service.sock";
  ASSERT_EQ(::chmod(sandbox.socketFolder().c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(fs::path(path).parent_path().c_str(), 0755), 0);
  std::string why;
  UniqueFd listening = XpcServiceSocket::bindListening(path, &why);
  ASSERT_TRUE(listening) << why;
  ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
  ASSERT_TRUE(XpcServiceSocket::spawnService(kService, listening.get(), &why)) << why;
  listening.reset();
  auto own = XpcConnection::withSocket(XpcServiceSocket::connectTo(path));
  configureClientConnection(own, nullptr);
  own->resume();
  ASSERT_EQ(increment(own), 1);

  auto frame = XpcFrame::encode(XpcMessage::invocation("incrementWithReply:", {}, 1).encode());
  std::string outcome = qx::test::ChildProcess::runAs(65534, 65534, [&]() -> std::string {
    UniqueFd fd = XpcServiceSocket::connectTo(path);
    if (!fd) return "could not connect";
    writeAll(fd.get(), frame);  // the service may close it before it is all written
    char byte;
    ssize_t got = ::recv(fd.get(), &byte, 1, 0);
    if (got > 0) return "answered";
    return got == 0 || errno == ECONNRESET ? "closed" : "recv failed";
  });
  EXPECT_EQ(outcome, "closed");
  EXPECT_EQ(increment(own), 2);  // still serving its own user
  own->invalidate();
}

TEST_F(ServiceProcess, TheSocketFolderIsPrivateAndOursAndAMissingServiceIsAnError) {
  const std::string inner = sandbox.socketFolder() + "/inner", link = sandbox.socketFolder() + "/l";
  ::setenv("QXFILE_SOCKET_DIR", inner.c_str(), 1);
  EXPECT_EQ(XpcServiceSocket::socketPath().value_or(""), inner + "/service.sock");
  struct stat info;
  ASSERT_EQ(::lstat(inner.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u) << "created private";
  fs::create_directory_symlink(inner, link);
  std::string error;
  auto refusal = [&](const std::string& folder) {
    ::setenv("QXFILE_SOCKET_DIR", folder.c_str(), 1);
    return XpcServiceSocket::socketDirectory(&error) ? "accepted" : error;
  };
  ASSERT_EQ(::chmod(inner.c_str(), 0750), 0);
  EXPECT_THAT(refusal(inner), HasSubstr("open to other users"));
  ASSERT_EQ(::chmod(inner.c_str(), 0700), 0);
  EXPECT_THAT(refusal(link), HasSubstr("not a folder"));
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(inner.c_str(), 65534, 65534), 0);
    EXPECT_THAT(refusal(inner), HasSubstr("belongs to another user"));
  }

  // Without a folder given: the runtime folder, else one in /tmp named for the user.
  ::unsetenv("QXFILE_SOCKET_DIR");
  const char* saved = std::getenv("XDG_RUNTIME_DIR");
  std::string previous = saved ? saved : "";
  ::setenv("XDG_RUNTIME_DIR", sandbox.socketFolder().c_str(), 1);
  EXPECT_EQ(XpcServiceSocket::socketPath().value_or(""),
            sandbox.socketFolder() + "/qxfile/service.sock");
  ::unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(XpcServiceSocket::socketDirectory().value_or(""),
            "/tmp/qxfile-" + std::to_string(::geteuid()));
  if (saved) ::setenv("XDG_RUNTIME_DIR", previous.c_str(), 1);

  ::setenv("QXFILE_SOCKET_DIR", sandbox.socketFolder().c_str(), 1);
  std::string missing = sandbox.socketFolder() + "/no-such-service";
  EXPECT_FALSE(XpcServiceSocket::connectStartingService(missing, &error));
  EXPECT_THAT(error, HasSubstr("Couldn't start the service"));
  EXPECT_FALSE(fs::exists(socketPath()));
  ErrorPtr failure;
  EXPECT_FALSE(XpcConnection::connectToService(missing, &failure));
  EXPECT_TRUE(failure);
}

// The listener when the process has no descriptor to spare: a connection waiting in the backlog
// cannot be accepted yet, and the listener waits for descriptors to free up instead of polling the
// readable socket over and over.
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

  return (spent > 100 ? "the listener used " + std::to_string(static_cast<int>(spent)) +
                            " ms of processor time in 500 ms without descriptors; "
                      : "") +
         (accepted ? "" : "the waiting connection was never accepted");
}

TEST(XpcListenerDescriptors, OutOfDescriptorsItWaitsAndAcceptsOnceSomeFreeUp) {
  test::TempTree tree("qx-listener");
  const std::string path = tree.path("service.sock");
  EXPECT_EQ(test::ChildProcess::runAs(0, 0, [&] { return acceptWithoutDescriptors(path); }), "");
}

}  // namespace
}  // namespace qx::xpctest
