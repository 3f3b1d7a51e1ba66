#include "libfenro/event_store.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <thread>

#include "base/file.h"
#include "base/handle.h"
#include "libfenro/paths.h"
#include "libfenro/sqlite_api.h"

namespace fenro {
namespace {

constexpr int BUSY_TIMEOUT_MS = 5000;

// No index finds a part of a text, but the one by which the web interface asks for the events of
// its service is always the same. An index of just those events serves a query that has the very
// same condition.
constexpr std::string_view SERVICE_TAG = "[ORMEL Service]";
#define OF_SERVICE "instr(description, '[ORMEL Service]') > 0"

// Times are seconds since the epoch; the queries show them in local time.
constexpr const char* SCHEMA =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=NORMAL;"
    "CREATE TABLE IF NOT EXISTS event (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, type INTEGER "
    "NOT NULL,"
    " user TEXT NOT NULL, ip TEXT NOT NULL, computer TEXT NOT NULL, description TEXT NOT NULL,"
    " application TEXT NOT NULL, category TEXT NOT NULL, message_id TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS event_by_time ON event (time);"
    "CREATE INDEX IF NOT EXISTS event_by_type ON event (type, time);"
    "CREATE INDEX IF NOT EXISTS event_by_user ON event (user, time);"
    "CREATE INDEX IF NOT EXISTS event_by_ip ON event (ip, time);"
    "CREATE INDEX IF NOT EXISTS event_by_computer ON event (computer, time);"
    "CREATE INDEX IF NOT EXISTS event_by_source ON event (application, category, message_id, time);"
    "CREATE INDEX IF NOT EXISTS event_by_category ON event (category, time);"
    "CREATE INDEX IF NOT EXISTS event_by_message ON event (message_id, time);"
    "CREATE INDEX IF NOT EXISTS event_of_service ON event (time) WHERE " OF_SERVICE ";";

constexpr const char* INSERT =
    "INSERT INTO event (type, time, user, ip, computer, description, application, category, "
    "message_id)"
    " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr const char* PRUNE = "DELETE FROM event WHERE id <= (SELECT max(id) FROM event) - ?";

constexpr const char* COLUMNS =
    "SELECT id, type, strftime('%Y-%m-%d', time, 'unixepoch', 'localtime') AS date,"
    " strftime('%H:%M:%S', time, 'unixepoch', 'localtime') AS time, user, ip, computer, "
    "description, application,"
    " category, message_id FROM event";
constexpr const char* COUNT = "SELECT count(*) FROM event";
constexpr const char* NEWEST_FIRST = " ORDER BY event.time DESC, id DESC LIMIT ? OFFSET ?";
constexpr const char* OLDEST_FIRST = " ORDER BY event.time, id LIMIT ? OFFSET ?";

struct TextCondition {
  std::string_view EventFilter::*value;
  const char* condition;
};
constexpr TextCondition TEXT_CONDITIONS[] = {
    {&EventFilter::user, "user = ?"},         {&EventFilter::ip, "ip = ?"},
    {&EventFilter::computer, "computer = ?"}, {&EventFilter::application, "application = ?"},
    {&EventFilter::category, "category = ?"}, {&EventFilter::message_id, "message_id = ?"},
};

// A statement with the values for its marks, in their order.
class Query {
 public:
  explicit Query(const char* text) : text_(text) {}

  // The filter as a condition. False for a time that cannot be read.
  [[nodiscard]] bool add(const EventFilter& filter) {
    if (filter.type >= 0) where("type = ?", filter.type);
    if (!add_time(filter.from, "event.time >= ?", false) ||
        !add_time(filter.to, "event.time <= ?", true))
      return false;
    for (const TextCondition& row : TEXT_CONDITIONS)
      if (const std::string_view value = filter.*row.value; !value.empty())
        where(row.condition, value);
    if (filter.description == SERVICE_TAG) {
      where(OF_SERVICE);
    } else if (!filter.description.empty()) {
      where("instr(description, ?) > 0", filter.description);
    }
    return true;
  }

