#include "daemons/ormeld/table.h"

#include <algorithm>
#include <cstring>

#include <fenro/mibservice.h>

#include "base/log_db_records.h"
#include "daemons/ormeld/query.h"

namespace fenro::ormeld {
namespace {

constexpr std::int64_t SORTED_ROWS = 1000;

// AUTOINCREMENT: a number that was handed out never comes back, so a late deletion cannot hit
// another row.
std::string schema(const TableInfo& table) {
  const std::string name = quoted(table.name);
  std::string columns = "\"id\" INTEGER PRIMARY KEY AUTOINCREMENT";
  std::string indexes;
  for (std::size_t i = ID_COLUMN + 1; i < table.columns.size(); ++i) {
    const std::string column = quoted(table.columns[i].name);
    columns += ", " + column +
               (table.columns[i].kind == Kind::Text ? " TEXT NOT NULL" : " INTEGER NOT NULL");
    indexes.append("CREATE INDEX IF NOT EXISTS ").append(index_name(table, i));
    indexes.append(" ON ").append(name).append(" (").append(column).append(");");
  }
  return "CREATE TABLE IF NOT EXISTS " + name + " (" + columns + ");" + indexes;
}

std::string insert_text(const TableInfo& table) {
  const std::string start = "INSERT INTO " + quoted(table.name);
  const auto columns = table.columns.subspan(1);
  if (columns.empty()) return start + " DEFAULT VALUES";
  std::string names, marks;
  for (const Column& column : columns) {
    names += "," + quoted(column.name);
    marks += ",?";
  }
  return start + " (" + names.substr(1) + ") VALUES (" + marks.substr(1) + ")";
}

std::string prune_text(const TableInfo& table) {
  const std::string name = quoted(table.name);
  const std::string age = quoted(table.columns[table.age].name);
  return "DELETE FROM " + name + " WHERE \"id\" IN (SELECT \"id\" FROM " + name + " ORDER BY " +
         age + ", \"id\" LIMIT ?)";
}

std::int64_t number_in(std::string_view bytes, const Column& column) {
  if (column.kind == Kind::Number32) {
    std::int32_t number = 0;
    std::memcpy(&number, bytes.data() + column.offset, sizeof number);
    return number;
  }
  std::int64_t number = 0;
  std::memcpy(&number, bytes.data() + column.offset, sizeof number);
  return number;
}

}  // namespace

int Table::open() {
  if (const int rc = database_.execute(schema(info_).c_str()); rc != SQLITE_OK) return rc;
  Statement count = database_.prepare("SELECT count(*) FROM " + quoted(info_.name));
  const int rc = count.step();
  if (rc == SQLITE_ROW) rows_ = count.number(0);
  return rc == SQLITE_ROW ? SQLITE_OK : rc;
}

bool Table::make_room(std::int64_t& rows) {
  if (rows < info_.rows_kept) return true;
  if (!database_.prepare(prune_text(info_)).bind(rows - info_.rows_kept + 1).run()) return false;
  rows -= database_.changes();
  return true;
}

bool Table::add_row(std::string_view record) {
  Statement insert = database_.prepare(insert_text(info_));
  for (const Column& column : info_.columns.subspan(1)) {
    if (column.kind == Kind::Text) {
      insert.bind(text_in(record.substr(column.offset, column.size)).value_or(""));
    } else {
      insert.bind(number_in(record, column));
    }
  }
  return insert.run();
}

int Table::insert(std::string_view record) {
  if (!is_record(info_, record)) return MIB_IS_INVALID;
  Transaction transaction{database_};
  std::int64_t rows = rows_;
  // Room is made before the new row comes, so that it cannot be the one that goes.
  if (!transaction || !make_room(rows) || !add_row(record) || !transaction.commit())
    return MIB_IO_FAILURE;
  rows_ = rows + 1;
  return MIB_SUCCESS;
}

// Whether more rows meet the condition than one would sort for a page. Looks at no more of them
// than that.
bool Table::is_common(const RowQuery& query) {
  Statement probe =
      database_.prepare("SELECT count(*) FROM (SELECT 1 FROM " + quoted(info_.name) + " WHERE " +
                        quoted(info_.columns[*query.condition].name) + " = ? LIMIT ?)");
  return probe.bind(query.value).bind(SORTED_ROWS).step() == SQLITE_ROW &&
         probe.number(0) == SORTED_ROWS;
}

int Table::query(std::string_view request, std::string& answer) {
  auto query = parse_query(info_, request);
  if (!query) return MIB_IS_INVALID;
  query->common = query->condition && query->order_by != ID_COLUMN && is_common(*query);
  Statement select = database_.prepare(select_text(info_, *query));
  if (query->condition) select.bind(query->value);
  select.bind(query->count).bind(query->start);

  db_query_answer<char> head{0, static_cast<std::uint64_t>(rows_), nullptr};
  answer.assign(sizeof head, '\0');
  answer.reserve(sizeof head +
                 info_.record_size * static_cast<std::size_t>(std::min(query->count, rows_)));
  int rc = SQLITE_ROW;
  while ((rc = select.step()) == SQLITE_ROW) {
    append_record(info_, select, answer);
    ++head.count;
  }
  std::memcpy(answer.data(), &head, sizeof head);
  return rc == SQLITE_DONE ? MIB_SUCCESS : MIB_IO_FAILURE;
}

int Table::remove_by(Statement& statement) {
  if (!statement.run()) return MIB_IO_FAILURE;
  rows_ -= database_.changes();
  return MIB_SUCCESS;
}

int Table::remove(std::size_t column, std::string_view value) {
  Statement statement = database_.prepare("DELETE FROM " + quoted(info_.name) + " WHERE " +
                                          quoted(info_.columns[column].name) + " = ?");
  return remove_by(statement.bind(value));
}

int Table::remove(std::int64_t id) {
  Statement statement =
      database_.prepare("DELETE FROM " + quoted(info_.name) + " WHERE \"id\" = ?");
  return remove_by(statement.bind(id));
}

int Table::clean() {
  Statement statement = database_.prepare("DELETE FROM " + quoted(info_.name));
  return remove_by(statement);
}

}  // namespace fenro::ormeld
