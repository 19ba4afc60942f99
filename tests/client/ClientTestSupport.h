#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "qxfile/QXFileClient.h"
#include "qxfile/QXFileClientSync.h"
#include "tests/support/Eventually.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

namespace qxclienttest {

using namespace std::chrono_literals;
using qx::test::eventually;

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

inline mode_t modeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : mode_t(-1);
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
  std::size_t count() const { return entries().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// Each test has a service of its own, started on demand in a private socket
// folder and gone soon after its last client: the test checks that it went.
class PrivateService : public ::testing::Test {
 protected:
  void TearDown() override {
    clients_.clear();
    EXPECT_TRUE(sandbox_.allGoneWithin(15s)) << "the service kept running without clients";
  }

  std::vector<pid_t> services() const { return sandbox_.services(); }

  // A connected client (the first one starts the service).
  QXFileClient& connectClient() {
    auto client = std::make_unique<QXFileClient>();
    qx::ErrorPtr error;
    EXPECT_TRUE(client->connect(&error)) << (error ? error->description() : "");
    EXPECT_EQ(services().size(), 1u) << "every client of a test meets one service";
    clients_.push_back(std::move(client));
    return *clients_.back();
  }

  // `count` files "<prefix>NNN" of `bytes` bytes in the folder `relative`, made first.
  std::vector<std::string> files(const std::string& relative, int count, std::size_t bytes = 10,
                                 const std::string& prefix = "f") const {
    std::filesystem::create_directories(tree_.path(relative));
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
      char name[64];
      std::snprintf(name, sizeof name, "%s/%s%03d", relative.c_str(), prefix.c_str(), i);
      tree_.file(name, std::string(bytes, 'x'));
      paths.push_back(tree_.path(name));
    }
    return paths;
  }

  qx::test::ServiceSandbox sandbox_{QX_SERVICE_EXECUTABLE};
  qx::test::TempTree tree_{"qx-client"};

 private:
  std::vector<std::unique_ptr<QXFileClient>> clients_;
};

}  // namespace qxclienttest