  Query& append(const char* text) {
    text_ += text;
    return *this;
  }
  Query& bind(sqlite3_int64 number) {
    values_.push_back({true, number, {}});
    return *this;
  }
  Query& bind(std::string_view text) {
    values_.push_back({false, 0, text});
    return *this;
  }

  // Ready to step, or null.
  [[nodiscard]] Statement prepare(sqlite3* database) const {
    sqlite3_stmt* raw = nullptr;
    const int rc =
        sqlite()->prepare_v2(database, text_.data(), static_cast<int>(text_.size()), &raw, nullptr);
    Statement statement{raw};
    if (rc != SQLITE_OK) return {};
    int mark = 0;
    for (const Value& value : values_)
      if (bind_one(raw, ++mark, value) != SQLITE_OK) return {};
    return statement;
  }

 private:
  struct Value {
    bool is_number;
    sqlite3_int64 number;
    std::string_view text;
  };

  static int bind_one(sqlite3_stmt* statement, int mark, const Value& value) {
    if (value.is_number) return sqlite()->bind_int64(statement, mark, value.number);
    // The texts outlive the statement. An empty one has no bytes to point at, but must not become a
    // NULL.
    const char* const bytes = value.text.empty() ? "" : value.text.data();
    return sqlite()->bind_text(statement, mark, bytes, static_cast<int>(value.text.size()),
                               SQLITE_STATIC);
  }

  void where(const char* condition) {
    text_.append(conditions_++ == 0 ? " WHERE " : " AND ").append(condition);
  }

  template <typename Bound>
  void where(const char* condition, Bound value) {
    where(condition);
    bind(value);
  }

  bool add_time(std::string_view text, const char* condition, bool end) {
    std::time_t seconds = 0;
    if (text.empty()) return true;
    if (!parse_time(text, end, seconds)) return false;
    where(condition, sqlite3_int64{seconds});
    return true;
  }

  std::string text_;
  std::vector<Value> values_;
  int conditions_ = 0;
};

Database open_database(const std::string& path, int flags) {
  sqlite3* raw = nullptr;
  if (!sqlite()) return {};
  const int rc = sqlite()->open_v2(path.c_str(), &raw, flags, nullptr);
  Database database{raw};  // a handle is made for a failure too
  if (rc != SQLITE_OK || sqlite()->busy_timeout(raw, BUSY_TIMEOUT_MS) != SQLITE_OK) return {};
  return database;
}

// SQLite does not wait while another process switches a new file to its write-ahead log: it answers
// at once.
bool make_schema(sqlite3* database) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds PAUSE{10};
  const auto deadline = Clock::now() + std::chrono::milliseconds{BUSY_TIMEOUT_MS};
  int rc = sqlite()->exec(database, SCHEMA, nullptr, nullptr, nullptr);
  while (rc == SQLITE_BUSY && Clock::now() < deadline) {
    std::this_thread::sleep_for(PAUSE);
    rc = sqlite()->exec(database, SCHEMA, nullptr, nullptr, nullptr);
  }
  return rc == SQLITE_OK;
}

// The log for writing. The file is made before SQLite would make it, which gives its companions the
// same mode.
Database open_for_writing(const std::string& path) {
  if (!make_private_folder(path.substr(0, path.rfind('/')))) return {};
  Fd{open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, PRIVATE_FILE)}.reset();
  Database database = open_database(path, SQLITE_OPEN_READWRITE);
  if (!database || !make_schema(database.get())) return {};
  return database;
}

bool run(sqlite3* database, const Query& query) {
  const Statement statement = query.prepare(database);
  return statement && sqlite()->step(statement.get()) == SQLITE_DONE;
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// Calls back with one row; non-zero ends the query.
int hand_out(sqlite3_stmt* statement, naslog_row row, void* context) {
  const SqliteApi& api = *sqlite();
  const int columns = api.column_count(statement);
  std::vector<char*> values;
  std::vector<char*> names;
  for (int i = 0; i < columns; ++i) {
    // The callback's type, as SQLite's own, has plain pointers; what they point at belongs to the
    // statement.
    values.push_back(
        reinterpret_cast<char*>(const_cast<unsigned char*>(api.column_text(statement, i))));
    names.push_back(const_cast<char*>(api.column_name(statement, i)));
  }
  return row(context, columns, values.data(), names.data());
}

// Takes a number of exactly `digits` digits off the text.
bool take_number(std::string_view& text, std::size_t digits, int& number) {
  if (text.size() < digits) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + digits, number);
  if (error != std::errc{} || end != text.data() + digits || number < 0) return false;
  text.remove_prefix(digits);
  return true;
}

