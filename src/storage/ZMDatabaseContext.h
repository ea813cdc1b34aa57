#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "storage/ZMAppRow.h"
#include "tavo/ZMError.h"

struct sqlite3;

// ZMDatabaseContext is the object context of the record store: one SQLite connection to the
// store file, an identity map that keeps exactly one live ZMAppRow per stored row, and the
// changes made since the last successful save (inserted records, records whose fields differ
// from what was last written, deleted records).
//
// Queries see the context, not only the file: pending inserts that match are returned after the
// stored rows, pending deletions are left out, and a changed record matches on its current
// fields. save() writes every pending change in one transaction; when it fails the transaction
// is rolled back in the file but the changes stay pending, so the next successful save writes
// them.
//
// Not thread-safe: ZMDatabaseHelper uses it only on its serial queue.
class ZMDatabaseContext {
 public:
  // Opens (creating when missing) the SQLite file at `path` and its "AppRow" table; null with
  // `error` set when the file cannot be opened or is not a database.
  static std::shared_ptr<ZMDatabaseContext> open(const std::string& path, ZMError* error);
  ~ZMDatabaseContext();
  ZMDatabaseContext(const ZMDatabaseContext&) = delete;
  ZMDatabaseContext& operator=(const ZMDatabaseContext&) = delete;

  // Every record the request matches, in store order, pending inserts last; null when the query
  // fails.
  std::optional<std::vector<std::shared_ptr<ZMAppRow>>> fetch(const ZMAppRowFetchRequest& request);
  // A new record with every field null, written by the next successful save.
  std::shared_ptr<ZMAppRow> insertNewRow();
  // Marks a record of this context for deletion by the next save; an unsaved record is dropped.
  void deleteRow(const std::shared_ptr<ZMAppRow>& row);
  bool hasChanges() const;
  // Writes every pending change; on failure keeps them pending and describes the failure.
  bool save(ZMError* error);
  // A read-only connection: every later write, and so every save with changes, fails in SQLite.
  bool setQueryOnly(bool queryOnly);

 private:
  struct Registered {
    std::shared_ptr<ZMAppRow> row;
    ZMAppRowFields written;  // the fields as last read from or written to the file
  };

  explicit ZMDatabaseContext(sqlite3* db) : db_(db) {}
  bool isDirty(const Registered& entry) const;
  ZMError lastError(int64_t code) const;

  sqlite3* db_;
  std::map<int64_t, Registered> registered_;  // by rowid: store order
  std::vector<std::shared_ptr<ZMAppRow>> inserted_;
  std::vector<int64_t> deleted_;  // rowids of registered records
};
