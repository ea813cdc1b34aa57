#include "storage/ZMDatabaseHelper.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "storage/ZMPermissionUtil.h"
#include "support/TestSupport.h"

namespace {

using Rows = std::vector<std::string>;

ZMDatabaseHelper& Store() { return ZMDatabaseHelper::getInstance(); }

// A store opened on a fresh Documents directory for one test, closed at its end. Should it fail
// to open, every row a test expects is missing.
class FreshStore : public ::testing::Test {
 protected:
  ScopedSystemDirectories dirs;
  FreshStore() {
    Store().resetForTesting();
    Store().createDataBase();
  }
  ~FreshStore() override { Store().resetForTesting(); }

  // What `sql` finds on disk (through a connection of its own, not the store's context): each
  // row's columns joined by "|", NULL as "NULL"; no rows when it does not prepare.
  Rows raw(const std::string& sql) const {
    Rows rows;
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_open_v2((dirs.documents() + "/zimo_client_sdk.db").c_str(), &db, SQLITE_OPEN_READONLY,
                    nullptr);
    sqlite3_prepare_v2(db, (sql + " ORDER BY rowid").c_str(), -1, &stmt, nullptr);
    while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
      rows.emplace_back();
      for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
        rows.back() += (c ? "|" : "") + std::string(text ? text : "NULL");
      }
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
  }
};
using ZMDatabaseHelperTest = FreshStore;
using ZMPermissionUtilTest = FreshStore;

ZMRow Row(const std::string& user, const std::string& app, std::optional<int64_t> camera = {}) {
  ZMRow row;
  std::tie(row.user_id, row.app_id, row.auth_camera) = std::tie(user, app, camera);
  return row;
}

Rows AppIds(const std::string& user) {
  Rows ids;
  const auto rows = Store().getAppidListByUserId(user);
  for (const auto& row : rows.value()) ids.push_back(*row->app_id);
  return ids;
}

}  // namespace

// The launch tests see plays counted, extend replaced and the time moved through the runtime.
TEST_F(ZMDatabaseHelperTest, LaunchesCountPlaysOnOneLiveRecordKeptOnDisk) {
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::string("level=3"));
  auto record = Store().getAppRowByUserId("u1", "g1");
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_EQ(Store().getAppRowByUserId("u1", "g1"), record);  // one live object per record
  // A reopened store reads the count back from the file.
  Store().resetForTesting();
  ASSERT_TRUE(Store().createDataBase());
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::string("again"));
  EXPECT_EQ(raw("SELECT user_id, app_id, played, extend FROM AppRow"), Rows{"u1|g1|3|again"});
}

TEST_F(ZMDatabaseHelperTest, ListsAndCountsMatchIdsExactly) {
  const std::string quoted = "it's 100%";
  const std::pair<std::string, std::string> ids[] = {
      {"u1", "g1"},        {"u1", "g2"},  {"u2", "g1"},         {"U1", "g1"},
      {"o'brien", quoted}, {"%", quoted}, {"x' OR 'a'='a", "_"}};
  for (const auto& [user, app] : ids) Store().insertOrUpdateExtraAndPlay(user, app, std::nullopt);
  EXPECT_EQ(AppIds("u1"), (Rows{"g1", "g2"}));
  EXPECT_EQ(AppIds("%"), Rows{quoted});
  EXPECT_EQ(AppIds("x' OR 'a'='a"), Rows{"_"});
  EXPECT_EQ(Store().getPeopleCount("g1"), 3);
  EXPECT_EQ(Store().getPeopleCount(quoted), 2);
  EXPECT_EQ(Store().getPeopleCount("%"), 0);

  EXPECT_TRUE(Store().removeAppRow("o'brien", quoted));
  for (const char* user : {"u1", "u2", "U1"}) EXPECT_TRUE(Store().removeAppRow(user, "g1"));
  EXPECT_TRUE(Store().removeAppRow("u1", "missing"));  // nothing to delete still saves fine
  EXPECT_EQ(raw("SELECT user_id, app_id FROM AppRow"),
            (Rows{"u1|g2", "%|it's 100%", "x' OR 'a'='a|_"}));
}

TEST_F(ZMDatabaseHelperTest, UpdateFallsBackToInsertAndFailedSavesStayPending) {
  LogCapture log;
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("", "g1")));
  Store().setSavesFailForTesting(true);
  // The update's save fails, so the row is inserted as well, and that save fails too.
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("u1", "g1", 1)));
  EXPECT_EQ(log.startingWith("Error Domain=NSCocoaErrorDomain Code=134030").size(), 2u);
  EXPECT_EQ(raw("SELECT app_id, auth_camera FROM AppRow"), Rows{"g1|NULL"});
  EXPECT_EQ(Store().getPeopleCount("g1"), 2);  // the context already holds both

  Store().setSavesFailForTesting(false);
  Store().insertOrUpdateExtraAndPlay("u3", "g3", std::nullopt);
  EXPECT_EQ(raw("SELECT user_id, app_id, played, auth_camera FROM AppRow"),
            (Rows{"u1|g1|1|1", "u1|g1|NULL|1", "u3|g3|1|NULL"}));
}

TEST_F(ZMDatabaseHelperTest, BackgroundCallersAreSerialisedWithoutTheMainQueue) {
  {
    std::vector<std::jthread> threads;  // the main queue is never drained: nobody waits for it
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 10; ++i) {
          Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
          EXPECT_EQ(Store().getPeopleCount("g1"), 1);
        }
      });
    }
  }
  EXPECT_EQ(raw("SELECT played FROM AppRow"), Rows{"40"});
}

TEST(ZMDatabaseHelper, AStoreThatCannotOpenSaysWhyThenAnswersNothingAndWritesNothing) {
  ScopedSystemDirectories dirs;
  const std::string file = dirs.documents() + "/zimo_client_sdk.db";
  std::filesystem::create_directories(file);
  LogCapture log;
  EXPECT_FALSE(Store().createDataBase());
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("unable to open database file"), std::string::npos)
      << log.lines()[0];
  std::filesystem::remove(file);  // should anything open after all, it is a fresh store
  EXPECT_EQ(Store().getAppidListByUserId("u1"), std::nullopt);
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("u1", "g1")));
  EXPECT_FALSE(Store().removeAppRow("u1", "g1"));
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_EQ(Store().getPeopleCount("g1"), 0);
  Store().resetForTesting();
}

TEST_F(ZMPermissionUtilTest, ExactNamesKeptAnswersAndDenialWins) {
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
  EXPECT_EQ(raw("SELECT user_id, app_id, auth_camera, played FROM AppRow"),
            (Rows{"u1|g1|2|NULL", "u2|g1|NULL|NULL", "u1|g2|NULL|NULL"}));
}
