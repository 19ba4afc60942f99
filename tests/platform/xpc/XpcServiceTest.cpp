// The test service as a real process: started on demand, shared, idle exit,
// broken streams, departed clients, other users and the socket folder.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <set>

#include "platform/dispatch/ReplyWaiter.h"
#include "platform/xpc/XpcMessage.h"
#include "platform/xpc/XpcServiceSocket.h"
#include "tests/platform/xpc/XpcTestSupport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ServiceSandbox.h"

extern char** environ;

namespace qx::xpctest {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

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

  static int64_t ask(const std::shared_ptr<XpcConnection>& connection,
                     void (TestRequest::*method)(OnceCallback<void(NumberPtr)>)) {
    auto proxy = connection->remoteObjectProxy<TestRequest>();
    auto reply = ReplyWaiter<NumberPtr>::wait(
        [&](OnceCallback<void(NumberPtr)> done) { ((*proxy).*method)(std::move(done)); });
    return reply && *reply ? (*reply)->integerValue() : -1;
  }
  static pid_t pidOf(const std::shared_ptr<XpcConnection>& connection) {
    return static_cast<pid_t>(ask(connection, &TestRequest::processIdWithReply));
  }
  static int64_t increment(const std::shared_ptr<XpcConnection>& connection) {
    return ask(connection, &TestRequest::incrementWithReply);
  }

  std::string socketPath() const { return sandbox.socketFolder() + "/service.sock"; }

  qx::test::ServiceSandbox sandbox{kService};
};

TEST_F(ServiceProcess, StartsOnDemandServesEachClientItsOwnObjectAndExitsWhenIdle) {
  auto first = connectClient();
  auto second = connectClient();
  ASSERT_TRUE(first && second);
  pid_t pid = pidOf(first);
  ASSERT_GT(pid, 0);
  EXPECT_NE(pid, ::getpid());
  EXPECT_EQ(pidOf(second), pid);
  EXPECT_EQ(increment(first), 1);
  EXPECT_EQ(increment(first), 2);
  EXPECT_EQ(increment(second), 1);
  EXPECT_EQ(increment(first), 3);

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
  ASSERT_TRUE(third);
  EXPECT_GT(pidOf(third), 0);
  EXPECT_NE(pidOf(third), pid);
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
  EXPECT_EQ(pidOf(connection), pid);
  // A second one finds the socket taken and leaves at once.
  ASSERT_EQ(::posix_spawn(&second, kService, nullptr, nullptr, argv, environ), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(second, &status, 0), second);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  EXPECT_EQ(pidOf(connection), pid);
  connection->invalidate();
  EXPECT_TRUE(eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }));
}

TEST_F(ServiceProcess, EightClientsStartedAtOnceShareOneService) {
  std::vector<FILE*> clients;
  for (int i = 0; i < 8; ++i)
    clients.push_back(::popen((std::string(kService) + " --client").c_str(), "r"));
  std::set<std::string> answers;
  for (FILE* client : clients) {
    ASSERT_TRUE(client);
    char line[64] = "";
    EXPECT_TRUE(std::fgets(line, sizeof line, client));
    EXPECT_EQ(::pclose(client), 0);
    answers.insert(line);
  }
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_GT(std::atoi(answers.begin()->c_str()), 0);
}

// A service leaving when idle makes its last check for waiting connections
// and closes its socket under the exclusive lock. Clients connect only under
// the shared lock, so none can slip in between that check and the closing,
// where the kernel would take the connection and the closing then drop it.
TEST_F(ServiceProcess, ClientsConnectOnlyWhileNoServiceMakesItsLastCheck) {
  auto first = connectClient();
  ASSERT_TRUE(first);
  pid_t pid = pidOf(first);
  std::future<std::shared_ptr<XpcConnection>> second;
  {
    XpcLockFile leaving(XpcServiceSocket::lockPathForSocket(socketPath()));
    ASSERT_TRUE(leaving.locked());
    second = std::async(std::launch::async, [&] { return connectClient(); });
    EXPECT_EQ(second.wait_for(kIdle), std::future_status::timeout);
  }
  auto connection = second.get();
  ASSERT_TRUE(connection);
  EXPECT_EQ(pidOf(connection), pid);
  first->invalidate();
  connection->invalidate();
}

