// One table of the log database: rows in as records, rows out as records.
// Methods answer with a status of the bus: MIB_IS_INVALID for a request that makes no sense,
// MIB_IO_FAILURE when the database refuses; either leaves the table as it was.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "daemons/ormeld/database.h"
#include "daemons/ormeld/query.h"
#include "daemons/ormeld/tables.h"

namespace fenro::ormeld {

class Table {
 public:
  Table(Database& database, const TableInfo& info) : database_(database), info_(info) {}

  // Makes table and indexes where they are missing, and counts the rows. SQLITE_OK or an error.
  [[nodiscard]] int open();

  // Adds a record under a new id, whatever id it brings, and drops the oldest rows beyond the
  // limit.
  [[nodiscard]] int insert(std::string_view record);

  // Answers a db_query_cond with head and rows. `total` counts the whole table, condition or not.
  [[nodiscard]] int query(std::string_view request, std::string& answer);

  // Deletes the rows of a value; that there are none is no failure.
  [[nodiscard]] int remove(std::size_t column, std::string_view value);
  [[nodiscard]] int remove(std::int64_t id);
  [[nodiscard]] int clean();

  [[nodiscard]] std::int64_t rows() const { return rows_; }
  [[nodiscard]] const TableInfo& info() const { return info_; }

 private:
  [[nodiscard]] bool is_common(const RowQuery& query);
  [[nodiscard]] bool make_room(std::int64_t& rows);
  [[nodiscard]] bool add_row(std::string_view record);
  [[nodiscard]] int remove_by(Statement& statement);

  Database& database_;
  const TableInfo& info_;
  std::int64_t rows_ =
      0;  // kept, as counting costs a walk over the table; there is no other writer
};

}  // namespace fenro::ormeld
