#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <latch>

#include "game/ZMCheckFileAvailabilityTask.h"
#include "platform/ZMGlobalQueue.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

class ZMCheckFileAvailabilityTaskTest : public ::testing::Test {
 protected:
  TestRuntime t;
  std::shared_ptr<SweepRecorder> sweep(const ZMValue& options) {
    auto listener = std::make_shared<SweepRecorder>();
    t.runtime->checkFileAvailability(options, listener);
    EXPECT_EQ(listener->events().front(), "onCheckStart") << "synchronous on the caller's thread";
    EXPECT_TRUE(RunUntil([&] {
      auto last = listener->last();
      return last == "onCheckSuccess" || last.rfind("onCheckFailure", 0) == 0;
    }));
    return listener;
  }
  std::string aged(const std::string& name, double seconds) {
    const std::string path = t.cache() + "/" + name;
    WriteFile(path, "x");
    SetAgeSeconds(path, seconds);
    return path;
  }
};

TEST_F(ZMCheckFileAvailabilityTaskTest, DeletesListedExtensionsOnceTheirAgeReachesTheKeepTime) {
  aged("young.zgp", 59);
  const std::string old = aged("old.zgp", 60);
  const std::string hidden = aged(".hidden.zgp", 600);
  for (const char* name : {"upper.ZGP", "notes.txt", "noextension", ".zgp"}) aged(name, 600);
  WriteFile(t.cache() + "/dir.zgp/inner.bin", "x");
  SetAgeSeconds(t.cache() + "/dir.zgp", 600);
  WriteFile(t.cache() + "/keep/deep.zgp", "x");
  SetAgeSeconds(t.cache() + "/keep/deep.zgp", 600);

  auto listener = sweep({{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp", "tmp"}},
                         {ZM_KEY_CHECK_FILE_KEEP_TIME, 1}});
  auto events = listener->events();
  std::sort(events.begin() + 1, events.end() - 1);
  EXPECT_EQ(events, (std::vector<std::string>{"onCheckStart", "onCheckProgress:" + hidden,
                                              "onCheckProgress:" + t.cache() + "/dir.zgp",
                                              "onCheckProgress:" + old, "onCheckSuccess"}));
  // Extensions compare case-sensitively, a name that is only an extension has none, and
  // subdirectories are not searched.
  EXPECT_EQ(ListDir(t.cache()), (std::vector<std::string>{".zgp", "keep", "noextension",
                                                          "notes.txt", "upper.ZGP", "young.zgp"}));
  EXPECT_TRUE(Exists(t.cache() + "/keep/deep.zgp"));

  // A keep time given as text works like the number.
  aged("ten.zgp", 10 * 60 + 1);
  const std::string nine = aged("nine.zgp", 9 * 60);
  listener = sweep({{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}},
                    {ZM_KEY_CHECK_FILE_KEEP_TIME, "10"}});
  EXPECT_EQ(listener->events(), (std::vector<std::string>{
                                    "onCheckStart", "onCheckProgress:" + t.cache() + "/ten.zgp",
                                    "onCheckSuccess"}));
  EXPECT_TRUE(Exists(nine));
}

TEST_F(ZMCheckFileAvailabilityTaskTest, SymbolicLinksAreAgedAndDeletedThemselvesNeverFollowed) {
  // Targets outside the cache, old enough to go if a link were followed.
  const std::string outside = t.root() + "/outside";
  WriteFile(outside + "/kept.bin", "keep");
  SetAgeSeconds(outside + "/kept.bin", 7200);
  SetAgeSeconds(outside, 7200);
  const std::string oldFile = t.root() + "/old-target.zgp";
  WriteFile(oldFile, "keep");
  SetAgeSeconds(oldFile, 7200);

  auto link = [&](const std::string& target, const std::string& name, double age) {
    const std::string path = t.cache() + "/" + name;
    EXPECT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
    SetAgeSeconds(path, age);
    return path;
  };
  const std::string toDir = link(outside, "to-dir.zgp", 7200);
  const std::string dangling = link(t.root() + "/nothing", "dangling.zgp", 7200);
  const std::string young = link(oldFile, "young-link.zgp", 10);

  auto listener = sweep({{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}},
                         {ZM_KEY_CHECK_FILE_KEEP_TIME, 60}});
  auto events = listener->events();
  std::sort(events.begin() + 1, events.end() - 1);
  EXPECT_EQ(events, (std::vector<std::string>{"onCheckStart", "onCheckProgress:" + dangling,
                                              "onCheckProgress:" + toDir, "onCheckSuccess"}));
  EXPECT_FALSE(Exists(toDir));
  EXPECT_FALSE(Exists(dangling)) << "a reported deletion has happened";
  EXPECT_TRUE(Exists(young)) << "the link's own age counts, not its target's";
  EXPECT_EQ(ReadFile(outside + "/kept.bin"), "keep");
  EXPECT_EQ(ReadFile(oldFile), "keep");
}

TEST_F(ZMCheckFileAvailabilityTaskTest, MissingOptionsFailInOrder) {
  const char* extensions = ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY;
  const char* keep = ZM_KEY_CHECK_FILE_KEEP_TIME;
  for (const auto& [options, missing] : std::vector<std::pair<ZMValue, std::string>>{
           {ZMValue::object(), "ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY"},
           {{{extensions, ZMValue::array()}, {keep, 5}}, "ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY"},
           {{{extensions, {"zgp"}}, {keep, 0}}, "ZM_KEY_CHECK_FILE_KEEP_TIME"},
       }) {
    EXPECT_EQ(sweep(options)->last(), "onCheckFailure:missing options: " + missing + "|0");
  }
}

TEST_F(ZMCheckFileAvailabilityTaskTest, CancelKeepsDeletionsAndProgressButDropsTheResult) {
  const std::string old = aged("old.zgp", 3600);
  // Every pool thread is held, so the sweep cannot start before the cancel. The held blocks
  // share what they wait on, as one may still be waking up when the test ends.
  auto held = std::make_shared<std::latch>(ZMGlobalQueue::kThreadCount);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  for (std::size_t i = 0; i < ZMGlobalQueue::kThreadCount; ++i) {
    ZMGlobalQueue::post([held, released] {
      held->count_down();
      released.wait();
    });
  }
  held->wait();
  auto first = std::make_shared<SweepRecorder>();
  t.runtime->checkFileAvailability({{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}},
                                    {ZM_KEY_CHECK_FILE_KEEP_TIME, 1}},
                                   first);
  t.runtime->cancelGamePackageRequest();
  release.set_value();
  ASSERT_TRUE(RunUntil([&] { return first->size() == 2; }));
  DrainMainQueue();
  EXPECT_EQ(first->events(), (std::vector<std::string>{"onCheckStart", "onCheckProgress:" + old}));
  EXPECT_FALSE(Exists(old));
}

TEST(ZMCheckFileAvailabilityTaskNoRuntime, FailsWithTheRuntimesReason) {
  auto listener = std::make_shared<SweepRecorder>();
  auto task = std::make_shared<ZMCheckFileAvailabilityTask>(listener);
  task->execute({{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}}, {ZM_KEY_CHECK_FILE_KEEP_TIME, 1}});
  ASSERT_TRUE(RunUntil([&] { return listener->size() == 2; }));
  EXPECT_EQ(listener->last(), "onCheckFailure:uninitialized ZimoGameRuntime|0");
}

}  // namespace
