#include "storage/ZMDatabaseHelper.h"

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "storage/ZMDatabaseContext.h"
#include "tavo/ZMSystemDirectories.h"

// Everything below that touches the context or a live record runs inside queue_.sync, the field
// changes included, so that records are read and written by one thread at a time. Nested calls
// (an update looking its record up) run inline.

namespace {

constexpr const char* kStoreFileName = "zimo_client_sdk.db";

bool hasIds(const ZMRow& row) {
  return row.user_id && !row.user_id->empty() && row.app_id && !row.app_id->empty();
}

// The fields that a ZMRow carries into a record, in this order; played is never among them:
// only launches count plays.
void copySetFields(ZMAppRow& record, const ZMRow& row) {
  if (row.removed) record.removed = row.removed;
  if (row.auth_location) record.auth_location = row.auth_location;
  if (row.auth_user_info) record.auth_user_info = row.auth_user_info;
  if (row.auth_write_photos_album) record.auth_write_photos_album = row.auth_write_photos_album;
  if (row.auth_camera) record.auth_camera = row.auth_camera;
  if (row.auth_record) record.auth_record = row.auth_record;
  if (row.extend) record.extend = row.extend;
  if (row.reserve) record.reserve = row.reserve;
  if (row.play_at_time) record.play_at_time = row.play_at_time;
}

// Saves and logs a failure; the changes stay pending either way.
bool saveLoggingError(ZMDatabaseContext& context) {
  ZMError error;
  if (context.save(&error)) return true;
  ZMLogFormat("%@", {error});
  return false;
}

}  // namespace

ZMDatabaseHelper& ZMDatabaseHelper::getInstance() {
  // Never destroyed: background callers may still reach it while the process exits.
  static ZMDatabaseHelper* instance = new ZMDatabaseHelper();
  return *instance;
}

bool ZMDatabaseHelper::createDataBase() {
  bool opened = false;
  queue_.sync([&] {
    const std::string documents = ZMSystemDirectories::documentsDirectory();
    ZMError error;
    if (!ZMFileManager::createDirectory(documents, &error)) return;
    auto context = ZMDatabaseContext::open(ZMPathJoin(documents, kStoreFileName), &error);
    if (!context) {
      ZMLogFormat("%@", {error});  // the host hears only "create database error"
      return;
    }
    if (savesFailForTesting_) context->setQueryOnly(true);
    context_ = std::move(context);
    opened = true;
  });
  return opened;
}

void ZMDatabaseHelper::insertOrUpdateExtraAndPlay(const std::string& userId,
                                                  const std::string& appId,
                                                  const std::optional<std::string>& extend) {
  queue_.sync([&] {
    if (!context_) return;
    auto record = getAppRowByUserId(userId, appId);
    if (record) {
      record->played = record->played.value_or(0) + 1;
    } else {
      record = context_->insertNewRow();
      record->user_id = userId;
      record->app_id = appId;
      record->played = 1;
    }
    record->extend = extend;  // a launch without extend data clears the stored one
    record->play_at_time = ZMNow();
    saveLoggingError(*context_);
  });
}

std::shared_ptr<ZMAppRow> ZMDatabaseHelper::getAppRowByUserId(const std::string& userId,
                                                              const std::string& appId) {
  auto rows = _getAppRowByUserId(userId, appId);
  if (!rows || rows->empty()) return nullptr;
  return rows->front();
}

std::optional<std::vector<std::shared_ptr<ZMAppRow>>> ZMDatabaseHelper::getAppidListByUserId(
    const std::string& userId) {
  return _getAppRowByUserId(userId, std::nullopt);
}

bool ZMDatabaseHelper::updateOrInsertAppRow(const ZMRow& row) {
  return _updateData(row) || _insertData(row);
}

bool ZMDatabaseHelper::removeAppRow(const std::string& userId, const std::string& appId) {
  bool saved = false;
  queue_.sync([&] {
    if (!context_) return;
    if (auto rows = _getAppRowByUserId(userId, appId)) {
      for (const auto& row : *rows) context_->deleteRow(row);
    }
    ZMError ignored;  // removal reports only whether the save went through
    saved = context_->save(&ignored);
  });
  return saved;
}

int64_t ZMDatabaseHelper::getPeopleCount(const std::string& appId) {
  auto rows = _getAppRowByUserId(std::nullopt, appId);
  return rows ? static_cast<int64_t>(rows->size()) : 0;
}

std::optional<std::vector<std::shared_ptr<ZMAppRow>>> ZMDatabaseHelper::_getAppRowByUserId(
    const std::optional<std::string>& userId, const std::optional<std::string>& appId) {
  std::optional<std::vector<std::shared_ptr<ZMAppRow>>> rows;
  queue_.sync([&] {
    if (!context_) return;
    auto request = ZMAppRow::fetchRequest();
    request.user_id = userId;
    request.app_id = appId;
    rows = context_->fetch(request);
  });
  return rows;
}

bool ZMDatabaseHelper::_updateData(const ZMRow& row) {
  if (!hasIds(row)) return false;
  bool saved = false;
  queue_.sync([&] {
    auto record = getAppRowByUserId(*row.user_id, *row.app_id);
    if (!record) return;
    copySetFields(*record, row);
    saved = saveLoggingError(*context_);
  });
  return saved;
}

bool ZMDatabaseHelper::_insertData(const ZMRow& row) {
  if (!hasIds(row)) return false;
  bool saved = false;
  queue_.sync([&] {
    if (!context_) return;
    auto record = context_->insertNewRow();
    record->user_id = row.user_id;
    record->app_id = row.app_id;
    copySetFields(*record, row);
    saved = saveLoggingError(*context_);
  });
  return saved;
}

void ZMDatabaseHelper::setSavesFailForTesting(bool fail) {
  queue_.sync([&] {
    savesFailForTesting_ = fail;
    if (context_) context_->setQueryOnly(fail);
  });
}

void ZMDatabaseHelper::resetForTesting() {
  queue_.sync([&] {
    context_.reset();
    savesFailForTesting_ = false;
  });
}
