#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <vector>

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
  auto dropped = std::make_shared<EchoTask>(heard);
  dropped->reply("dropped");
  dropped.reset();
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
  ASSERT_TRUE(RunUntil([&] { return group->hasEnded(); }));
  EXPECT_TRUE(task->isCancel());
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

}  // namespace