TEST_F(ServiceProcess, BrokenStreamsCloseOnlyTheirOwnConnection) {
  auto good = connectClient();
  ASSERT_TRUE(good);
  pid_t pid = pidOf(good);
  ASSERT_GT(pid, 0);
  auto valid = XpcFrame::encode(XpcMessage::invocation("incrementWithReply:", {}, 1).encode());
  auto noSequence = Dictionary::withStringKeys(
      {{"selector", str("incrementWithReply:")}, {"arguments", Array::make()}});
  std::vector<std::vector<uint8_t>> streams = {
      {0, 0, 0, 5, 'h', 'e', 'l', 'l', 'o'},                 // not an archive
      {0x10, 0x00, 0x00, 0x01},                              // 256 MiB + 1
      {0xff, 0xff, 0xff, 0xff, 1, 2, 3},                     // 4 GiB - 1
      std::vector<uint8_t>(valid.begin(), valid.end() - 3),  // truncated
      // Archives of no known message shape.
      frameOf(Array::make({str("selector")})),
      frameOf(Dictionary::withStringKeys({{"hello", str("world")}})),
      frameOf(noSequence),
      frameOf(Dictionary::withStringKeys({{"replyTo", str("1")}})),
  };
  for (std::size_t i = 0; i < streams.size(); ++i) {
    UniqueFd raw = XpcServiceSocket::connectTo(socketPath());
    ASSERT_TRUE(raw);
    ASSERT_TRUE(writeAll(raw.get(), streams[i]));
    if (i == 3) ::shutdown(raw.get(), SHUT_WR);  // only a truncated frame waits for the end
    EXPECT_TRUE(peerClosesWithin(raw.get(), 5s)) << "stream " << i;
    EXPECT_EQ(increment(good), static_cast<int64_t>(i + 1));
  }
  EXPECT_EQ(sandbox.services(), std::vector<pid_t>{pid});
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
  pid_t pid = pidOf(own);
  ASSERT_GT(pid, 0);

  auto frame = XpcFrame::encode(XpcMessage::invocation("processIdWithReply:", {}, 1).encode());
  std::string outcome = qx::test::ChildProcess::runAs(65534, 65534, [&]() -> std::string {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      return "could not connect";
    writeAll(fd.get(), frame);
    char byte;
    ssize_t got = ::recv(fd.get(), &byte, 1, 0);
    if (got > 0) return "answered";
    return got == 0 || errno == ECONNRESET ? "closed" : "recv failed";
  });
  EXPECT_EQ(outcome, "closed");
  EXPECT_EQ(pidOf(own), pid);  // still serving its own user
  own->invalidate();
}

TEST_F(ServiceProcess, AClientWrittenFromTheProtocolDescriptionAloneIsServed) {
  auto own = connectClient();  // starts the service
  ASSERT_TRUE(own);
  ASSERT_GT(pidOf(own), 0);
  std::string command =
      "python3 " QX_SOURCE_DIR "/tests/platform/xpc/python_client.py " + socketPath();
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_TRUE(pipe);
  std::string output;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
  EXPECT_EQ(::pclose(pipe), 0);
  EXPECT_NE(output.find("reply 7 [2]\n"), std::string::npos) << output;
  EXPECT_NE(output.find("refused 8 "), std::string::npos) << output;
  EXPECT_NE(output.find("NSString"), std::string::npos) << output;
  own->invalidate();
}

TEST_F(ServiceProcess, TheSocketFolderIsPrivateAndOursAndAMissingServiceIsAnError) {
  std::string inner = sandbox.socketFolder() + "/inner";
  ::setenv("QXFILE_SOCKET_DIR", inner.c_str(), 1);
  EXPECT_EQ(XpcServiceSocket::socketPath().value_or(""), inner + "/service.sock");
  struct stat info;
  ASSERT_EQ(::lstat(inner.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u) << "created private";
  std::string error;
  ASSERT_EQ(::chmod(inner.c_str(), 0750), 0);
  EXPECT_FALSE(XpcServiceSocket::socketDirectory(&error));
  EXPECT_NE(error.find("open to other users"), std::string::npos);
  ASSERT_EQ(::chmod(inner.c_str(), 0700), 0);
  std::string link = sandbox.socketFolder() + "/link";
  fs::create_directory_symlink(inner, link);
  ::setenv("QXFILE_SOCKET_DIR", link.c_str(), 1);
  EXPECT_FALSE(XpcServiceSocket::socketDirectory(&error));
  EXPECT_NE(error.find("not a folder"), std::string::npos);
  ::setenv("QXFILE_SOCKET_DIR", inner.c_str(), 1);
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(inner.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(XpcServiceSocket::socketDirectory(&error));
    EXPECT_NE(error.find("belongs to another user"), std::string::npos);
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
  EXPECT_NE(error.find("Couldn't start the service"), std::string::npos);
  EXPECT_FALSE(fs::exists(socketPath()));
  ErrorPtr failure;
  EXPECT_FALSE(XpcConnection::connectToService(missing, &failure));
  EXPECT_TRUE(failure);
}

}  // namespace
}  // namespace qx::xpctest
