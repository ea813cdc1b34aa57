#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "support/TestRuntime.h"

namespace {

using Events = std::vector<std::string>;

class ZMCheckFileAvailabilityTaskTest : public ::testing::Test {
 protected:
  TestRuntime t;
  Events sweep(const ZMValue& extensions, const ZMValue& keepTime) {
    auto listener = std::make_shared<SweepRecorder>();
    t.runtime->checkFileAvailability({{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, extensions},
                                      {ZM_KEY_CHECK_FILE_KEEP_TIME, keepTime}},
                                     listener);
    EXPECT_EQ(listener->events().front(), "onCheckStart") << "synchronous on the caller's thread";
    EXPECT_TRUE(RunUntil([&] {
      return listener->last() == "onCheckSuccess" || listener->last().starts_with("onCheckFailure");
    }));
    // Deletions run in directory order; sorted here.
    auto events = listener->events();
    std::sort(events.begin() + 1, events.end() - 1);
    return events;
  }
  // `name` in the cache, `seconds` old: a file or, given a `target`, a link to that.
  std::string aged(const std::string& name, double seconds, const std::string& target = "") {
    const std::string path = t.cache() + "/" + name;
    if (target.empty()) WriteFile(path, "x");
    EXPECT_TRUE(target.empty() || ::symlink(target.c_str(), path.c_str()) == 0) << path;
    SetAgeSeconds(path, seconds);
    return path;
  }
};

TEST_F(ZMCheckFileAvailabilityTaskTest, DeletesListedExtensionsOnceTheirAgeReachesTheKeepTime) {
  aged("young.zgp", 50);
  const std::string old = aged("old.zgp", 60), hidden = aged(".hidden.zgp", 600);
  for (const char* name : {"upper.ZGP", "notes.txt", "noextension", ".zgp"}) aged(name, 600);
  WriteFile(t.cache() + "/dir.zgp/inner.bin", "x");
  SetAgeSeconds(t.cache() + "/dir.zgp", 600);
  aged("keep/deep.zgp", 600);
  // Links are aged and deleted, never followed: an old directory outside stays, a young link too.
  const std::string outside = t.root() + "/outside";
  WriteFile(outside + "/kept.bin", "keep");
  SetAgeSeconds(outside, 7200);
  const std::string toDir = aged("to-dir.zgp", 600, outside);
  const std::string dangling = aged("dangling.zgp", 600, t.root() + "/nothing");
  aged("young-link.zgp", 10, outside);

  EXPECT_EQ(sweep({"zgp", "tmp"}, 1),
            (Events{"onCheckStart", "onCheckProgress:" + hidden, "onCheckProgress:" + dangling,
                    "onCheckProgress:" + t.cache() + "/dir.zgp", "onCheckProgress:" + old,
                    "onCheckProgress:" + toDir, "onCheckSuccess"}));
  // Extensions compare case-sensitively, a name that is only an extension has none, and
  // subdirectories are not searched.
  EXPECT_EQ(ListDir(t.cache()), (Events{".zgp", "keep", "noextension", "notes.txt", "upper.ZGP",
                                        "young-link.zgp", "young.zgp"}));
  EXPECT_TRUE(Exists(t.cache() + "/keep/deep.zgp"));
  EXPECT_EQ(ReadFile(outside + "/kept.bin"), "keep");
}

TEST_F(ZMCheckFileAvailabilityTaskTest, MissingOptionsFailInOrderAndHugeKeepTimesAreClamped) {
  for (const auto& [extensions, keep, missing] :
       std::vector<std::tuple<ZMValue, ZMValue, std::string>>{
           {nullptr, nullptr, "EXTENSION_NAME_ARRAY"},
           {ZMValue::array(), 5, "EXTENSION_NAME_ARRAY"},
           {{"zgp"}, 0, "KEEP_TIME"}})
    EXPECT_EQ(sweep(extensions, keep).back(),
              "onCheckFailure:missing options: ZM_KEY_CHECK_FILE_" + missing + "|0");
  // Past 64 bits, a keep time is as long as can be, not missing: nothing is old enough.
  const std::string old = aged("old.zgp", 3600);
  for (const ZMValue& huge : {ZMValue(1e30), ZMValue(UINT64_MAX), ZMValue("99999999999999999999")})
    EXPECT_EQ(sweep({"zgp"}, huge), (Events{"onCheckStart", "onCheckSuccess"})) << huge;
  EXPECT_TRUE(Exists(old));
}

// A cancel silences only the result: the stale file still goes, and its progress is heard.
TEST_F(ZMCheckFileAvailabilityTaskTest, ACancelledSweepStillDeletesAndReportsProgress) {
  const std::string old = aged("old.zgp", 3600);
  // Every pool thread is held, so the sweep cannot start before the cancel.
  auto release = HoldGlobalQueue();
  auto sweep = std::make_shared<SweepRecorder>();
  // A keep time given as text works like the number.
  t.runtime->checkFileAvailability(
      {{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}}, {ZM_KEY_CHECK_FILE_KEEP_TIME, "1"}},
      sweep);
  t.runtime->cancelGamePackageRequest();
  release.set_value();
  ASSERT_TRUE(RunUntil([&] { return sweep->size() == 2; }));
  t.runtime->done();
  DrainMainQueue();
  EXPECT_EQ(sweep->events(), (Events{"onCheckStart", "onCheckProgress:" + old}));
  EXPECT_FALSE(Exists(old));
}

}  // namespace
