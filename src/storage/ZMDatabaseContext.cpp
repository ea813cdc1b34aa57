#include "storage/ZMDatabaseContext.h"

#include <sqlite3.h>

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

namespace {

// Foundation's object-store codes, which the context's errors carry.
constexpr int64_t kPersistentStoreSaveError = 134030;
constexpr int64_t kPersistentStoreOpenError = 134080;

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS AppRow ("
    "user_id TEXT, app_id TEXT, removed INTEGER, played INTEGER, auth_location INTEGER, "
    "auth_user_info INTEGER, auth_record INTEGER, auth_write_photos_album INTEGER, "
    "auth_camera INTEGER, extend TEXT, reserve TEXT, play_at_time REAL)";
constexpr const char* kColumns =
    "user_id, app_id, removed, played, auth_location, auth_user_info, auth_record, "
    "auth_write_photos_album, auth_camera, extend, reserve, play_at_time";

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

Statement prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    sqlite3_finalize(stmt);
    stmt = nullptr;
  }
  return Statement(stmt, &sqlite3_finalize);
}

bool execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// The twelve fields in table order (const or not, as `f` is).
template <class Fields>
auto tied(Fields& f) {
  return std::tie(f.user_id, f.app_id, f.removed, f.played, f.auth_location, f.auth_user_info,
                  f.auth_record, f.auth_write_photos_album, f.auth_camera, f.extend, f.reserve,
                  f.play_at_time);
}

bool matches(const ZMAppRowFields& fields, const std::optional<std::string>& userId,
             const std::optional<std::string>& appId) {
  return (!userId || fields.user_id == *userId) && (!appId || fields.app_id == *appId);
}

int bind(sqlite3_stmt* stmt, int index, const std::optional<std::string>& value) {
  if (!value) return sqlite3_bind_null(stmt, index);
  return sqlite3_bind_text64(stmt, index, value->data(), value->size(), SQLITE_TRANSIENT,
                             SQLITE_UTF8);
}

int bind(sqlite3_stmt* stmt, int index, const std::optional<int64_t>& value) {
  return value ? sqlite3_bind_int64(stmt, index, *value) : sqlite3_bind_null(stmt, index);
}

int bind(sqlite3_stmt* stmt, int index, const std::optional<double>& value) {
  return value ? sqlite3_bind_double(stmt, index, *value) : sqlite3_bind_null(stmt, index);
}

// Binds the twelve fields to parameters 1...12.
bool bindFields(sqlite3_stmt* stmt, const ZMAppRowFields& f) {
  int index = 0;
  bool ok = true;
  std::apply(
      [&](const auto&... field) { ((ok = ok && bind(stmt, ++index, field) == SQLITE_OK), ...); },
      tied(f));
  return ok;
}

void read(sqlite3_stmt* stmt, int column, std::optional<std::string>& out) {
  if (sqlite3_column_type(stmt, column) == SQLITE_NULL) return out.reset();
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  out.emplace(text ? text : "", static_cast<std::size_t>(sqlite3_column_bytes(stmt, column)));
}

void read(sqlite3_stmt* stmt, int column, std::optional<int64_t>& out) {
  if (sqlite3_column_type(stmt, column) == SQLITE_NULL) return out.reset();
  out = sqlite3_column_int64(stmt, column);
}

void read(sqlite3_stmt* stmt, int column, std::optional<double>& out) {
  if (sqlite3_column_type(stmt, column) == SQLITE_NULL) return out.reset();
  out = sqlite3_column_double(stmt, column);
}

// Reads columns first...first+11 into the twelve fields.
ZMAppRowFields readFields(sqlite3_stmt* stmt, int first) {
  ZMAppRowFields fields;
  int column = first;
  std::apply([&](auto&... field) { (read(stmt, column++, field), ...); }, tied(fields));
  return fields;
}

}  // namespace

constexpr int kBusyTimeoutMs = 5000;

std::shared_ptr<ZMDatabaseContext> ZMDatabaseContext::open(const std::string& path,
                                                           ZMError* error) {
  sqlite3* db = nullptr;
  const int rc =
      sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  // Another process may hold the file's lock for a moment: wait for it from the first statement
  // on. Opening is lazy: the table statement is what first reads the file.
  if (db) sqlite3_busy_timeout(db, kBusyTimeoutMs);
  if (rc != SQLITE_OK || !execute(db, kCreateTable)) {
    if (error) {
      *error =
          ZMError(kZMCocoaErrorDomain, kPersistentStoreOpenError,
                  ZMValue{{kZMLocalizedDescriptionKey, db ? sqlite3_errmsg(db) : "out of memory"},
                          {"NSSQLiteErrorDomain", db ? sqlite3_extended_errcode(db) : rc},
                          {"path", path}});
    }
    sqlite3_close(db);
    return nullptr;
  }
  return std::shared_ptr<ZMDatabaseContext>(new ZMDatabaseContext(db));
}

ZMDatabaseContext::~ZMDatabaseContext() { sqlite3_close(db_); }

ZMError ZMDatabaseContext::lastError(int64_t code) const {
  return ZMError(kZMCocoaErrorDomain, code,
                 ZMValue{{kZMLocalizedDescriptionKey, sqlite3_errmsg(db_)},
                         {"NSSQLiteErrorDomain", sqlite3_extended_errcode(db_)}});
}

bool ZMDatabaseContext::isDirty(const Registered& entry) const {
  return tied(*entry.row) != tied(entry.written);
}

