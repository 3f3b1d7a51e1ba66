#include "daemons/ormeld/query.h"

#include <algorithm>
#include <cstring>

#include "base/log_db_records.h"
#include "libmibservice/wire.h"

namespace fenro::ormeld {
namespace {

constexpr std::int64_t ALL_ROWS = -1;
constexpr std::int64_t DESCENDING = 1;

// What the bus carries, less the frame's status and the head of the answer.
std::int64_t rows_of_one_answer(const TableInfo& table) {
  constexpr std::size_t ROOM = bus::MAX_FRAME - bus::NUMBER - sizeof(db_query_answer<char>);
  return static_cast<std::int64_t>(ROOM / table.record_size);
}

// The condition of a request, if it has one. False for an unterminated text or an unknown column.
bool take_condition(const TableInfo& table, std::string_view request, RowQuery& out) {
  const auto field = text_in(request.substr(offsetof(db_query_cond, field), DB_TEXT_SIZE));
  const auto value = text_in(request.substr(offsetof(db_query_cond, value), DB_TEXT_SIZE));
  if (!field || !value) return false;
  if (field->empty()) return true;
  out.condition = find_column(table, *field);
  out.value = *value;
  return out.condition.has_value();
}

}  // namespace

std::optional<RowQuery> parse_query(const TableInfo& table, std::string_view request) {
  db_query_cond cond;
  if (request.size() != sizeof cond) return {};
  std::memcpy(&cond, request.data(), sizeof cond);
  const auto columns = static_cast<std::int64_t>(table.columns.size());
  if (cond.start < 0 || cond.count < ALL_ROWS || cond.order_by < 0 || cond.order_by >= columns)
    return {};

  RowQuery query;
  const std::int64_t most = rows_of_one_answer(table);
  query.start = cond.start;
  query.count = cond.count == ALL_ROWS ? most : std::min(cond.count, most);
  query.order_by = static_cast<std::size_t>(cond.order_by);
  query.descending = cond.order_style == DESCENDING;
  if (!take_condition(table, request, query)) return {};
  return query;
}

std::string select_text(const TableInfo& table, const RowQuery& query) {
  const auto name = [&](std::size_t column) { return quoted(table.columns[column].name); };
  std::string text = "SELECT ";
  for (std::size_t i = 0; i < table.columns.size(); ++i) text += name(i) + ",";
  text.back() = ' ';
  text += "FROM " + quoted(table.name);
  if (query.common) text += " INDEXED BY " + index_name(table, query.order_by);
  if (query.condition) text += " WHERE " + name(*query.condition) + " = ?";

  const char* const direction = query.descending ? " DESC" : "";
  text += " ORDER BY " + name(query.order_by) + direction;
  // Rows that are equal in their column keep a fixed order, or pages would overlap.
  if (query.order_by != ID_COLUMN) text += ", " + name(ID_COLUMN) + direction;
  return text + " LIMIT ? OFFSET ?";
}

void append_record(const TableInfo& table, const Statement& row, std::string& out) {
  const std::size_t start = out.size();
  out.resize(start + table.record_size);
  for (std::size_t i = 0; i < table.columns.size(); ++i) {
    const Column& column = table.columns[i];
    char* const place = out.data() + start + column.offset;
    if (column.kind == Kind::Text) {
      const std::string_view text = row.text(static_cast<int>(i)).substr(0, column.size - 1);
      std::memcpy(place, text.data(), text.size());
    } else {
      const std::int64_t number = row.number(static_cast<int>(i));
      std::memcpy(place, &number, column.size);  // little-endian: the low half comes first
    }
  }
}

}  // namespace fenro::ormeld
