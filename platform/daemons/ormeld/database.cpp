#include "daemons/ormeld/database.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <tuple>

#include "base/file.h"

namespace fenro::ormeld {
namespace {

constexpr mode_t FOLDER_MODE = 0700;
constexpr int BUSY_TIMEOUT_MS = 2000;  // somebody may read the file with another program

// FULL: with a write-ahead log, NORMAL would lose the last commits in a power cut.
constexpr const char* SETTINGS =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA journal_size_limit=8388608;";

constexpr const char* COMPANIONS[] = {"", "-wal", "-shm"};

bool prepare_place(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/'));
  if (!make_private_folder(folder) || chmod(folder.c_str(), FOLDER_MODE) != 0) return false;
  // Made before SQLite would make it; its companions take the mode of the file.
  const Fd file{::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, PRIVATE_FILE)};
  return file && fchmod(file.get(), PRIVATE_FILE) == 0;
}

}  // namespace

// The log of a damaged file goes with it: replayed into a new one it would damage that too.
void put_aside(const std::string& path) {
  for (const char* companion : COMPANIONS) {
    std::ignore = std::rename((path + companion).c_str(),
                              (path + ".damaged" + companion).c_str());  // may be missing
  }
}

Statement::~Statement() {
  if (!statement_) return;
  sqlite3_reset(statement_);  // or its read lock would keep the write-ahead log growing
  sqlite3_clear_bindings(statement_);
}

Statement& Statement::bind(std::int64_t number) {
  if (error_ == SQLITE_OK) error_ = sqlite3_bind_int64(statement_, ++marks_, number);
  return *this;
}

Statement& Statement::bind(std::string_view text) {
  const char* const bytes = text.empty() ? "" : text.data();  // a null pointer would bind a NULL
  const int size = static_cast<int>(text.size());
  if (error_ == SQLITE_OK)
    error_ = sqlite3_bind_text(statement_, ++marks_, bytes, size, SQLITE_STATIC);
  return *this;
}

int Statement::step() {
  return error_ == SQLITE_OK ? sqlite3_step(statement_) : error_;
}

bool Statement::run() {
  return step() == SQLITE_DONE;
}

std::int64_t Statement::number(int column) const {
  return sqlite3_column_int64(statement_, column);
}

std::string_view Statement::text(int column) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  return bytes
             ? std::string_view{bytes,
                                static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))}
             : "";
}

int Database::open(const std::string& path) {
  statements_.clear();
  handle_.reset();
  if (!prepare_place(path)) return SQLITE_CANTOPEN;
  sqlite3* raw = nullptr;
  const int rc =
      sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  handle_.reset(raw);  // a handle is made for a failure too
  if (rc != SQLITE_OK) return rc;
  sqlite3_busy_timeout(raw, BUSY_TIMEOUT_MS);
  return execute(SETTINGS);
}

int Database::execute(const char* sql) {
  return sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr);
}

Statement Database::prepare(const std::string& sql) {
  Prepared& kept = statements_[sql];
  if (!kept) {
    sqlite3_stmt* raw = nullptr;
    const int size = static_cast<int>(sql.size());
    std::ignore =  // null on failure, which the first step tells
        sqlite3_prepare_v3(handle_.get(), sql.data(), size, SQLITE_PREPARE_PERSISTENT, &raw,
                           nullptr);
    kept.reset(raw);
  }
  return Statement{kept.get()};
}

Transaction::Transaction(Database& database)
    : database_(database), open_(database.execute("BEGIN IMMEDIATE") == SQLITE_OK) {}

Transaction::~Transaction() {
  // Fails when SQLite has rolled back by itself, as it does on a full disk.
  if (open_) std::ignore = database_.execute("ROLLBACK");
}

bool Transaction::commit() {
  if (!open_ || database_.execute("COMMIT") != SQLITE_OK) return false;
  open_ = false;
  return true;
}

}  // namespace fenro::ormeld
