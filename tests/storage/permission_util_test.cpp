#include "storage/ZMPermissionUtil.h"

#include <gtest/gtest.h>

#include <future>

#include "storage/RawStore.h"

static const std::string kUnknownName = "Permission: getSinglePermission per param is error data";

TEST(ZMPermissionUtil, ExactNamesKeptAnswersAndDenialWins) {
  FreshStore store;
  ZMPermissionUtil perms("u1");
  EXPECT_EQ(perms.getSinglePermission("g1", "bogus"), 0);  // no record: 0 whatever the name
  EXPECT_EQ(perms.getAllPermission("g1"), ZMValue::object());

  perms.updatePermission("g1", {"camera", "location"}, {});
  perms.updatePermission("g1", {"Camera", "bogus"}, {"camera"});
  EXPECT_EQ(perms.getSinglePermission("g1", "camera"), 2);
  EXPECT_EQ(perms.getSinglePermission("g1", "record"), 0);
  EXPECT_EQ(Raised([&] { perms.getSinglePermission("g1", "Camera"); }), kUnknownName);
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

// The launch tests make an engine thread wait for the answers; here what it gets back is an error.
TEST(ZMPermissionUtil, UsersAreSeparateAndErrorsCrossToTheWaitingThread) {
  FreshStore store;
  ZMPermissionUtil alice("u1"), bob("u2");
  alice.updatePermission("g1", {"camera"}, {});
  bob.updatePermission("g1", {}, {"camera"});
  EXPECT_EQ(alice.getSinglePermission("g1", "camera"), 1);
  auto raised = std::async(std::launch::async,
                           [&] { return Raised([&] { bob.getSinglePermission("g1", "bogus"); }); });
  ASSERT_TRUE(RunUntil(
      [&] { return raised.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  EXPECT_EQ(raised.get(), kUnknownName);
}
