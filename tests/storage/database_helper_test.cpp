#include "storage/ZMDatabaseHelper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "storage/RawStore.h"

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

TEST(ZMDatabaseHelper, ListsAndCountsMatchIdsExactly) {
  FreshStore store;
  const std::string quoted = "it's 100%";
  for (auto [user, app] : {std::pair{"u1", "g1"},
                           {"u1", "g2"},
                           {"u2", "g1"},
                           {"U1", "g1"},
                           {"o'brien", quoted.c_str()},
                           {"%", quoted.c_str()},
                           {"x' OR 'a'='a", "_"}}) {
    Store().insertOrUpdateExtraAndPlay(user, app, std::nullopt);
  }
  EXPECT_EQ(AppIds(Store().getAppidListByUserId("u1")), (Rows{"g1", "g2"}));
  EXPECT_EQ(Store().getPeopleCount("g1"), 3);
  EXPECT_EQ(Store().getPeopleCount(quoted), 2);
  EXPECT_EQ(Store().getPeopleCount("%"), 0);
  EXPECT_EQ(AppIds(Store().getAppidListByUserId("%")), Rows{quoted});
  EXPECT_EQ(AppIds(Store().getAppidListByUserId("x' OR 'a'='a")), Rows{"_"});
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("", "g1")));

  EXPECT_TRUE(Store().removeAppRow("o'brien", quoted));
  for (const char* user : {"u1", "u2", "U1"}) EXPECT_TRUE(Store().removeAppRow(user, "g1"));
  EXPECT_TRUE(Store().removeAppRow("u1", "missing"));  // nothing to delete still saves fine
  EXPECT_EQ(store.raw("SELECT user_id, app_id FROM AppRow"),
            (Rows{"u1|g2", "%|it's 100%", "x' OR 'a'='a|_"}));
}

TEST(ZMDatabaseHelper, FailedSavesStayPendingUntilTheNextSave) {
  FreshStore store;
  LogCapture log;
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  Store().setSavesFailForTesting(true);
  ZMRow row = Row("u1", "g1");
  row.auth_camera = 1;
  // The update's save fails, so the row is inserted as well, and that save fails too.
  EXPECT_FALSE(Store().updateOrInsertAppRow(row));
  EXPECT_EQ(log.startingWith("Error Domain=NSCocoaErrorDomain Code=134030").size(), 2u);
  EXPECT_EQ(store.raw("SELECT app_id, auth_camera FROM AppRow"), Rows{"g1|NULL"});
  EXPECT_EQ(Store().getPeopleCount("g1"), 2);  // the context already holds both

  Store().setSavesFailForTesting(false);
  Store().insertOrUpdateExtraAndPlay("u3", "g3", std::nullopt);
  EXPECT_EQ(store.raw("SELECT user_id, app_id, played, auth_camera FROM AppRow"),
            (Rows{"u1|g1|1|1", "u1|g1|NULL|1", "u3|g3|1|NULL"}));
}

TEST(ZMDatabaseHelper, UnopenedStoreAnswersNothingAndWritesNothing) {
  ScopedSystemDirectories dirs;
  Store().resetForTesting();
  WriteFile(dirs.documents() + "/zimo_client_sdk.db/inside", "");  // the store is a directory
  EXPECT_FALSE(Store().createDataBase());
  EXPECT_EQ(Store().getAppidListByUserId("u1"), std::nullopt);
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("u1", "g1")));
  EXPECT_FALSE(Store().removeAppRow("u1", "g1"));
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_EQ(Store().getPeopleCount("g1"), 0);
  Store().resetForTesting();
}

TEST(ZMDatabaseHelper, BackgroundCallersRunOnTheMainThread) {
  FreshStore store;
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
}
