#include "storage/ZMPermissionUtil.h"

#include <gtest/gtest.h>

#include "storage/RawStore.h"

TEST(ZMPermissionUtil, ExactNamesKeptAnswersAndDenialWins) {
  FreshStore store;
  ZMPermissionUtil perms("u1");
  EXPECT_EQ(perms.getSinglePermission("g1", "bogus"), 0);  // no record: 0 whatever the name
  EXPECT_EQ(perms.getAllPermission("g1"), ZMValue::object());

  perms.updatePermission("g1", {"camera", "location"}, {});
  perms.updatePermission("g1", {"Camera", "bogus"}, {"camera"});
  EXPECT_EQ(perms.getSinglePermission("g1", "camera"), 2);
  EXPECT_EQ(perms.getSinglePermission("g1", "record"), 0);
  EXPECT_EQ(Raised([&] { perms.getSinglePermission("g1", "Camera"); }),
            "Permission: getSinglePermission per param is error data");
  ZMPermissionUtil other("u2");  // users are separate
  other.updatePermission("g1", {}, {"location"});
  EXPECT_EQ(other.getSinglePermission("g1", "camera"), 0);
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
            (Rows{"u1|g1|2|NULL", "u2|g1|NULL|NULL", "u1|g2|NULL|NULL"}));
}
