#include "storage/ZMDatabaseHelper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "storage/RawStore.h"
#include "tavo/ZMLog.h"
#include "tavo/ZMSystemDirectories.h"

namespace {

ZMDatabaseHelper& Store() { return ZMDatabaseHelper::getInstance(); }

ZMRow Row(const std::string& user, const std::string& app) {
  ZMRow row;
  row.user_id = user;
  row.app_id = app;
  return row;
}

Rows AppIds(const std::optional<std::vector<std::shared_ptr<ZMAppRow>>>& rows) {
  Rows ids;
  for (const auto& row : rows.value()) ids.push_back(row->app_id.value_or("NULL"));
  return ids;
}

}  // namespace

TEST(ZMDatabaseHelper, LaunchesCountPlaysOnOneRecord) {
  FreshStore store;
  ASSERT_TRUE(store.opened);
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::string("level=3"));
  auto record = Store().getAppRowByUserId("u1", "g1");
  ASSERT_TRUE(record);
  const double firstLaunch = record->play_at_time.value();
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);  // clears extend

  EXPECT_EQ(Store().getAppRowByUserId("u1", "g1"), record);  // one live object per record
  EXPECT_EQ(store.raw("SELECT user_id, app_id, played, extend FROM AppRow"), Rows{"u1|g1|2|NULL"});
  EXPECT_GT(std::stod(store.raw("SELECT play_at_time FROM AppRow").at(0)), firstLaunch + 1e-6);

  // A reopened store reads the count back from the file.
  Store().resetForTesting();
  ASSERT_TRUE(Store().createDataBase());
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::string("again"));
  EXPECT_EQ(store.raw("SELECT played, extend FROM AppRow"), Rows{"3|again"});
}

TEST(ZMDatabaseHelper, RowsCarrySetFieldsButNeverPlays) {
  FreshStore store;
  const std::string columns =
      "SELECT removed, played, auth_location, auth_camera, extend, reserve, play_at_time FROM "
      "AppRow";
  ZMRow row = Row("u1", "g1");
  row.played = 7;
  row.removed = 0;
  row.auth_camera = 1;
  row.extend = "e";
  row.reserve = "r";
  row.play_at_time = 12.5;
  EXPECT_TRUE(Store().updateOrInsertAppRow(row));  // no record yet: inserted
  EXPECT_EQ(store.raw(columns), Rows{"0|NULL|NULL|1|e|r|12.5"});

  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::string("x"));  // played: NULL + 1
  ZMRow change = Row("u1", "g1");
  change.played = 50;
  change.auth_location = 2;
  change.play_at_time = 20.0;
  EXPECT_TRUE(Store().updateOrInsertAppRow(change));
  EXPECT_EQ(store.raw(columns), Rows{"0|1|2|1|x|r|20.0"});

  ZMRow nullApp = Row("u1", "g1");
  nullApp.app_id.reset();
  for (const ZMRow& bad : {Row("u1", ""), nullApp, Row("", "g1")}) {
    EXPECT_FALSE(Store().updateOrInsertAppRow(bad));
    EXPECT_FALSE(Store()._insertData(bad));
  }
  EXPECT_EQ(store.raw("SELECT count(*) FROM AppRow"), Rows{"1"});
}

TEST(ZMDatabaseHelper, ListsAndCountsMatchIdsExactly) {
  FreshStore store;
  EXPECT_EQ(Store().getAppidListByUserId("nobody"), std::vector<std::shared_ptr<ZMAppRow>>{});
  const std::string quoted = "it's 100%";
  for (auto [user, app] : {std::pair{"u1", "g1"},
                           {"u1", "g2"},
                           {"u2", "g1"},
                           {"U1", "g1"},
                           {"u1", "g3"},
                           {"o'brien", quoted.c_str()},
                           {"%", quoted.c_str()},
                           {"x' OR 'a'='a", "_"}}) {
    Store().insertOrUpdateExtraAndPlay(user, app, std::nullopt);
  }
  EXPECT_EQ(AppIds(Store().getAppidListByUserId("u1")), (Rows{"g1", "g2", "g3"}));
  EXPECT_EQ(Store().getPeopleCount("g1"), 3);
  EXPECT_EQ(Store().getPeopleCount(quoted), 2);
  EXPECT_EQ(Store().getPeopleCount("%"), 0);
  EXPECT_EQ(AppIds(Store().getAppidListByUserId("%")), Rows{quoted});
  EXPECT_EQ(AppIds(Store().getAppidListByUserId("x' OR 'a'='a")), Rows{"_"});

  EXPECT_TRUE(Store().removeAppRow("o'brien", quoted));
  for (const char* user : {"u1", "u2", "U1"}) EXPECT_TRUE(Store().removeAppRow(user, "g1"));
  EXPECT_EQ(Store().getPeopleCount("g1"), 0);
  EXPECT_TRUE(Store().removeAppRow("u1", "missing"));  // nothing to delete still saves fine
  EXPECT_EQ(store.raw("SELECT user_id, app_id FROM AppRow"),
            (Rows{"u1|g2", "u1|g3", "%|it's 100%", "x' OR 'a'='a|_"}));
}

