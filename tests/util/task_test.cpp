#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/ZMGlobalQueue.h"
#include "support/TestSupport.h"
#include "util/ZMTask.h"
#include "util/ZMTaskGroup.h"

namespace {

struct Heard {
  std::vector<std::string> replies;
};

// The smallest task: a reply, posted at once or after one background step.
class EchoTask : public ZMTask<EchoTask, Heard> {
 public:
  explicit EchoTask(std::weak_ptr<Heard> listener) : ZMTask(std::move(listener)) {}
  void execute(std::string text) {
    postWork([self = shared_from_this(), text] { self->reply(text); });
  }
  void reply(const std::string& text) {
    postFinalReply([text](Heard& heard) { heard.replies.push_back(text); });
  }
};

TEST(ZMTask, AReplyIsHeardUnlessTheTaskWasCancelledDroppedOrItsListenerLeft) {
  auto group = std::make_shared<ZMTaskGroup>();
  auto heard = std::make_shared<Heard>();
  auto task = std::make_shared<EchoTask>(heard);
  group->add(task);
  task->execute("delivered");
  ASSERT_TRUE(RunUntil([&] { return heard->replies.size() == 1; }));
  EXPECT_EQ(group->sizeForTesting(), 0u) << "the group lets go after the last reply";

  // Each reply below is posted first; what happens before it runs decides whether it is heard.
  auto cancelled = std::make_shared<EchoTask>(heard);
  cancelled->reply("cancelled");
  cancelled->cancel();
  auto gone = std::make_shared<Heard>();
  std::weak_ptr<Heard> goneWeak = gone;
  auto orphan = std::make_shared<EchoTask>(gone);
  orphan->reply("listener gone");
  gone.reset();
  std::make_shared<EchoTask>(heard)->reply("dropped");  // the only reference goes right away
  task->reply("last");
  DrainMainQueue();
  EXPECT_EQ(heard->replies, (std::vector<std::string>{"delivered", "last"}));
  EXPECT_TRUE(goneWeak.expired());
}

TEST(ZMTaskGroup, EndCancelsWaitsForRunningWorkAndSkipsTheRest) {
  auto group = std::make_shared<ZMTaskGroup>();
  auto heard = std::make_shared<Heard>();
  std::promise<void> entered, open;
  std::atomic<bool> finished{false};
  auto task = std::make_shared<EchoTask>(heard);
  group->add(task);
  group->post([&, gate = open.get_future().share()] {
    entered.set_value();
    gate.wait();
    finished = true;
  });
  entered.get_future().wait();
  auto ending = std::async(std::launch::async, [&] { group->end(); });
  // end() marks the group ended before it cancels what it holds, so wait for both.
  ASSERT_TRUE(RunUntil([&] { return group->hasEnded() && task->isCancel(); }));
  open.set_value();
  ending.get();
  EXPECT_TRUE(finished) << "end() returned before the running block did";

  std::atomic<bool> ran{false};
  group->post([&] { ran = true; });
  auto late = std::make_shared<EchoTask>(heard);
  group->add(late);
  EXPECT_TRUE(late->isCancel());
  DrainMainQueue();
  EXPECT_FALSE(ran);
  EXPECT_TRUE(heard->replies.empty());
}

// A process that exits while a task's work runs: the work sees itself cancelled and stops at its
// next step, so exit waits for one step, not for the whole job (here a minute of steps).
TEST(ZMTaskDeathTest, ExitStopsRunningWorkAtItsNextStep) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto task = std::make_shared<EchoTask>(std::weak_ptr<Heard>());
        std::promise<void> started;
        ZMGlobalQueue::post([task, &started] {
          started.set_value();
          const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
          while (!task->isCancel() && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // one step
          }
          std::fputs(task->isCancel() ? "stopped at exit\n" : "ran to the end\n", stderr);
        });
        started.get_future().wait();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "stopped at exit");
}

}  // namespace
