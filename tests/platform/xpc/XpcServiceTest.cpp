#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "platform/archive/KeyedArchiver.h"
#include "platform/xpc/XpcFrame.h"
#include "platform/xpc/XpcMessage.h"
#include "platform/xpc/XpcReplyWaiter.h"
#include "platform/xpc/XpcServiceSocket.h"
#include "tests/platform/xpc/XpcTestSupport.h"

extern char** environ;

namespace qx::xpctest {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kService = QX_XPC_TEST_SERVICE;
constexpr auto kIdle = 400ms;

// True once process `pid` has ended. The test process is a child subreaper,
// so a detached service ends up as its child and is reaped here.
bool hasExited(pid_t pid) {
  int status;
  pid_t got = ::waitpid(pid, &status, WNOHANG);
  if (got == pid) return true;
  if (got < 0 && errno == ECHILD) return ::kill(pid, 0) != 0 && errno == ESRCH;
  return false;
}

// Each test gets its own socket folder and a short idle time; the services it
// starts are detached processes.
class ServiceProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    registerFoundationClasses();
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    char pattern[] = "/tmp/qx-xpc-XXXXXX";
    ASSERT_TRUE(::mkdtemp(pattern));
    folder = pattern;
    ::setenv("QXFILE_SOCKET_DIR", folder.c_str(), 1);
    ::setenv("QXFILE_IDLE_EXIT_MS", std::to_string(kIdle.count()).c_str(), 1);
  }

  void TearDown() override {
    for (pid_t pid : services) {
      if (!eventually([&] { return hasExited(pid); }, 10s)) {
        ADD_FAILURE() << "service " << pid << " still runs";
        ::kill(pid, SIGKILL);
      }
    }
    ::unsetenv("QXFILE_SOCKET_DIR");
    ::unsetenv("QXFILE_IDLE_EXIT_MS");
    fs::remove_all(folder);
  }

  std::shared_ptr<XpcConnection> connectClient(
      std::shared_ptr<TestClient> responder = std::make_shared<TestClient>()) {
    ErrorPtr error;
    auto connection = XpcConnection::connectToService(kService, &error);
    EXPECT_TRUE(connection) << (error ? error->localizedDescription() : "");
    if (!connection) return nullptr;
    configureClientConnection(connection, std::move(responder));
    connection->resume();
    return connection;
  }

  static std::shared_ptr<TestRequest> proxyOf(const std::shared_ptr<XpcConnection>& connection) {
    return connection->remoteObjectProxy<TestRequest>();
  }

  static int64_t ask(const std::shared_ptr<TestRequest>& proxy,
                     void (TestRequest::*method)(OnceCallback<void(NumberPtr)>)) {
    auto reply = XpcReplyWaiter<NumberPtr>::wait(
        [&](OnceCallback<void(NumberPtr)> done) { ((*proxy).*method)(std::move(done)); });
    return reply && *reply ? (*reply)->integerValue() : -1;
  }

  pid_t servicePid(const std::shared_ptr<XpcConnection>& connection) {
    auto pid = static_cast<pid_t>(ask(proxyOf(connection), &TestRequest::processIdWithReply));
    if (pid > 0) services.insert(pid);
    return pid;
  }

  std::string socketPath() const { return folder + "/service.sock"; }

  std::string folder;
  std::set<pid_t> services;
};

TEST_F(ServiceProcess, StartsOnDemandGivesEachClientItsOwnObjectAndExitsWhenIdle) {
  auto first = connectClient();
  auto second = connectClient();
  ASSERT_TRUE(first && second);
  pid_t pid = servicePid(first);
  ASSERT_GT(pid, 0);
  EXPECT_NE(pid, ::getpid());
  EXPECT_EQ(servicePid(second), pid);

  auto a = proxyOf(first);
  auto b = proxyOf(second);
  EXPECT_EQ(ask(a, &TestRequest::incrementWithReply), 1);
  EXPECT_EQ(ask(a, &TestRequest::incrementWithReply), 2);
  EXPECT_EQ(ask(b, &TestRequest::incrementWithReply), 1);
  EXPECT_EQ(ask(a, &TestRequest::incrementWithReply), 3);

  // Open connections keep the service up past its idle time.
  first->invalidate();
  std::this_thread::sleep_for(kIdle * 2);
  EXPECT_FALSE(hasExited(pid));
  EXPECT_EQ(ask(b, &TestRequest::incrementWithReply), 2);

  auto closed = std::chrono::steady_clock::now();
  second->invalidate();
  ASSERT_TRUE(eventually([&] { return hasExited(pid); }, 10s));
  EXPECT_GE(std::chrono::steady_clock::now() - closed, kIdle - 50ms);

  // The next client starts a new service on the stale socket.
  auto third = connectClient();
  ASSERT_TRUE(third);
  pid_t next = servicePid(third);
  EXPECT_GT(next, 0);
  EXPECT_NE(next, pid);
  third->invalidate();
}

