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
#include "platform/dispatch/SerialQueue.h"

namespace qx {
namespace {

using namespace std::chrono_literals;

std::string currentThreadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

bool eventuallyClaims(SerialQueue& queue) {
  for (int i = 0; i < 5000; ++i) {
    if (queue.tryClaim()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

TEST(OnceCallback, RunsOnceMovesCapturesAndReleasesThemAfterTheCall) {
  auto token = std::make_shared<int>(7);
  std::weak_ptr<int> watch = token;
  auto owned = std::make_unique<int>(5);  // move-only capture
  OnceCallback<int(int)> callback = [token = std::move(token), owned = std::move(owned)](int x) {
    return *token + *owned + x;
  };
  OnceCallback<int(int)> moved = std::move(callback);
  EXPECT_FALSE(callback);
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved(1), 13);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(watch.expired());
}

TEST(OnceCallback, DroppingWithoutCallingReleasesCaptures) {
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> watch = token;
  {
    OnceCallback<void()> callback = [token = std::move(token)] {};
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

TEST(SerialQueue, RunsTasksOneAtATimeInOrderOnANamedThread) {
  std::vector<int> order;
  std::atomic<int> running{0};
  bool overlapped = false;
  std::string threadName;
  Semaphore done;
  {
    SerialQueue queue("org.qxfile.FileService.OperationQueue");
    for (int i = 0; i < 200; ++i) {
      queue.async([&, i] {
        if (running.fetch_add(1) != 0) overlapped = true;
        if (i % 50 == 0) std::this_thread::sleep_for(1ms);
        order.push_back(i);
        if (i == 0) threadName = currentThreadName();
        running.fetch_sub(1);
      });
    }
    queue.async([&] { done.signal(); });
    done.wait();
  }
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(threadName, "org.qxfile.File");
}

TEST(SerialQueue, DestructionDrainsQueuedTasks) {
  std::atomic<int> ran{0};
  {
    SerialQueue queue("drain");
    for (int i = 0; i < 100; ++i)
      queue.async([&] {
        std::this_thread::sleep_for(50us);
        ran.fetch_add(1);
      });
  }
  EXPECT_EQ(ran.load(), 100);
}

TEST(SerialQueue, AQueueReleasedFromItsOwnTaskDrainsTheRestWithoutDeadlock) {
  auto queue = std::make_shared<SerialQueue>("self");
  std::weak_ptr<SerialQueue> watch = queue;
  SerialQueue* raw = queue.get();
  Semaphore gate;
  Semaphore done;
  std::atomic<bool> queueGoneBeforeLastTask{false};
  raw->async([&] { gate.wait(); });
  // The only reference moves into a task of the queue itself.
  raw->async([q = std::move(queue)]() mutable { q.reset(); });
  raw->async([&] {
    queueGoneBeforeLastTask = watch.expired();
    done.signal();
  });
  gate.signal();
  EXPECT_TRUE(done.waitFor(5s));
  EXPECT_TRUE(queueGoneBeforeLastTask);
}

TEST(SerialQueue, ABlockedQueueDoesNotBlockAnother) {
  SerialQueue blocked("blocked");
  SerialQueue free("free");
  Semaphore gate;
  Semaphore freeRan;
  blocked.async([&] { gate.wait(); });
  free.async([&] { freeRan.signal(); });
  EXPECT_TRUE(freeRan.waitFor(5s));
  gate.signal();
}

TEST(SerialQueue, IsCurrentOnlyOnItsThread) {
  SerialQueue queue("current");
  EXPECT_FALSE(queue.isCurrent());
  std::atomic<bool> inside{false};
  Semaphore done;
  queue.async([&] {
    inside = queue.isCurrent();
    done.signal();
  });
  done.wait();
  EXPECT_TRUE(inside);
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
  EXPECT_FALSE(queue.tryClaim());  // busy
  // Queued while the claim runs: they wait for it.
  Semaphore done;
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

  // Not idle while a task is queued or running.
  Semaphore gate;
  Semaphore started;
  queue.async([&] {
    started.signal();
    gate.wait();
  });
  started.wait();
  EXPECT_FALSE(queue.tryClaim());
  gate.signal();
  EXPECT_TRUE(eventuallyClaims(queue));
  queue.releaseClaim();
}

TEST(GlobalQueue, IsOneSharedPoolOfAtLeastFourThreadsRunningTasksConcurrently) {
  ConcurrentQueue& pool = globalQueue(Qos::Default);
  EXPECT_EQ(&pool, &globalQueue(Qos::Utility));
  std::size_t expected = std::max<std::size_t>(4, 2 * std::thread::hardware_concurrency());
  EXPECT_EQ(pool.threadCount(), expected);
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
}

TEST(ConcurrentQueue, DestructionRunsEveryQueuedTaskAndJoins) {
  std::atomic<int> ran{0};
  std::mutex mutex;
  std::set<std::thread::id> threads;
  {
    ConcurrentQueue pool("pool", 3);
    for (int i = 0; i < 300; ++i) {
      pool.async([&] {
        {
          std::lock_guard lock(mutex);
          threads.insert(std::this_thread::get_id());
        }
        std::this_thread::sleep_for(20us);
        ran.fetch_add(1);
      });
    }
  }
  EXPECT_EQ(ran.load(), 300);
  EXPECT_LE(threads.size(), 3u);
}

TEST(Semaphore, StartsAtZeroAndCountsSignals) {
  Semaphore semaphore;
  EXPECT_FALSE(semaphore.waitFor(1ms));
  semaphore.signal();
  semaphore.signal();
  EXPECT_TRUE(semaphore.waitFor(0ms));
  EXPECT_TRUE(semaphore.waitFor(0ms));
  EXPECT_FALSE(semaphore.waitFor(1ms));
}

TEST(Semaphore, WaiterOnAnotherThreadIsReleasedBySignal) {
  Semaphore semaphore;
  std::atomic<bool> released{false};
  std::thread waiter([&] {
    semaphore.wait();
    released = true;
  });
  std::this_thread::sleep_for(5ms);
  EXPECT_FALSE(released);
  semaphore.signal();
  waiter.join();
  EXPECT_TRUE(released);
}

}  // namespace
}  // namespace qx
