#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/ZMSerialQueue.h"
#include "storage/ZMAppRow.h"

class ZMDatabaseContext;

// ZMDatabaseHelper is the process's per-user app record store: table "AppRow" in
// Documents/"zimo_client_sdk.db". Its context is bound to the store's own serial queue: every
// query, save and deletion runs there and the call returns once it has run (a save is on disk
// when the call returns). No call waits for the main queue, so the engine thread and the pool
// use the store while the host's main thread is busy or waiting for them. Ids are bound as
// parameters; matching is exact.
//
// A failed save is not rolled back: the changed or inserted records stay pending in the context
// and are written by the next successful save. Until createDataBase succeeds, queries return
// null and writes fail.
class ZMDatabaseHelper {
 public:
  static ZMDatabaseHelper& getInstance();

  // Opens Documents/"zimo_client_sdk.db" (creating the table). A second call opens a new context
  // and replaces the first.
  bool createDataBase();
  // Counts a successful launch: played + 1 (1 for a new record), extend set (also to null),
  // play_at_time now.
  void insertOrUpdateExtraAndPlay(const std::string& userId, const std::string& appId,
                                  const std::optional<std::string>& extend);
  std::shared_ptr<ZMAppRow> getAppRowByUserId(const std::string& userId, const std::string& appId);
  // Every record of the user, in store order; null on a query error.
  std::optional<std::vector<std::shared_ptr<ZMAppRow>>> getAppidListByUserId(
      const std::string& userId);
  // _updateData, falling back to _insertData when the update fails.
  bool updateOrInsertAppRow(const ZMRow& row);
  bool removeAppRow(const std::string& userId, const std::string& appId);
  // Records with this app id over all users; 0 on a query error.
  int64_t getPeopleCount(const std::string& appId);

  std::optional<std::vector<std::shared_ptr<ZMAppRow>>> _getAppRowByUserId(
      const std::optional<std::string>& userId, const std::optional<std::string>& appId);
  bool _updateData(const ZMRow& row);
  bool _insertData(const ZMRow& row);

  // Runs the block on the store's queue, where the live records returned above may be read.
  void sync(const std::function<void()>& block) { queue_.sync(block); }

  // Makes every later save fail (as a full or read-only disk would) until called with false.
  void setSavesFailForTesting(bool fail);
  // Closes the context, as before the first createDataBase, and lets saves succeed again.
  void resetForTesting();

 private:
  ZMDatabaseHelper() = default;
  ZMDatabaseHelper(const ZMDatabaseHelper&) = delete;
  ZMDatabaseHelper& operator=(const ZMDatabaseHelper&) = delete;

  ZMSerialQueue queue_;
  std::shared_ptr<ZMDatabaseContext> context_;
  bool savesFailForTesting_ = false;
};
