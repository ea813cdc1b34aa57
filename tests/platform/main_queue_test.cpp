#include "tavo/ZMMainQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "tavo/ZMException.h"

// The test program's main() runs on the thread that loaded libtavo, which is the main thread.

namespace {

// Removes the wake-up hook and drains leftovers even when a test fails half-way.
struct QueueReset {
  ~QueueReset() {
    ZMMainQueue::setWakeupHook(nullptr);
    while (ZMMainQueue::poll() > 0) {
    }
  }
};

}  // namespace

TEST(ZMMainQueue, SyncFromBackgroundWaitsForTheMainThread) {
  QueueReset reset;
  ASSERT_TRUE(ZMMainQueue::isMainThread());
  std::promise<void> posted;
  ZMMainQueue::setWakeupHook([&posted] { posted.set_value(); });

  std::atomic<bool> returned{false};
  std::thread::id ranOn;
  int value = 0;
  int seenAfterSync = -1;
  std::thread worker([&] {
    ZMMainQueue::sync([&] {
      ranOn = std::this_thread::get_id();
      value = 42;
    });
    seenAfterSync = value;
    returned = true;
  });
  posted.get_future().wait();
  ZMMainQueue::setWakeupHook(nullptr);
  // The block is queued and nobody has drained it, so sync cannot have returned.
  EXPECT_FALSE(returned.load());

  ASSERT_TRUE(RunUntil([&] { return returned.load(); }));
  worker.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(seenAfterSync, 42);
}

TEST(ZMMainQueue, SyncOnTheMainThreadRunsInline) {
  QueueReset reset;
  std::vector<std::string> order;
  ZMMainQueue::post([&] { order.push_back("posted"); });
  ZMMainQueue::sync([&] { order.push_back("sync"); });
  EXPECT_EQ(order, std::vector<std::string>{"sync"});  // ahead of what was already queued
  EXPECT_EQ(ZMMainQueue::poll(), 1u);
  EXPECT_EQ(order, (std::vector<std::string>{"sync", "posted"}));

  EXPECT_THROW(ZMMainQueue::sync([] { throw std::runtime_error("inline"); }), std::runtime_error);
}

TEST(ZMMainQueue, SyncRethrowsTheBlocksExceptionToTheWaitingThread) {
  QueueReset reset;
  std::atomic<bool> done{false};
  std::string raised, runtimeMessage;
  std::thread worker([&] {
    raised = Raised([] {  // the type survives the trip
      ZMMainQueue::sync([] { throw ZMException(kZMInvalidArgumentException, "bad name"); });
    });
    try {
      ZMMainQueue::sync([] { throw std::runtime_error("boom"); });
    } catch (const std::runtime_error& e) {
      runtimeMessage = e.what();
    }
    done = true;
  });
  ASSERT_TRUE(RunUntil([&] { return done.load(); }));
  worker.join();
  EXPECT_EQ(raised, "NSInvalidArgumentException: bad name");
  EXPECT_EQ(runtimeMessage, "boom");

  int after = 0;  // the queue still works after a throwing block
  ZMMainQueue::post([&] { after = 1; });
  EXPECT_TRUE(RunUntil([&] { return after == 1; }));
}

TEST(ZMMainQueue, PostedBlocksRunInOrderAndPollRunsOnlyWhatWasQueued) {
  QueueReset reset;
  constexpr int kCount = 1000;
  std::vector<int> seen;
  std::thread producer([&] {
    for (int i = 0; i < kCount; ++i) ZMMainQueue::post([&seen, i] { seen.push_back(i); });
  });
  ASSERT_TRUE(RunUntil([&] { return static_cast<int>(seen.size()) == kCount; }));
  producer.join();
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(seen[static_cast<std::size_t>(i)], i);

  std::vector<std::string> order;
  ZMMainQueue::post([&] {
    order.push_back("a");
    ZMMainQueue::post([&] { order.push_back("posted by a"); });
  });
  ZMMainQueue::post([&] { order.push_back("b"); });
  EXPECT_EQ(ZMMainQueue::poll(), 2u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(ZMMainQueue::poll(), 1u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "posted by a"}));
  EXPECT_EQ(ZMMainQueue::poll(), 0u);
  EXPECT_FALSE(ZMMainQueue::runUntil([] { return false; }, std::chrono::milliseconds(20)));
}

TEST(ZMMainQueue, RunDrainsUntilStop) {
  QueueReset reset;
  std::vector<int> order;
  ZMMainQueue::post([&] { order.push_back(1); });
  ZMMainQueue::post([&] { order.push_back(2); });
  ZMMainQueue::post([] { ZMMainQueue::stop(); });
  ZMMainQueue::post([&] { order.push_back(4); });
  ZMMainQueue::run();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(ZMMainQueue::poll(), 1u);  // what came after stop is still queued

  // A stop from another thread wakes a run() that waits on an empty queue.
  std::promise<void> running;
  ZMMainQueue::post([&running] { running.set_value(); });
  std::thread stopper([&running] {
    running.get_future().wait();
    ZMMainQueue::stop();
  });
  ZMMainQueue::run();
  stopper.join();
}

TEST(ZMMainQueue, WakeupHookRunsOnThePostingThreadForEachPost) {
  QueueReset reset;
  std::mutex mutex;
  std::vector<std::thread::id> callers;
  ZMMainQueue::setWakeupHook([&] {
    std::lock_guard lock(mutex);
    callers.push_back(std::this_thread::get_id());
  });
  int ran = 0;
  std::thread::id producerId;
  std::thread producer([&] {
    producerId = std::this_thread::get_id();
    for (int i = 0; i < 3; ++i) ZMMainQueue::post([&ran] { ++ran; });
  });
  producer.join();
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(callers, std::vector<std::thread::id>(3, producerId));
  }

  ZMMainQueue::setWakeupHook(nullptr);
  ZMMainQueue::post([&ran] { ++ran; });
  EXPECT_EQ(ZMMainQueue::poll(), 4u);
  EXPECT_EQ(ran, 4);
  std::lock_guard lock(mutex);
  EXPECT_EQ(callers.size(), 3u);
}
