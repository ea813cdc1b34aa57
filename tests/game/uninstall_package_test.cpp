#include <gtest/gtest.h>

#include <cstdlib>

#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"
#include "util/ZMTaskGroup.h"

namespace {

using Events = std::vector<std::string>;

// Sets or clears the immutable flag, which even root cannot get past; false where unsupported.
bool SetImmutable(const std::string& path, bool on) {
  return std::system(
             ((on ? "chattr +i " : "chattr -i ") + Quote(path) + " 2> /dev/null").c_str()) == 0;
}

TEST(ZMGameUninstallPackageTask, RecordsGoBeforeFilesAndAFailedDeletionEndsTheRun) {
  TestRuntime t;
  auto listener = std::make_shared<RemoveRecorder>();
  t.runtime->removeGameList({}, listener);
  t.runtime->removeGameAll(listener);  // a user without records: same as an empty list
  DrainMainQueue();
  EXPECT_EQ(listener->size(), 0u);

  for (const char* appId : {"a2", "a3"}) {
    ASSERT_TRUE(t.installGame(appId, "1"));
    WriteFile(t.user() + "/u1_" + appId + "/data/d.bin", "d");
  }
  auto& store = ZMDatabaseHelper::getInstance();

  // a2's record goes before its files, so it is gone though they stay; a3 is not reached.
  const std::string pinned = t.user() + "/u1_a2/data/d.bin";
  if (!SetImmutable(pinned, true)) GTEST_SKIP() << "this file system has no immutable flag";
  std::shared_ptr<void> unpin(nullptr, [&](void*) { SetImmutable(pinned, false); });
  t.runtime->removeGameList({"a2", "a3"}, listener);
  ASSERT_TRUE(RunUntil([&] { return listener->last().starts_with("onRemoveSuccess"); }));
  EXPECT_EQ(listener->events(),
            (Events{"onRemoveStart:a2|(null)",
                    "onRemoveFailure:remove game file fail appId: a2 and extra: (null)|0",
                    "onRemoveSuccess:(null)"}));
  EXPECT_FALSE(store.getAppRowByUserId("u1", "a2"));
  EXPECT_TRUE(store.getAppRowByUserId("u1", "a3"));
  EXPECT_TRUE(Exists(t.app() + "/a3/1"));
}

TEST(ZMGameUninstallPackageTask, DoneWaitsForARemovalInFlightAndNothingReportsAfterwards) {
  TestRuntime t;
  auto& store = ZMDatabaseHelper::getInstance();
  for (const char* appId : {"a1", "a2", "a3", "a4"}) ASSERT_TRUE(t.installGame(appId, "1"));
  auto snapshot = [&] {
    Events state = ListDir(t.app());
    for (const char* appId : {"a1", "a2", "a3", "a4"}) {
      state.push_back(store.getAppRowByUserId("u1", appId) ? "row" : "-");
    }
    return state;
  };

  // Queued behind a held pool: done() cancels it, and returns only once its block has been
  // skipped, so nothing is removed and nobody hears of it.
  auto release = HoldGlobalQueue();
  auto queued = std::make_shared<RemoveRecorder>();
  t.runtime->removeGameList({"a1", "a2"}, queued);
  const Events before = snapshot();
  auto ending = std::async(std::launch::async, [&] { t.runtime->done(); });
  ASSERT_TRUE(RunUntil([&] { return t.runtime->tasks()->hasEnded(); }));
  release.set_value();
  ending.get();
  DrainMainQueue();
  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(queued->size(), 0u);

  // Running when done() is called: whatever it removed, it removed before done() returned, and
  // it reports nothing, not even the end of the run.
  t.switchUser("u1");
  auto running = std::make_shared<RemoveRecorder>();
  t.runtime->removeGameList({"a1", "a2", "a3", "a4"}, running);
  t.runtime->done();
  const Events after = snapshot();
  DrainMainQueue();
  EXPECT_EQ(snapshot(), after);
  EXPECT_EQ(running->size(), 0u);
}

}  // namespace
