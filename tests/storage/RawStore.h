#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

#include "storage/ZMDatabaseHelper.h"
#include "support/TestSupport.h"

using Rows = std::vector<std::string>;

// Runs `sql` on a store file through its own sqlite3 connection (what is on disk, not what the
// store's context holds); each row's columns joined by "|", NULL as "NULL".
inline Rows RawQuery(const std::string& dbPath, const std::string& sql) {
  Rows rows;
  sqlite3* db = nullptr;
  sqlite3_stmt* stmt = nullptr;
  sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    rows.push_back(std::string("error: ") + sqlite3_errmsg(db));
  }
  while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
    std::string row;
    for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
      row += (c ? "|" : "") + std::string(text ? text : "NULL");
    }
    rows.push_back(row);
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return rows;
}

// A store opened on a fresh Documents directory for one test, closed at its end.
struct FreshStore {
  ScopedSystemDirectories dirs;
  bool opened;
  FreshStore() {
    ZMDatabaseHelper::getInstance().resetForTesting();
    opened = ZMDatabaseHelper::getInstance().createDataBase();
  }
  ~FreshStore() { ZMDatabaseHelper::getInstance().resetForTesting(); }
  std::string file() const { return dirs.documents() + "/zimo_client_sdk.db"; }
  Rows raw(const std::string& sql) const { return RawQuery(file(), sql + " ORDER BY rowid"); }
};
