// What is kept: the tables, their columns, and where each value is in a record.
// A column's number, by which callers order, is its place in the record, 0 being the id that
// numbers rows as they come.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace fenro::ormeld {

enum class Kind { Number32, Number64, Text };

struct Column {
  const char* name;
  Kind kind;
  std::size_t offset;
  std::size_t size;  // 0: kept here, but not in the record
};

struct TableInfo {
  const char* name;
  std::size_t record_size;
  std::span<const Column> columns;  // the first is the id
  std::int64_t rows_kept;           // the oldest ones beyond are dropped
  std::size_t age;                  // number of the column by which a row is old
};

enum TableId : std::size_t {
  SERVER_LOG,
  CLIENT_LOG,
  EVENT,
  SERVER_LIST,
  DEVICE_INFO,
  USER_BLOCK,
  TABLE_COUNT
};

constexpr std::size_t ID_COLUMN = 0;

[[nodiscard]] const TableInfo& table_info(TableId table);

// The number of a column of a name, if there is one.
[[nodiscard]] std::optional<std::size_t> find_column(const TableInfo& table, std::string_view name);

// Names as they stand in SQL. They come from the tables of columns only, never from a request.
[[nodiscard]] std::string quoted(const char* name);
[[nodiscard]] std::string index_name(const TableInfo& table, std::size_t column);

// The text in an array that must hold its closing zero; nothing when it does not.
[[nodiscard]] std::optional<std::string_view> text_in(std::string_view array);

// Whether the bytes are a record of the table: of its size, every text closed.
[[nodiscard]] bool is_record(const TableInfo& table, std::string_view bytes);

}  // namespace fenro::ormeld
