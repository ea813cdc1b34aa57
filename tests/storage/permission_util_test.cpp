#include "storage/ZMPermissionUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "storage/RawStore.h"
#include "tavo/ZMException.h"

namespace {

const std::string kUnknownName = "Permission: getSinglePermission per param is error data";

std::string Raised(ZMPermissionUtil& perms, const std::string& app, const std::string& name) {
  return ::Raised([&] { perms.getSinglePermission(app, name); });
}

}  // namespace

TEST(ZMPermissionUtil, ExactNamesKeptAnswersAndDenialWins) {
  FreshStore store;
  ZMPermissionUtil perms("u1");
  EXPECT_EQ(perms.getSinglePermission("g1", "bogus"), 0);  // no record: 0 whatever the name
  EXPECT_EQ(perms.getAllPermission("g1"), ZMValue::object());

  perms.updatePermission("g1", {"camera", "location"}, {});
  perms.updatePermission("g1", {"Camera", "bogus"}, {"camera"});
  EXPECT_EQ(perms.getSinglePermission("g1", "camera"), 2);
  EXPECT_EQ(perms.getSinglePermission("g1", "record"), 0);
  EXPECT_EQ(Raised(perms, "g1", "Camera"), kUnknownName);
  perms.updatePermission("g1", {"record", "userInfo"}, {"record", "writePhotosAlbum"});
  EXPECT_EQ(perms.getAllPermission("g1").dump(),
            R"({"userInfo":1,"location":1,"record":2,"writePhotosAlbum":2,"camera":2})");

  // Only unknown names: the record is created, with no answer in it. Bad input is only logged.
  perms.updatePermission("g2", {"Camera"}, {});
  EXPECT_EQ(perms.getAllPermission("g2"), ZMValue::object());
  LogCapture log;
  perms.updatePermission("", {"camera"}, {});
  perms.updatePermission("g3", {}, {});
  EXPECT_EQ(log.lines(), (Rows{"updatePermission appID is empty",
                               "updatePermission grantedPers and deniedPers empty"}));
  EXPECT_EQ(store.raw("SELECT user_id, app_id, auth_camera, played FROM AppRow"),
            (Rows{"u1|g1|2|NULL", "u1|g2|NULL|NULL"}));
}

TEST(ZMPermissionUtil, UsersAreSeparateAndEngineThreadsWait) {
  FreshStore store;
  ZMPermissionUtil alice("u1"), bob("u2");
  alice.updatePermission("g1", {"camera"}, {});
  EXPECT_EQ(bob.getSinglePermission("g1", "camera"), 0);

  std::atomic<bool> done{false};
  int64_t answer = -1;
  std::string raised;
  std::thread engine([&] {
    bob.updatePermission("g1", {}, {"camera"});
    answer = bob.getSinglePermission("g1", "camera");
    raised = Raised(bob, "g1", "bogus");  // the exception crosses back from the main thread
    done = true;
  });
  EXPECT_TRUE(RunUntil([&] { return done.load(); }));
  engine.join();
  EXPECT_EQ(answer, 2);
  EXPECT_EQ(raised, kUnknownName);
  EXPECT_EQ(alice.getSinglePermission("g1", "camera"), 1);
}
