#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

#include "storage/ZMDatabaseHelper.h"
#include "support/TestSupport.h"

using Rows = std::vector<std::string>;

// A store opened on a fresh Documents directory for one test, closed at its end. Should it fail
// to open, every row a test expects is missing.
struct FreshStore {
  ScopedSystemDirectories dirs;
  FreshStore() {
    ZMDatabaseHelper::getInstance().resetForTesting();
    ZMDatabaseHelper::getInstance().createDataBase();
  }
  ~FreshStore() { ZMDatabaseHelper::getInstance().resetForTesting(); }

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
};
