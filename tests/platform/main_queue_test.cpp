#include "tavo/ZMMainQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"

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
  std::promise<std::thread::id> posted;  // the hook runs on the posting thread
  ZMMainQueue::setWakeupHook([&posted] { posted.set_value(std::this_thread::get_id()); });

  std::atomic<bool> returned{false};
  std::thread::id ranOn;
  int seenAfterSync = -1;
  std::thread worker([&] {
    int value = 0;
    ZMMainQueue::sync([&] {
      ranOn = std::this_thread::get_id();
      value = 42;
    });
    seenAfterSync = value;
    returned = true;
  });
  EXPECT_EQ(posted.get_future().get(), worker.get_id());
  ZMMainQueue::setWakeupHook(nullptr);
  EXPECT_FALSE(returned.load()) << "queued, and nobody has drained it";

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
  EXPECT_EQ(ZMMainQueue::poll(), 0u);
}

TEST(ZMMainQueue, RunDrainsUntilStop) {
  QueueReset reset;
  std::vector<int> order;
  ZMMainQueue::post([&] { order.push_back(1); });
  ZMMainQueue::post([] { ZMMainQueue::stop(); });
  ZMMainQueue::post([&] { order.push_back(3); });
  ZMMainQueue::run();
  EXPECT_EQ(order, std::vector<int>{1});
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
