// What the log database answers: a table of methods over its tables.
// Every body is a binary record whose size is known; what has another size, a text without its
// closing zero, a column that is malformed or a number out of bounds is answered with
// MIB_IS_INVALID.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/ormeld/database.h"
#include "daemons/ormeld/table.h"
#include "daemons/ormeld/tables.h"
#include "daemons/ormeld/user_blocks.h"
#include "libmibservice/mibserver.h"

namespace fenro::ormeld {

// The database with all its tables.
class LogDatabase {
 public:
  explicit LogDatabase(std::string policy, UserBlocks::Clock now);
  // A damaged file is put aside for an empty one. False, with the reason on the standard error,
  // without a database.
  [[nodiscard]] bool open(const std::string& path);

  [[nodiscard]] Table& table(TableId id) { return tables_[id]; }
  [[nodiscard]] UserBlocks& blocks() { return blocks_; }

 private:
  [[nodiscard]] int open_all(const std::string& path);

  Database database_;
  std::vector<Table> tables_;  // one for each TableId; never grows
  UserBlocks blocks_;
};

struct Method {
  const char* name;
  bus::Reply (*run)(LogDatabase& database, TableId table, std::string_view body);
  TableId table;
};

[[nodiscard]] std::span<const Method> methods();

}  // namespace fenro::ormeld
