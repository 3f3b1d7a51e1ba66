// SQLite, loaded by the first use of the event log, and owners of its handles.
#pragma once

#include <memory>

#include <sqlite3.h>

namespace fenro {

struct SqliteApi {
  decltype(sqlite3_open_v2)* open_v2 = nullptr;
  decltype(sqlite3_close)* close = nullptr;
  decltype(sqlite3_busy_timeout)* busy_timeout = nullptr;
  decltype(sqlite3_exec)* exec = nullptr;
  decltype(sqlite3_prepare_v2)* prepare_v2 = nullptr;
  decltype(sqlite3_bind_int64)* bind_int64 = nullptr;
  decltype(sqlite3_bind_text)* bind_text = nullptr;
  decltype(sqlite3_step)* step = nullptr;
  decltype(sqlite3_finalize)* finalize = nullptr;
  decltype(sqlite3_column_count)* column_count = nullptr;
  decltype(sqlite3_column_name)* column_name = nullptr;
  decltype(sqlite3_column_text)* column_text = nullptr;
  decltype(sqlite3_column_int64)* column_int64 = nullptr;
};

// The functions, or null where the library is not installed.
[[nodiscard]] const SqliteApi* sqlite();

struct CloseDatabase {
  void operator()(sqlite3* database) const noexcept { sqlite()->close(database); }
};
struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const noexcept { sqlite()->finalize(statement); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

}  // namespace fenro
