#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The twelve fields of an "AppRow" record, in the table's order. Every field may be null.
struct ZMAppRowFields {
  std::optional<std::string> user_id;
  std::optional<std::string> app_id;
  std::optional<int64_t> removed;
  std::optional<int64_t> played;
  std::optional<int64_t> auth_location;
  std::optional<int64_t> auth_user_info;
  std::optional<int64_t> auth_record;
  std::optional<int64_t> auth_write_photos_album;
  std::optional<int64_t> auth_camera;
  std::optional<std::string> extend;
  std::optional<std::string> reserve;
  std::optional<double> play_at_time;  // seconds since 1970
};

// A query over the "AppRow" table: every record, narrowed to those whose user_id and app_id
// equal the filters that are set (exact text, no patterns).
struct ZMAppRowFetchRequest {
  std::optional<std::string> user_id;
  std::optional<std::string> app_id;
};

// ZMAppRow is a live record of the store: it belongs to ZMDatabaseHelper's context, which keeps
// one object per stored row, and its changes are written by the context's next save. Read and
// change it only inside the store's operations or ZMDatabaseHelper::sync.
class ZMAppRow : public ZMAppRowFields {
 public:
  // A query with no filter.
  static ZMAppRowFetchRequest fetchRequest() { return {}; }

  // The SQLite rowid; 0 until the record's first save.
  int64_t rowId = 0;
};

// ZMRow is a detached plain copy that carries values into updateOrInsertAppRow: a null field
// leaves the stored value unchanged.
struct ZMRow : ZMAppRowFields {};
