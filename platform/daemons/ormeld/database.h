// One SQLite file, and owners for what is done with it. What a transaction has committed is on the
// disk.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <sqlite3.h>

#include "base/handle.h"

namespace fenro::ormeld {

// A prepared statement, lent by the database until the object goes. The values bound must live as
// long.
class Statement {
 public:
  explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  // In the order of the marks. What goes wrong here or in preparing shows at the first step.
  Statement& bind(std::int64_t number);
  Statement& bind(std::string_view text);

  // SQLITE_ROW, SQLITE_DONE or an error.
  [[nodiscard]] int step();
  // Whether the statement ran to its end.
  [[nodiscard]] bool run();

  // Of the row that was stepped to.
  [[nodiscard]] std::int64_t number(int column) const;
  [[nodiscard]] std::string_view text(int column) const;

 private:
  sqlite3_stmt* statement_;  // null: it could not be prepared
  int marks_ = 0;
  int error_ = SQLITE_OK;
};

class Database {
 public:
  // Opens or makes the file, for its owner alone, in a folder for its owner alone. SQLITE_OK or an
  // error.
  [[nodiscard]] int open(const std::string& path);

  // Statements without values or answer. SQLITE_OK or an error.
  [[nodiscard]] int execute(const char* sql);

  // Prepared on first use and kept: the callers' texts are few, as they are made of tables of
  // columns.
  [[nodiscard]] Statement prepare(const std::string& sql);

  // Rows touched by the last statement that changed any.
  [[nodiscard]] std::int64_t changes() const { return sqlite3_changes64(handle_.get()); }

 private:
  using Prepared = std::unique_ptr<sqlite3_stmt, FreeWith<sqlite3_finalize>>;
  std::unique_ptr<sqlite3, FreeWith<sqlite3_close>> handle_;
  std::map<std::string, Prepared>
      statements_;  // after the handle, so that they are destroyed first
};

// Gives a damaged file and its companions another name, in the place of one put aside before.
void put_aside(const std::string& path);

// Undone unless it was committed.
class Transaction {
 public:
  explicit Transaction(Database& database);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();
  explicit operator bool() const { return open_; }
  [[nodiscard]] bool commit();

 private:
  Database& database_;
  bool open_;
};

}  // namespace fenro::ormeld