TEST(ZMDatabaseHelper, FailedSavesStayPendingUntilTheNextSave) {
  FreshStore store;
  LogCapture log;
  const std::string saveError = "Error Domain=NSCocoaErrorDomain Code=134030";
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  Store().setSavesFailForTesting(true);
  ZMRow row = Row("u1", "g1");
  row.auth_camera = 1;
  // The update's save fails, so the row is inserted as well, and that save fails too.
  EXPECT_FALSE(Store().updateOrInsertAppRow(row));
  Store().insertOrUpdateExtraAndPlay("u2", "g2", std::nullopt);
  EXPECT_EQ(log.startingWith(saveError).size(), 3u);
  EXPECT_FALSE(Store().removeAppRow("u2", "g2"));  // drops the unsaved insert; not logged
  EXPECT_EQ(log.lines().size(), 3u);
  EXPECT_EQ(store.raw("SELECT app_id, auth_camera FROM AppRow"), Rows{"g1|NULL"});
  EXPECT_EQ(Store().getPeopleCount("g1"), 2);  // the context already holds both

  Store().setSavesFailForTesting(false);
  Store().insertOrUpdateExtraAndPlay("u3", "g3", std::nullopt);
  EXPECT_EQ(store.raw("SELECT user_id, app_id, played, auth_camera FROM AppRow"),
            (Rows{"u1|g1|1|1", "u1|g1|NULL|1", "u3|g3|1|NULL"}));
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST(ZMDatabaseHelper, UnopenableStoreFileKeepsTheContext) {
  ScopedSystemDirectories dirs;
  Store().resetForTesting();
  WriteFile(dirs.documents() + "/zimo_client_sdk.db/inside", "");  // the store is a directory
  EXPECT_FALSE(Store().createDataBase());
  EXPECT_EQ(Store().getAppidListByUserId("u1"), std::nullopt);
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("u1", "g1")));
  EXPECT_FALSE(Store().removeAppRow("u1", "g1"));
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_EQ(Store().getPeopleCount("g1"), 0);

  ZMSystemDirectories::setDocumentsDirectory(dirs.root() / "fresh/Documents");  // created
  ASSERT_TRUE(Store().createDataBase());
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  WriteFile(dirs.root() / "plain", "x");
  ZMSystemDirectories::setDocumentsDirectory(dirs.root() / "plain");  // Documents is a file
  EXPECT_FALSE(Store().createDataBase());
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);  // still the first context
  EXPECT_EQ(
      RawQuery(dirs.root() / "fresh/Documents/zimo_client_sdk.db", "SELECT played FROM AppRow"),
      Rows{"2"});
  Store().resetForTesting();
}

TEST(ZMDatabaseHelper, BackgroundCallersRunOnTheMainThread) {
  FreshStore store;
  std::mutex mutex;
  std::vector<std::thread::id> logThreads;
  ZMLog::setSink([&](std::string_view) {
    std::lock_guard lock(mutex);
    logThreads.push_back(std::this_thread::get_id());
  });
  std::atomic<int> finished{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
        EXPECT_EQ(Store().getPeopleCount("g1"), 1);
      }
      ++finished;
    });
  }
  EXPECT_TRUE(RunUntil([&] { return finished == 4; }));
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(store.raw("SELECT played FROM AppRow"), Rows{"40"});

  // A failing save logs from where the work runs: the main thread.
  Store().setSavesFailForTesting(true);
  std::thread caller([&] {
    EXPECT_FALSE(Store().updateOrInsertAppRow(Row("u2", "g2")));
    ++finished;
  });
  EXPECT_TRUE(RunUntil([&] { return finished == 5; }));
  caller.join();
  ZMLog::setSink(nullptr);
  EXPECT_EQ(logThreads, std::vector<std::thread::id>{std::this_thread::get_id()});
}
