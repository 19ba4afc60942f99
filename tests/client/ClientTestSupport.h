#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "qxfile/QXFileClient.h"
#include "qxfile/QXFileClientSync.h"

namespace qxclienttest {

using namespace std::chrono_literals;

// A folder of its own under the temporary folder, removed with its contents.
class TempFolder {
 public:
  explicit TempFolder(const char* prefix = "qx-client") {
    std::string pattern =
        (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string makeFile(const std::string& path, std::size_t size = 0, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary) << std::string(size, 'x');
  ::chmod(path.c_str(), mode);
  return path;
}

inline std::string makeFolder(const std::string& path, mode_t mode = 0755) {
  ::mkdir(path.c_str(), 0700);
  ::chmod(path.c_str(), mode);
  return path;
}

// `count` files named f000, f001, ... of `size` bytes each in `folder`.
inline void fillFolder(const std::string& folder, int count, std::size_t size = 10) {
  char name[32];
  for (int i = 0; i < count; ++i) {
    std::snprintf(name, sizeof name, "/f%03d", i);
    makeFile(folder + name, size);
  }
}

inline mode_t modeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : static_cast<mode_t>(-1);
}

inline qx::UrlPtr urlOf(const std::string& path) {
  return qx::Url::fileURLWithPath(path);
}

inline qx::ArrayPtr urlsOf(const std::vector<std::string>& paths) {
  std::vector<qx::ObjectPtr> urls;
  for (const auto& path : paths) urls.push_back(urlOf(path));
  return qx::Array::make(std::move(urls));
}

inline qx::ArrayPtr stringsOf(const std::vector<std::string>& texts) {
  std::vector<qx::ObjectPtr> strings;
  for (const auto& text : texts) strings.push_back(qx::str(text));
  return qx::Array::make(std::move(strings));
}

// Polls `condition` until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = 10s) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

// True while `pid` runs (a zombie waiting for its reaper has ended).
inline bool processRuns(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

// The qxfile-service processes started for the socket folder `sockets`.
inline std::vector<pid_t> servicesFor(const std::string& sockets) {
  std::vector<pid_t> pids;
  const std::string marker = "QXFILE_SOCKET_DIR=" + sockets;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    pid_t pid = static_cast<pid_t>(std::stol(name));
    if (std::filesystem::read_symlink(entry.path() / "exe", ignored) != QX_SERVICE_EXECUTABLE)
      continue;
    std::ifstream environ(entry.path() / "environ", std::ios::binary);
    std::string variable;
    while (std::getline(environ, variable, '\0')) {
      if (variable == marker && processRuns(pid)) pids.push_back(pid);
    }
  }
  return pids;
}

// The names of the threads of process `pid`.
inline std::vector<std::string> threadNames(pid_t pid) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    if (std::getline(comm, name)) names.push_back(name);
  }
  return names;
}

// Remembers the answers of asynchronous requests in the order they arrive.
class ReplyLog {
 public:
  void add(std::string what) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(what));
  }
  std::vector<std::string> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }
  bool has(const std::string& what) const {
    std::lock_guard lock(mutex_);
    return std::find(entries_.begin(), entries_.end(), what) != entries_.end();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// Each test gets a service of its own: a private socket folder, in which the
// first client starts the qxfile-service built beside the library. The
// service stops soon after its last client leaves, and the test checks that
// it did.
class PrivateService : public ::testing::Test {
 protected:
  void SetUp() override {
    sockets_ = std::make_unique<TempFolder>("qx-sockets");
    ASSERT_FALSE(sockets_->path().empty());
    ::setenv("QXFILE_SOCKET_DIR", sockets_->path().c_str(), 1);
    ::setenv("QXFILE_IDLE_EXIT_MS", "300", 1);
    ::unsetenv("QXFILE_SERVICE_PATH");
  }

  void TearDown() override {
    clients_.clear();
    EXPECT_TRUE(eventually([&] { return servicesFor(sockets_->path()).empty(); }, 15s))
        << "the service kept running without clients";
  }

  // The services running for this test: one once a client has connected.
  std::vector<pid_t> services() const { return servicesFor(sockets_->path()); }

  // A connected client (the first one starts the service); the test fails when it cannot connect.
  QXFileClient& connectClient() {
    auto client = std::make_unique<QXFileClient>();
    qx::ErrorPtr error;
    bool connected = client->connect(&error);
    EXPECT_TRUE(connected) << (error ? error->description() : "");
    EXPECT_EQ(services().size(), 1u) << "every client of a test meets one service";
    clients_.push_back(std::move(client));
    return *clients_.back();
  }

  TempFolder files_;

 private:
  std::unique_ptr<TempFolder> sockets_;
  std::vector<std::unique_ptr<QXFileClient>> clients_;
};

}  // namespace qxclienttest
