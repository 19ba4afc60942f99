#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "platform/dispatch/Semaphore.h"
#include "rename/QXFileRename.h"
#include "tests/rename/RenameTestSupport.h"

namespace qx::renametest {
namespace {

using namespace std::chrono_literals;

using RenameDisconnect = RenameTest;

// A question with no answer must release the worker as a stop: the batch ends
// after the renames done so far, with no error.
void expectStoppedAtFirstQuestion(const DictionaryPtr& result, const ErrorPtr& error) {
  EXPECT_FALSE(error);
  ASSERT_TRUE(result);
  EXPECT_EQ(stringsOf(result->objectForKey("names")).size(), 31u);
  EXPECT_EQ(pathsOf(result->objectForKey("urls")).size(), 31u);
}

TEST_F(RenameDisconnect, ClientClosingDuringAQuestionStopsTheBatch) {
  std::weak_ptr<XpcConnection> clientSide;
  connect([&](int, OnceCallback<void(bool)> reply) {
    if (auto connection = clientSide.lock()) connection->invalidate();
    // The reply block goes unanswered with the connection.
    OnceCallback<void(bool)> dropped = std::move(reply);
  });
  clientSide = client;
  ErrorPtr error;
  DictionaryPtr result = renameUrls(makeItems(62), strings(numbered(62, "new-")), &error);
  expectStoppedAtFirstQuestion(result, error);
  EXPECT_EQ(countExisting(62, "new-"), 31);
  EXPECT_EQ(countExisting(62, "old-"), 31);
}

TEST_F(RenameDisconnect, WorkerConnectionInvalidatedWhileTheClientHoldsTheQuestion) {
  Semaphore asked;
  OnceCallback<void(bool)> held;
  connect([&](int, OnceCallback<void(bool)> reply) {
    held = std::move(reply);
    asked.signal();
  });
  ArrayPtr urls = makeItems(62);
  ArrayPtr names = strings(numbered(62, "new-"));
  DictionaryPtr result;
  ErrorPtr error;
  Semaphore finished;
  std::thread batch([&] {
    result = renameUrls(urls, names, &error);
    finished.signal();
  });
  ASSERT_TRUE(asked.waitFor(10s));
  EXPECT_FALSE(finished.waitFor(100ms)) << "the worker must wait for the answer";
  worker->invalidate();
  bool released = finished.waitFor(10s);
  if (!released) client->invalidate();
  batch.join();
  ASSERT_TRUE(released);
  expectStoppedAtFirstQuestion(result, error);
  EXPECT_EQ(countExisting(62, "old-"), 31);
}

TEST_F(RenameDisconnect, NoConnectionCountsAsNoAnswer) {
  ErrorPtr error;
  DictionaryPtr result =
      QXFileRename::renameUrls(makeItems(40), strings(numbered(40, "new-")), nullptr, &error);
  expectStoppedAtFirstQuestion(result, error);
  EXPECT_EQ(countExisting(40, "old-"), 9);
}

TEST_F(RenameDisconnect, AConnectionAlreadyClosedStopsAtTheFirstQuestion) {
  client->invalidate();
  ErrorPtr error;
  DictionaryPtr result = renameUrls(makeItems(40), strings(numbered(40, "new-")), &error);
  expectStoppedAtFirstQuestion(result, error);
  EXPECT_EQ(responder->questions(), 0);
}

}  // namespace
}  // namespace qx::renametest
