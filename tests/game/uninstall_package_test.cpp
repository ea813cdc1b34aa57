#include <gtest/gtest.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "game/ZMGameUninstallPackageTask.h"
#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"

namespace {

// Sets the immutable flag (which even root cannot get past) on a file while alive.
class ImmutableFile {
 public:
  explicit ImmutableFile(const std::string& path) : path_(path) { ok_ = set(true); }
  ~ImmutableFile() {
    if (ok_) set(false);
  }
  bool ok() const { return ok_; }

 private:
  bool set(bool on) {
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    int flags = 0;
    bool done = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0) ::close(fd);
    return done;
  }
  std::string path_;
  bool ok_ = false;
};

class ZMGameUninstallPackageTask : public ::testing::Test {
 protected:
  TestRuntime t;
  std::vector<std::string> remove(const std::vector<std::string>& appIds) {
    auto listener = std::make_shared<RemoveRecorder>();
    t.runtime->removeGameList(appIds, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->last().starts_with("onRemoveSuccess"); }));
    return listener->events();
  }
};

TEST_F(ZMGameUninstallPackageTask, DeletionFailureStopsTheRunAfterItsRecordIsGone) {
  for (const char* appId : {"a1", "a2", "a3"}) {
    ASSERT_TRUE(t.installGame(appId, "1"));
    WriteFile(t.user() + "/u1_" + appId + "/data/d.bin", "d");
  }
  ImmutableFile pinned(t.user() + "/u1_a2/data/d.bin");
  if (!pinned.ok()) GTEST_SKIP() << "this file system has no immutable flag";
  EXPECT_EQ(remove({"a1", "a2", "a3"}),
            (std::vector<std::string>{
                "onRemoveStart:a1|(null)", "onRemoveFinish:a1|(null)", "onRemoveStart:a2|(null)",
                "onRemoveFailure:remove game file fail appId: a2 and extra: (null)|0",
                "onRemoveSuccess:(null)"}));
  auto& store = ZMDatabaseHelper::getInstance();
  EXPECT_FALSE(store.getAppRowByUserId("u1", "a1"));
  EXPECT_FALSE(store.getAppRowByUserId("u1", "a2"));
  EXPECT_TRUE(store.getAppRowByUserId("u1", "a3"));
  EXPECT_FALSE(Exists(t.app() + "/a1"));
  EXPECT_TRUE(Exists(t.app() + "/a3/1"));
}

TEST_F(ZMGameUninstallPackageTask, CancelSilencesPerAppNotificationsOnly) {
  ASSERT_TRUE(t.installGame("g1", "1"));
  auto listener = std::make_shared<RemoveRecorder>();
  auto task = std::make_shared<::ZMGameUninstallPackageTask>(listener);
  GameUninstallPackageTaskInfo info;
  info.list = {"g1"};
  info.userId = "u1";
  info.appIdArrays = {t.runtime->getAppDirPath("g1")};
  info.userTempDirPathArrays = {t.runtime->getUserCachePath("g1")};
  info.userDataDirPathArrays = {t.runtime->getUserDirPath("g1")};
  task->execute(info);
  task->cancel();
  task.reset();  // the queued work keeps it alive
  ASSERT_TRUE(RunUntil([&] { return listener->size() == 1; }));
  DrainMainQueue();
  EXPECT_EQ(listener->events(), std::vector<std::string>{"onRemoveSuccess:[g1]"});
  EXPECT_FALSE(Exists(t.app() + "/g1"));
}

TEST_F(ZMGameUninstallPackageTask, NothingToRemoveIsSilent) {
  auto listener = std::make_shared<RemoveRecorder>();
  t.runtime->removeGameList({}, listener);
  t.runtime->removeGameAll(listener);  // a user without records: same as an empty list
  DrainMainQueue();
  EXPECT_EQ(listener->size(), 0u);
  ASSERT_TRUE(t.installGame("g1", "1"));
  EXPECT_EQ(remove({"never", "g1"}),
            (std::vector<std::string>{"onRemoveStart:g1|(null)", "onRemoveFinish:g1|(null)",
                                      "onRemoveSuccess:[g1]"}));
}

}  // namespace
