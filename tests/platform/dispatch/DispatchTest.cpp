// Serial queues, the global pool and once-only callbacks. (Semaphores: every waiting test.)
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/dispatch/ConcurrentQueue.h"
#include "platform/dispatch/OnceCallback.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/dispatch/SequenceChecker.h"
#include "platform/dispatch/SerialQueue.h"

namespace qx {
namespace {

using namespace std::chrono_literals;

TEST(OnceCallback, RunsOnceMovesCapturesAndReleasesThemCalledOrNot) {
  auto token = std::make_shared<int>(7);
  std::weak_ptr<int> watch = token;
  OnceCallback<int(int)> callback = [token = std::move(token), owned = std::make_unique<int>(5)](
                                        int x) { return *token + *owned + x; };
  OnceCallback<int(int)> moved = std::move(callback);
  EXPECT_FALSE(callback);
  EXPECT_EQ(moved(1), 13);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(watch.expired());

  token = std::make_shared<int>(1);
  watch = token;
  {
    OnceCallback<void()> dropped = [token = std::move(token)] {};
  }
  EXPECT_TRUE(watch.expired());
}

#ifndef NDEBUG
TEST(OnceCallbackDeathTest, SecondCallAsserts) {
  OnceCallback<void()> callback = [] {};
  callback();
  EXPECT_DEATH(callback(), "called twice");
}
#endif

TEST(SerialQueue, RunsEveryTaskOneAtATimeInOrderOnANamedThreadAndDrainsOnDestruction) {
  std::vector<int> order;
  std::atomic<int> running{0};
  bool overlapped = false, current = false;
  char name[32] = {};
  {
    SerialQueue queue("org.qxfile.FileService.OperationQueue");
    EXPECT_FALSE(queue.isCurrent());
    for (int i = 0; i < 200; ++i) {
      queue.async([&, i] {
        if (running.fetch_add(1) != 0) overlapped = true;
        if (i % 50 == 0) std::this_thread::sleep_for(1ms);
        if (i == 0) pthread_getname_np(pthread_self(), name, sizeof name);
        if (i == 0) current = queue.isCurrent();
        order.push_back(i);
        running.fetch_sub(1);
      });
    }
  }
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(std::tuple(overlapped, current, std::string(name)),
            std::tuple(false, true, "org.qxfile.File"));
}

TEST(SerialQueue, ABlockedQueueBlocksNoOtherAndOneReleasedFromItsOwnTaskDrains) {
  auto queue = std::make_shared<SerialQueue>("self");
  std::weak_ptr<SerialQueue> watch = queue;
  SerialQueue* raw = queue.get();
  SerialQueue other("other");
  Semaphore gate, otherRan, done;
  std::atomic<bool> goneBeforeLastTask{false};
  raw->async([&] { gate.wait(); });
  other.async([&] { otherRan.signal(); });
  EXPECT_TRUE(otherRan.waitFor(5s));
  // The only reference moves into a task of the queue itself.
  raw->async([q = std::move(queue)]() mutable { q.reset(); });
  raw->async([&] {
    goneBeforeLastTask = watch.expired();
    done.signal();
  });
  gate.signal();
  EXPECT_TRUE(done.waitFor(5s));
  EXPECT_TRUE(goneBeforeLastTask);
}

TEST(SerialQueue, AClaimRunsOneTaskOnTheCallerAndKeepsTheOrder) {
  SerialQueue queue("claim");
  std::vector<int> order;
  std::mutex mutex;
  auto record = [&](int i) {
    std::lock_guard lock(mutex);
    order.push_back(i);
  };
  ASSERT_TRUE(queue.tryClaim());
  EXPECT_TRUE(queue.isCurrent());
  EXPECT_FALSE(queue.tryClaim());
  // Queued while the claim runs: they wait for it.
  Semaphore done, gate, started;
  queue.async([&] { record(2); });
  queue.async([&] {
    record(3);
    done.signal();
  });
  std::this_thread::sleep_for(10ms);
  record(1);
  queue.releaseClaim();
  EXPECT_FALSE(queue.isCurrent());
  ASSERT_TRUE(done.waitFor(5s));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  // Not idle while a task runs.
  queue.async([&] {
    started.signal();
    gate.wait();
  });
  started.wait();
  EXPECT_FALSE(queue.tryClaim());
  gate.signal();
  bool claimed = false;
  for (int i = 0; i < 5000 && !claimed; ++i, std::this_thread::sleep_for(1ms)) {
    claimed = queue.tryClaim();
  }
  ASSERT_TRUE(claimed);
  queue.releaseClaim();
}

// A checker binds to the queue of its first check, whichever thread runs
// that queue's task (its own or a claiming one); any other queue or a plain
// thread is off its sequence.
TEST(SequenceChecker, HoldsOnTheQueueOfItsFirstCheckAndNowhereElse) {
  SequenceChecker checker;
  SerialQueue owner("qx.test.owner");
  SerialQueue other("qx.test.other");
  auto on = [](SerialQueue& queue, const SequenceChecker& checker) {
    bool valid = false;
    Semaphore done;
    queue.async([&] {
      valid = checker.calledOnValidSequence();
      done.signal();
    });
    done.wait();
    return valid;
  };
  EXPECT_TRUE(on(owner, checker));
  EXPECT_TRUE(on(owner, checker));
  EXPECT_FALSE(on(other, checker));
  EXPECT_FALSE(checker.calledOnValidSequence()) << "a plain thread";
  while (!owner.tryClaim()) std::this_thread::yield();  // its last task may be ending
  EXPECT_TRUE(checker.calledOnValidSequence()) << "this thread runs the owner's task";
  owner.releaseClaim();
  EXPECT_FALSE(checker.calledOnValidSequence());
  checker.detach();
  EXPECT_TRUE(checker.calledOnValidSequence()) << "bound anew, to this thread";
  EXPECT_FALSE(on(owner, checker));
}

TEST(ConcurrentQueue, TheGlobalPoolRunsTasksAtOnceAndAPoolDrainsOnDestruction) {
  ConcurrentQueue& pool = globalQueue(Qos::Default);
  EXPECT_EQ(&pool, &globalQueue(Qos::Utility));
  // Four tasks that each wait for all four to have started: only a pool that
  // runs them at the same time lets them finish.
  std::atomic<int> started{0};
  Semaphore done;
  for (int i = 0; i < 4; ++i) {
    pool.async([&] {
      started.fetch_add(1);
      auto deadline = std::chrono::steady_clock::now() + 5s;
      while (started.load() < 4 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(100us);
      }
      done.signal();
    });
  }
  for (int i = 0; i < 4; ++i) done.wait();
  EXPECT_EQ(started.load(), 4);

  std::atomic<int> ran{0};
  std::mutex mutex;
  std::set<std::thread::id> threads;
  {
    ConcurrentQueue own("pool", 3);
    for (int i = 0; i < 300; ++i) {
      own.async([&] {
        std::this_thread::sleep_for(20us);
        std::lock_guard lock(mutex);
        threads.insert(std::this_thread::get_id());
        ran.fetch_add(1);
      });
    }
  }
  EXPECT_EQ(ran.load(), 300);
  EXPECT_LE(threads.size(), 3u);
}

}  // namespace
}  // namespace qx