TEST_F(ServiceProcess, StartedWithoutASocketItBindsThePerUserSocketItself) {
  char* argv[] = {const_cast<char*>(kService), nullptr};
  pid_t pid;
  ASSERT_EQ(::posix_spawn(&pid, kService, nullptr, nullptr, argv, environ), 0);
  services.insert(pid);
  UniqueFd socket;
  ASSERT_TRUE(
      eventually([&] { return (socket = XpcServiceSocket::connectTo(socketPath())).valid(); }));
  auto connection = XpcConnection::withSocket(std::move(socket));
  configureClientConnection(connection, nullptr);
  connection->resume();
  EXPECT_EQ(servicePid(connection), pid);
  // A second one finds the socket taken and leaves at once.
  pid_t second;
  ASSERT_EQ(::posix_spawn(&second, kService, nullptr, nullptr, argv, environ), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(second, &status, 0), second);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  EXPECT_EQ(servicePid(connection), pid);
  connection->invalidate();
}

TEST_F(ServiceProcess, EightClientsStartedAtOnceShareOneService) {
  constexpr int kClients = 8;
  std::vector<pid_t> clients;
  std::vector<UniqueFd> outputs;
  for (int i = 0; i < kClients; ++i) {
    int pipeFds[2];
    ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
    char* argv[] = {const_cast<char*>(kService), const_cast<char*>("--client"), nullptr};
    pid_t pid;
    ASSERT_EQ(::posix_spawn(&pid, kService, &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    clients.push_back(pid);
    outputs.emplace_back(pipeFds[0]);
  }
  std::set<std::string> answers;
  for (int i = 0; i < kClients; ++i) {
    std::string text;
    char buffer[64];
    ssize_t got;
    while ((got = ::read(outputs[i].get(), buffer, sizeof buffer)) > 0) text.append(buffer, got);
    int status = 0;
    ASSERT_EQ(::waitpid(clients[i], &status, 0), clients[i]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "client " << i;
    answers.insert(text);
  }
  ASSERT_EQ(answers.size(), 1u);
  pid_t pid = std::atoi(answers.begin()->c_str());
  ASSERT_GT(pid, 0);
  services.insert(pid);
  EXPECT_TRUE(eventually([&] { return hasExited(pid); }, 10s));
}

TEST_F(ServiceProcess, BrokenStreamsCloseOnlyTheirOwnConnection) {
  auto good = connectClient();
  ASSERT_TRUE(good);
  pid_t pid = servicePid(good);
  ASSERT_GT(pid, 0);
  auto proxy = proxyOf(good);

  auto valid = XpcFrame::encode(XpcMessage::invocation("incrementWithReply:", {}, 1).encode());
  std::vector<std::vector<uint8_t>> streams = {
      {0, 0, 0, 5, 'h', 'e', 'l', 'l', 'o'},                 // not an archive
      {0x10, 0x00, 0x00, 0x01},                              // 256 MiB + 1
      {0xff, 0xff, 0xff, 0xff, 1, 2, 3},                     // 4 GiB - 1
      std::vector<uint8_t>(valid.begin(), valid.end() - 3),  // truncated
  };
  int64_t expected = 0;
  for (const auto& bytes : streams) {
    UniqueFd raw = XpcServiceSocket::connectTo(socketPath());
    ASSERT_TRUE(raw);
    ASSERT_TRUE(writeAll(raw.get(), bytes));
    ::shutdown(raw.get(), SHUT_WR);
    EXPECT_TRUE(peerClosesWithin(raw.get(), 5s));
    EXPECT_EQ(ask(proxy, &TestRequest::incrementWithReply), ++expected);
  }
  EXPECT_FALSE(hasExited(pid));
  good->invalidate();
}

TEST_F(ServiceProcess, AWorkerWaitingForADepartedClientIsReleased) {
  auto responder = std::make_shared<TestClient>(true, /*hold=*/true);
  auto client = connectClient(responder);
  ASSERT_TRUE(client);
  pid_t pid = servicePid(client);
  std::string marker = folder + "/released";
  proxyOf(client)->askClient(Number::numberWithInteger(3), str(marker), [](ArrayPtr) {});
  ASSERT_TRUE(eventually([&] { return responder->questionCount() == 1; }));
  client->invalidate();
  ASSERT_TRUE(eventually([&] { return fs::exists(marker) && fs::file_size(marker) > 0; }));
  std::ifstream in(marker);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "no answer");
  // Nothing is left waiting: the service goes idle and exits.
  EXPECT_TRUE(eventually([&] { return hasExited(pid); }, 10s));
}

TEST_F(ServiceProcess, PeersOfAnotherUserAreClosedAtOnce) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a peer under another uid";
  // A socket that another user may reach, handed to the service the way
  // socket activation does.
  std::string open = folder + "/open";
  ASSERT_EQ(::mkdir(open.c_str(), 0755), 0);
  ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
  std::string path = open + "/service.sock";
  std::string why;
  UniqueFd listening = XpcServiceSocket::bindListening(path, &why);
  ASSERT_TRUE(listening) << why;
  ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
  ASSERT_TRUE(XpcServiceSocket::spawnService(kService, listening.get(), &why)) << why;
  listening.reset();

  // Our own uid is served.
  auto own = XpcConnection::withSocket(XpcServiceSocket::connectTo(path));
  configureClientConnection(own, nullptr);
  own->resume();
  pid_t pid = servicePid(own);
  ASSERT_GT(pid, 0);

  // Everything the child needs is made before fork.
  auto frame = XpcFrame::encode(XpcMessage::invocation("processIdWithReply:", {}, 1).encode());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(3);
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      ::_exit(2);
    [[maybe_unused]] auto sent = ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    char byte;
    ssize_t got = ::recv(fd, &byte, 1, 0);
    ::_exit(got <= 0 ? 0 : 1);  // closed without a word, or answered
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: the other user was answered; 2: could not connect";
  EXPECT_EQ(servicePid(own), pid);  // still serving its own user
  own->invalidate();
}

TEST_F(ServiceProcess, AClientWrittenFromTheProtocolDescriptionAloneIsServed) {
  auto own = connectClient();
  ASSERT_TRUE(own);
  ASSERT_GT(servicePid(own), 0);
  std::string command = std::string("python3 ") + QX_SOURCE_DIR +
                        "/tests/platform/xpc/python_client.py " + socketPath();
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

// The socket folder and the start-up paths, without a service.
class SocketFolder : public ServiceProcess {};

TEST_F(SocketFolder, IsCreatedPrivateAndRefusedWhenOthersCanEnterOrItIsNotOurs) {
  std::string inner = folder + "/inner";
  ::setenv("QXFILE_SOCKET_DIR", inner.c_str(), 1);
  auto made = XpcServiceSocket::socketPath();
  ASSERT_TRUE(made);
  EXPECT_EQ(*made, inner + "/service.sock");
  struct stat info;
  ASSERT_EQ(::lstat(inner.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);

  std::string error;
  ASSERT_EQ(::chmod(inner.c_str(), 0750), 0);
  EXPECT_FALSE(XpcServiceSocket::socketDirectory(&error));
  EXPECT_NE(error.find("open to other users"), std::string::npos);
  ASSERT_EQ(::chmod(inner.c_str(), 0700), 0);

  std::string link = folder + "/link";
  fs::create_directory_symlink(inner, link);
  ::setenv("QXFILE_SOCKET_DIR", link.c_str(), 1);
  EXPECT_FALSE(XpcServiceSocket::socketDirectory(&error));
  EXPECT_NE(error.find("not a folder"), std::string::npos);

  if (::geteuid() == 0) {
    ::setenv("QXFILE_SOCKET_DIR", inner.c_str(), 1);
    ASSERT_EQ(::chown(inner.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(XpcServiceSocket::socketDirectory(&error));
    EXPECT_NE(error.find("belongs to another user"), std::string::npos);
  }
}

TEST_F(SocketFolder, FollowsTheRuntimeFolderWhenNoFolderIsGiven) {
  ::unsetenv("QXFILE_SOCKET_DIR");
  const char* saved = std::getenv("XDG_RUNTIME_DIR");
  std::string previous = saved ? saved : "";
  ::setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
  auto path = XpcServiceSocket::socketPath();
  ASSERT_TRUE(path);
  EXPECT_EQ(*path, folder + "/qxfile/service.sock");
  ::unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(XpcServiceSocket::socketDirectory().value_or(""),
            "/tmp/qxfile-" + std::to_string(::geteuid()));
  if (saved) ::setenv("XDG_RUNTIME_DIR", previous.c_str(), 1);
}

TEST_F(SocketFolder, AMissingServiceExecutableIsAnErrorAndLeavesNoSocket) {
  std::string error;
  UniqueFd fd = XpcServiceSocket::connectStartingService(folder + "/no-such-service", &error);
  EXPECT_FALSE(fd);
  EXPECT_NE(error.find("Couldn't start the service"), std::string::npos);
  EXPECT_FALSE(fs::exists(socketPath()));
  ErrorPtr failure;
  EXPECT_FALSE(XpcConnection::connectToService(folder + "/no-such-service", &failure));
  ASSERT_TRUE(failure);
}

}  // namespace
}  // namespace qx::xpctest