bool take_mark(std::string_view& text, std::string_view marks) {
  if (text.empty() || marks.find(text[0]) == std::string_view::npos) return false;
  text.remove_prefix(1);
  return true;
}

bool take_clock(std::string_view text, tm& parts) {
  if (!take_mark(text, " T") || !take_number(text, 2, parts.tm_hour)) return false;
  if (!take_mark(text, ":") || !take_number(text, 2, parts.tm_min)) return false;
  if (text.empty()) return parts.tm_hour < 24 && parts.tm_min < 60;
  if (!take_mark(text, ":") || !take_number(text, 2, parts.tm_sec)) return false;
  return text.empty() && parts.tm_hour < 24 && parts.tm_min < 60 && parts.tm_sec <= 60;
}

}  // namespace

bool parse_time(std::string_view text, bool end, std::time_t& seconds) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error == std::errc{} && stop == text.data() + text.size()) return true;

  tm parts{};
  parts.tm_isdst = -1;
  if (!take_number(text, 4, parts.tm_year) || !take_mark(text, "-/") ||
      !take_number(text, 2, parts.tm_mon))
    return false;
  if (!take_mark(text, "-/") || !take_number(text, 2, parts.tm_mday)) return false;
  if (parts.tm_mon < 1 || parts.tm_mon > 12 || parts.tm_mday < 1 || parts.tm_mday > 31)
    return false;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  if (text.empty() && end) {
    parts.tm_hour = 23;
    parts.tm_min = parts.tm_sec = 59;
  }
  if (!text.empty() && !take_clock(text, parts)) return false;
  seconds = std::mktime(&parts);
  return true;
}

EventStore::EventStore() : path_(paths::EVENT_DATABASE) {}

bool EventStore::add(const Event& event) const {
  const Database database = open_for_writing(path_);
  if (!database) return false;
  Query insert{INSERT};
  insert.bind(event.type).bind(event.time).bind(event.user).bind(event.ip).bind(event.computer);
  insert.bind(event.description)
      .bind(event.application)
      .bind(event.category)
      .bind(event.message_id);
  return run(database.get(), insert) && run(database.get(), Query{PRUNE}.bind(ROWS_KEPT));
}

int EventStore::count(const EventFilter& filter) const {
  Query query{COUNT};
  if (!query.add(filter)) return -1;
  if (!exists(path_)) return 0;
  const Database database = open_database(path_, SQLITE_OPEN_READWRITE);
  const Statement statement = database ? query.prepare(database.get()) : Statement{};
  if (!statement || sqlite()->step(statement.get()) != SQLITE_ROW) return -1;
  return static_cast<int>(sqlite()->column_int64(statement.get(), 0));
}

bool EventStore::query(const EventFilter& filter, EventOrder order, int lower, int upper,
                       naslog_row row, void* context) const {
  Query query{COLUMNS};
  if (!query.add(filter)) return false;
  if (!exists(path_) || upper < lower || upper < 0) return true;
  const sqlite3_int64 first = std::max(lower, 0);
  query.append(order == EventOrder::NewestFirst ? NEWEST_FIRST : OLDEST_FIRST)
      .bind(upper - first + 1)
      .bind(first);

  const Database database = open_database(path_, SQLITE_OPEN_READWRITE);
  const Statement statement = database ? query.prepare(database.get()) : Statement{};
  if (!statement) return false;
  int rc = SQLITE_ROW;
  while ((rc = sqlite()->step(statement.get())) == SQLITE_ROW)
    if (hand_out(statement.get(), row, context) != 0) return true;
  return rc == SQLITE_DONE;
}

}  // namespace fenro