std::optional<std::vector<std::shared_ptr<ZMAppRow>>> ZMDatabaseContext::fetch(
    const ZMAppRowFetchRequest& request) {
  const auto& userId = request.user_id;
  const auto& appId = request.app_id;
  // Only constant text goes into the statement; the ids are parameters.
  std::string sql = std::string("SELECT rowid, ") + kColumns + " FROM AppRow WHERE 1 = 1";
  if (userId) sql += " AND user_id = ?1";
  if (appId) sql += " AND app_id = ?2";
  sql += " ORDER BY rowid";
  auto stmt = prepare(db_, sql);
  if (!stmt) return std::nullopt;
  if (userId && bind(stmt.get(), 1, userId) != SQLITE_OK) return std::nullopt;
  if (appId && bind(stmt.get(), 2, appId) != SQLITE_OK) return std::nullopt;

  const std::set<int64_t> deleted(deleted_.begin(), deleted_.end());
  std::set<int64_t> stored;  // rowids that match in the file
  int rc;
  while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    const int64_t rowId = sqlite3_column_int64(stmt.get(), 0);
    stored.insert(rowId);
    if (registered_.count(rowId)) continue;  // the live object wins over the file
    auto row = std::make_shared<ZMAppRow>();
    static_cast<ZMAppRowFields&>(*row) = readFields(stmt.get(), 1);
    row->rowId = rowId;
    registered_.emplace(rowId, Registered{row, *row});
  }
  if (rc != SQLITE_DONE) return std::nullopt;

  std::vector<std::shared_ptr<ZMAppRow>> rows;
  for (const auto& [rowId, entry] : registered_) {
    if (deleted.count(rowId)) continue;
    // A changed record matches on its current fields, an unchanged one as the file says.
    const bool match =
        isDirty(entry) ? matches(*entry.row, userId, appId) : stored.count(rowId) > 0;
    if (match) rows.push_back(entry.row);
  }
  for (const auto& row : inserted_) {
    if (matches(*row, userId, appId)) rows.push_back(row);
  }
  return rows;
}

std::shared_ptr<ZMAppRow> ZMDatabaseContext::insertNewRow() {
  auto row = std::make_shared<ZMAppRow>();
  inserted_.push_back(row);
  return row;
}

void ZMDatabaseContext::deleteRow(const std::shared_ptr<ZMAppRow>& row) {
  if (!row) return;
  if (auto it = std::find(inserted_.begin(), inserted_.end(), row); it != inserted_.end()) {
    inserted_.erase(it);
    return;
  }
  auto it = registered_.find(row->rowId);
  if (it == registered_.end() || it->second.row != row) return;  // not this context's record
  if (std::find(deleted_.begin(), deleted_.end(), row->rowId) == deleted_.end()) {
    deleted_.push_back(row->rowId);
  }
}

bool ZMDatabaseContext::hasChanges() const {
  if (!inserted_.empty() || !deleted_.empty()) return true;
  return std::any_of(registered_.begin(), registered_.end(),
                     [this](const auto& item) { return isDirty(item.second); });
}

bool ZMDatabaseContext::save(ZMError* error) {
  if (!hasChanges()) return true;
  const std::set<int64_t> deleted(deleted_.begin(), deleted_.end());
  std::vector<int64_t> newRowIds;

  // Runs inside the transaction; nothing in memory changes until it has committed.
  auto write = [&]() -> bool {
    auto remove = prepare(db_, "DELETE FROM AppRow WHERE rowid = ?1");
    if (!remove) return false;
    for (int64_t rowId : deleted_) {
      sqlite3_reset(remove.get());
      if (sqlite3_bind_int64(remove.get(), 1, rowId) != SQLITE_OK) return false;
      if (sqlite3_step(remove.get()) != SQLITE_DONE) return false;
    }
    auto update =
        prepare(db_,
                "UPDATE AppRow SET user_id = ?1, app_id = ?2, removed = ?3, played = ?4, "
                "auth_location = ?5, auth_user_info = ?6, auth_record = ?7, "
                "auth_write_photos_album = ?8, auth_camera = ?9, extend = ?10, reserve = ?11, "
                "play_at_time = ?12 WHERE rowid = ?13");
    if (!update) return false;
    for (const auto& [rowId, entry] : registered_) {
      if (deleted.count(rowId) || !isDirty(entry)) continue;
      sqlite3_reset(update.get());
      if (!bindFields(update.get(), *entry.row)) return false;
      if (sqlite3_bind_int64(update.get(), 13, rowId) != SQLITE_OK) return false;
      if (sqlite3_step(update.get()) != SQLITE_DONE) return false;
    }
    auto insert = prepare(db_, std::string("INSERT INTO AppRow (") + kColumns +
                                   ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)");
    if (!insert) return false;
    for (const auto& row : inserted_) {
      sqlite3_reset(insert.get());
      if (!bindFields(insert.get(), *row)) return false;
      if (sqlite3_step(insert.get()) != SQLITE_DONE) return false;
      newRowIds.push_back(sqlite3_last_insert_rowid(db_));
    }
    return execute(db_, "COMMIT");
  };

  if (!execute(db_, "BEGIN") || !write()) {
    if (error) *error = lastError(kPersistentStoreSaveError);
    if (!sqlite3_get_autocommit(db_)) execute(db_, "ROLLBACK");
    return false;
  }

  for (int64_t rowId : deleted_) registered_.erase(rowId);
  deleted_.clear();
  for (auto& [rowId, entry] : registered_) entry.written = *entry.row;
  for (std::size_t i = 0; i < inserted_.size(); ++i) {
    inserted_[i]->rowId = newRowIds[i];
    registered_[newRowIds[i]] = Registered{inserted_[i], *inserted_[i]};
  }
  inserted_.clear();
  return true;
}

bool ZMDatabaseContext::setQueryOnly(bool queryOnly) {
  return execute(db_, queryOnly ? "PRAGMA query_only = 1" : "PRAGMA query_only = 0");
}
