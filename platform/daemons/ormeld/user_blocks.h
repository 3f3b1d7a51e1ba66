// The users whose logins failed, and whether that blocks them. One row a user: failures so far,
// time of the last one.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "daemons/ormeld/table.h"

namespace fenro::ormeld {

class UserBlocks {
 public:
  using Clock = std::time_t (*)();

  UserBlocks(Database& database, Table& table, std::string policy, Clock now)
      : database_(database), table_(table), policy_(std::move(policy)), now_(now) {}

  // Each takes the bytes of a name and answers with a status of the bus.

  // Counts a failure. The first one after an expired block begins a new count.
  [[nodiscard]] int count(std::string_view user);
  // "1" for a blocked user, else "0". Fails when the policy cannot be read; callers take that for a
  // block.
  [[nodiscard]] int check(std::string_view user, std::string& answer);
  [[nodiscard]] int forget(std::string_view user);

 private:
  struct Failures;
  [[nodiscard]] bool find(std::string_view user, Failures& out);
  [[nodiscard]] std::int64_t next_count(const Failures& old, std::time_t now) const;
  [[nodiscard]] int add(std::string_view user, std::time_t now);

  Database& database_;
  Table& table_;
  std::string policy_;
  Clock now_;
};

}  // namespace fenro::ormeld
