#include "daemons/ormeld/user_blocks.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fenro/mibservice.h>

#include "base/log_db_records.h"
#include "daemons/ormeld/block_policy.h"

namespace fenro::ormeld {
namespace {

constexpr const char* FIND =
    R"(SELECT "id", "limit", "timestamp" FROM "user_block" WHERE "username" = ?)";
constexpr const char* UPDATE =
    R"(UPDATE "user_block" SET "limit" = ?, "timestamp" = ? WHERE "id" = ?)";
constexpr std::size_t USERNAME = 1;  // number of the column

bool is_name(std::string_view user) {
  return !user.empty() && user.size() < DB_TEXT_SIZE && user.find('\0') == std::string_view::npos;
}

}  // namespace

struct UserBlocks::Failures {
  std::int64_t id = 0;  // 0: none are counted
  std::int64_t count = 0;
  std::time_t last = 0;
};

bool UserBlocks::find(std::string_view user, Failures& out) {
  Statement row = database_.prepare(FIND);
  const int rc = row.bind(user).step();
  if (rc == SQLITE_ROW) out = {row.number(0), row.number(1), row.number(2)};
  return rc == SQLITE_ROW || rc == SQLITE_DONE;
}

std::int64_t UserBlocks::next_count(const Failures& old, std::time_t now) const {
  BlockPolicy policy;
  const bool known = read_policy(policy_, policy);
  if (known && policy.reached(old.count) && policy.over(old.last, now)) return 1;
  return std::min<std::int64_t>(old.count + 1, INT_MAX);
}

int UserBlocks::add(std::string_view user, std::time_t now) {
  db_privilege_user_block_data record{};
  std::memcpy(record.username, user.data(), user.size());
  record.limit = 1;
  record.timestamp = static_cast<std::uint64_t>(now);
  return table_.insert({reinterpret_cast<const char*>(&record), sizeof record});
}

int UserBlocks::count(std::string_view user) {
  Failures old;
  if (!is_name(user)) return MIB_IS_INVALID;
  if (!find(user, old)) return MIB_IO_FAILURE;
  const std::time_t now = now_();
  if (old.id == 0) return add(user, now);
  const bool done =
      database_.prepare(UPDATE).bind(next_count(old, now)).bind(now).bind(old.id).run();
  return done ? MIB_SUCCESS : MIB_IO_FAILURE;
}

int UserBlocks::check(std::string_view user, std::string& answer) {
  BlockPolicy policy;
  Failures failures;
  if (!is_name(user)) return MIB_IS_INVALID;
  if (!read_policy(policy_, policy)) {
    std::fprintf(stderr, "ormeld: %s cannot be read: every user counts as blocked\n",
                 policy_.c_str());
    return MIB_IO_FAILURE;
  }
  if (!find(user, failures)) return MIB_IO_FAILURE;
  const bool blocked =
      policy.enable && policy.reached(failures.count) && !policy.over(failures.last, now_());
  answer.assign(1, blocked ? '1' : '0');
  return MIB_SUCCESS;
}

int UserBlocks::forget(std::string_view user) {
  return is_name(user) ? table_.remove(USERNAME, user) : MIB_IS_INVALID;
}

}  // namespace fenro::ormeld
