// A request for rows, checked: every number is within its bounds, every column one of the table.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "daemons/ormeld/database.h"
#include "daemons/ormeld/tables.h"

namespace fenro::ormeld {

struct RowQuery {
  std::int64_t start = 0;
  std::int64_t count = 0;  // no more than fit into one answer
  std::size_t order_by = ID_COLUMN;
  bool descending = false;
  std::optional<std::size_t> condition{};  // column that must be `value`
  std::string_view value{};                // within the request
  bool common = false;  // many rows meet the condition: rows are walked in their order instead of
                        // found and sorted
};

// From a db_query_cond; nothing for one that makes no sense. A value that cannot be in its column
// just finds no row.
[[nodiscard]] std::optional<RowQuery> parse_query(const TableInfo& table, std::string_view request);

// The statement that selects all columns; its marks are the condition's value, if any, count and
// start.
[[nodiscard]] std::string select_text(const TableInfo& table, const RowQuery& query);

// Appends a record with the values of a selected row to `out`.
void append_record(const TableInfo& table, const Statement& row, std::string& out);

}  // namespace fenro::ormeld
