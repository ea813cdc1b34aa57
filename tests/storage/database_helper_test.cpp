#include "storage/ZMDatabaseHelper.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "storage/RawStore.h"

namespace {

ZMDatabaseHelper& Store() { return ZMDatabaseHelper::getInstance(); }

ZMRow Row(const std::string& user, const std::string& app, std::optional<int64_t> camera = {}) {
  ZMRow row;
  row.user_id = user;
  row.app_id = app;
  row.auth_camera = camera;
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
TEST(ZMDatabaseHelper, LaunchesCountPlaysOnOneLiveRecordKeptOnDisk) {
  FreshStore store;
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::string("level=3"));
  auto record = Store().getAppRowByUserId("u1", "g1");
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_EQ(Store().getAppRowByUserId("u1", "g1"), record);  // one live object per record
  // A reopened store reads the count back from the file.
  Store().resetForTesting();
  ASSERT_TRUE(Store().createDataBase());
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::string("again"));
  EXPECT_EQ(store.raw("SELECT user_id, app_id, played, extend FROM AppRow"), Rows{"u1|g1|3|again"});
}

TEST(ZMDatabaseHelper, ListsAndCountsMatchIdsExactly) {
  FreshStore store;
  const std::string quoted = "it's 100%";
  const std::pair<std::string, std::string> records[] = {
      {"u1", "g1"},        {"u1", "g2"},  {"u2", "g1"},         {"U1", "g1"},
      {"o'brien", quoted}, {"%", quoted}, {"x' OR 'a'='a", "_"}};
  for (const auto& [user, app] : records) {
    Store().insertOrUpdateExtraAndPlay(user, app, std::nullopt);
  }
  EXPECT_EQ(AppIds("u1"), (Rows{"g1", "g2"}));
  EXPECT_EQ(AppIds("%"), Rows{quoted});
  EXPECT_EQ(AppIds("x' OR 'a'='a"), Rows{"_"});
  EXPECT_EQ(Store().getPeopleCount("g1"), 3);
  EXPECT_EQ(Store().getPeopleCount(quoted), 2);
  EXPECT_EQ(Store().getPeopleCount("%"), 0);

  EXPECT_TRUE(Store().removeAppRow("o'brien", quoted));
  for (const char* user : {"u1", "u2", "U1"}) EXPECT_TRUE(Store().removeAppRow(user, "g1"));
  EXPECT_TRUE(Store().removeAppRow("u1", "missing"));  // nothing to delete still saves fine
  EXPECT_EQ(store.raw("SELECT user_id, app_id FROM AppRow"),
            (Rows{"u1|g2", "%|it's 100%", "x' OR 'a'='a|_"}));
}

TEST(ZMDatabaseHelper, UpdateFallsBackToInsertAndFailedSavesStayPending) {
  FreshStore store;
  LogCapture log;
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("", "g1")));
  Store().setSavesFailForTesting(true);
  // The update's save fails, so the row is inserted as well, and that save fails too.
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("u1", "g1", 1)));
  EXPECT_EQ(log.startingWith("Error Domain=NSCocoaErrorDomain Code=134030").size(), 2u);
  EXPECT_EQ(store.raw("SELECT app_id, auth_camera FROM AppRow"), Rows{"g1|NULL"});
  EXPECT_EQ(Store().getPeopleCount("g1"), 2);  // the context already holds both

  Store().setSavesFailForTesting(false);
  Store().insertOrUpdateExtraAndPlay("u3", "g3", std::nullopt);
  EXPECT_EQ(store.raw("SELECT user_id, app_id, played, auth_camera FROM AppRow"),
            (Rows{"u1|g1|1|1", "u1|g1|NULL|1", "u3|g3|1|NULL"}));
}

TEST(ZMDatabaseHelper, UnopenedStoreAnswersNothingAndWritesNothing) {
  ScopedSystemDirectories dirs;  // should anything open after all, it is a fresh store
  Store().resetForTesting();  // as when createDataBase failed, which the runtime tests make happen
  EXPECT_EQ(Store().getAppidListByUserId("u1"), std::nullopt);
  EXPECT_FALSE(Store().updateOrInsertAppRow(Row("u1", "g1")));
  EXPECT_FALSE(Store().removeAppRow("u1", "g1"));
  Store().insertOrUpdateExtraAndPlay("u1", "g1", std::nullopt);
  EXPECT_EQ(Store().getPeopleCount("g1"), 0);
}

TEST(ZMDatabaseHelper, BackgroundCallersAreSerialisedWithoutTheMainQueue) {
  FreshStore store;
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
  EXPECT_EQ(store.raw("SELECT played FROM AppRow"), Rows{"40"});
}

TEST(ZMDatabaseHelper, AStoreThatCannotOpenSaysWhyInTheLog) {
  ScopedSystemDirectories dirs;
  std::filesystem::create_directories(dirs.documents() + "/zimo_client_sdk.db");
  LogCapture log;
  EXPECT_FALSE(Store().createDataBase());
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("unable to open database file"), std::string::npos)
      << log.lines()[0];
  Store().resetForTesting();
}
