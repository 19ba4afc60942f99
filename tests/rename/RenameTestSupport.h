#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch/OnceCallback.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "service/QXFileResponse.h"

namespace qx::renametest {

// What the client does with question `number` (1 for the first).
using Behaviour = std::function<void(int number, OnceCallback<void(bool)> reply)>;

// Answers each question as its behaviour says and counts the questions.
class ProgressClient final : public QXFileResponse {
 public:
  explicit ProgressClient(Behaviour behaviour) : behaviour_(std::move(behaviour)) {}
  void progressWithReply(OnceCallback<void(bool)> reply) override {
    behaviour_(++questions_, std::move(reply));
  }
  // Never sent by a rename.
  void updateFileSizes(ArrayPtr, OnceCallback<void(bool)> reply) override {
    ++unexpected_;
    reply(false);
  }
  int questions() const { return questions_.load(); }
  int unexpectedCalls() const { return unexpected_.load(); }

 private:
  Behaviour behaviour_;
  std::atomic<int> questions_{0};
  std::atomic<int> unexpected_{0};
};

// Answers[i] to question i + 1, NO once they run out.
Behaviour answering(std::vector<bool> answers);

// While set to an errno, renameat2 fails with it without doing anything, as on
// a file system that does not support RENAME_NOREPLACE.
extern std::atomic<int> renameat2FailsWith;

// A temporary folder of items, a worker-side connection and a client joined
// to it by a socketpair.
class RenameTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Joins a fresh client with `behaviour` (the default answers NO).
  void connect(Behaviour behaviour = answering({}));
  DictionaryPtr renameUrls(const ArrayPtr& urls, const ArrayPtr& names, ErrorPtr* error);

  std::string pathOf(const std::string& name) const { return dir + "/" + name; }
  UrlPtr urlOf(const std::string& name) const { return Url::fileURLWithPath(pathOf(name)); }
  // A file holding its own name as content.
  void makeFile(const std::string& name) const;
  // The content of a file, or "<missing>".
  std::string contentOf(const std::string& name) const;
  bool exists(const std::string& name) const;
  // Files "<prefix>NNN" for 0 <= NNN < count, and their URLs.
  ArrayPtr makeItems(int count, const std::string& prefix = "old-") const;
  // "<prefix>NNN" for 0 <= NNN < count.
  static std::vector<std::string> numbered(int count, const std::string& prefix);
  static ArrayPtr strings(const std::vector<std::string>& values);
  // How many of "<prefix>NNN", 0 <= NNN < count, exist.
  int countExisting(int count, const std::string& prefix) const;

  std::string dir;
  std::shared_ptr<XpcConnection> worker;  // the connection the worker asks through
  std::shared_ptr<XpcConnection> client;
  std::shared_ptr<ProgressClient> responder;
};

// The strings of an array (an element that is not a string gives "<?>").
std::vector<std::string> stringsOf(const ObjectPtr& array);
// The paths of an array of URLs.
std::vector<std::string> pathsOf(const ObjectPtr& array);

}  // namespace qx::renametest
