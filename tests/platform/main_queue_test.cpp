#include "tavo/ZMMainQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/ZMGlobalQueue.h"
#include "support/TestSupport.h"

// The test program's main() runs on the thread that loaded libtavo, which is the main thread.

class ZMMainQueueTest : public ::testing::Test {
 protected:
  // Removes the wake-up hook and drains leftovers even when a test fails half-way.
  ~ZMMainQueueTest() override {
    ZMMainQueue::setWakeupHook(nullptr);
    while (ZMMainQueue::poll() > 0) continue;
  }
};

TEST_F(ZMMainQueueTest, SyncFromAGlobalQueueBlockWaitsForTheMainThread) {
  std::promise<std::thread::id> posted;  // the hook runs on the posting thread
  ZMMainQueue::setWakeupHook([&posted] { posted.set_value(std::this_thread::get_id()); });

  std::atomic<bool> returned{false};
  std::thread::id worker, ranOn;
  ZMGlobalQueue::post([&] {
    worker = std::this_thread::get_id();
    std::thread::id inner;
    ZMMainQueue::sync([&] { inner = std::this_thread::get_id(); });
    ranOn = inner;  // what the block did is there once sync returns
    returned = true;
  });
  ASSERT_FALSE(returned.load()) << "the global queue ran the block inline";
  const std::thread::id poster = posted.get_future().get();
  ZMMainQueue::setWakeupHook(nullptr);
  EXPECT_FALSE(returned.load()) << "queued, and nobody has drained it";

  ASSERT_TRUE(RunUntil([&] { return returned.load(); }));
  EXPECT_EQ(poster, worker);
  EXPECT_NE(worker, std::this_thread::get_id());
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST_F(ZMMainQueueTest, PostedBlocksRunInOrderAndSyncOnTheMainThreadRunsInline) {
  std::vector<int> seen;
  std::thread producer([&] {
    for (int i = 0; i < 1000; ++i) ZMMainQueue::post([&seen, i] { seen.push_back(i); });
  });
  ASSERT_TRUE(RunUntil([&] { return seen.size() == 1000; }));
  producer.join();
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));  // 1000 distinct values in order

  std::vector<std::string> order;
  ZMMainQueue::post([&] {
    order.push_back("a");
    ZMMainQueue::post([&] { order.push_back("posted by a"); });
  });
  ZMMainQueue::sync([&] { order.push_back("sync"); });
  ZMMainQueue::post([&] { order.push_back("b"); });
  EXPECT_EQ(order, std::vector<std::string>{"sync"});  // ahead of what was already queued
  EXPECT_EQ(ZMMainQueue::poll(), 2u);                  // only what was queued when the poll began
  EXPECT_EQ(order, (std::vector<std::string>{"sync", "a", "b"}));
  EXPECT_EQ(ZMMainQueue::poll(), 1u);
  EXPECT_THROW(ZMMainQueue::sync([] { throw std::runtime_error("inline"); }), std::runtime_error);
}

TEST_F(ZMMainQueueTest, RunDrainsUntilStop) {
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
  std::jthread stopper([&running] {
    running.get_future().wait();
    ZMMainQueue::stop();
  });
  ZMMainQueue::run();
}
