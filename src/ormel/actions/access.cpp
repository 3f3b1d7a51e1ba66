#include "ormel/actions/access.h"

#include <algorithm>

#include "ormel/actions/log_db.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"

namespace ormel::access {

namespace {

constexpr int64_t BY_TIME = 4;  // number of the column
constexpr int64_t DESCENDING = 1;
constexpr int64_t ROWS_FOR_ONE = 4;  // most logins have a row of their end, too
constexpr int CONNECTED = 0;
constexpr int REFUSED = 1;
constexpr const char* POLICY = "/etc/config/vpn_block.conf";
constexpr json_int_t DEFAULT_MINUTES = 30;
constexpr json_int_t MINUTE = 60;

db_query_cond rows_of(const std::string& user, int64_t order_by, int64_t count) {
  db_query_cond cond{};
  cond.count = count;
  cond.order_by = order_by;
  cond.order_style = DESCENDING;
  fill_field(cond.field, "username");
  fill_field(cond.value, user);
  return cond;
}

// Rows that have not come are null, those of an empty table are not.
template <typename Row>
bool is_answer(const log_db::Answer<Row>& answer) {
  return answer.rows().data() != nullptr;
}

Login login_of(const db_conn_server_log& row) {
  const bool refused = row.action == REFUSED;
  return {row.vpn_type, static_cast<std::time_t>(row.time), refused, field_text(row.source_ip),
          refused ? field_text(row.device_info) : ""};
}

// For how long a user is blocked, in seconds.
json_int_t block_time() {
  std::string text;
  if (!system::read_file(POLICY, text)) return DEFAULT_MINUTES * MINUTE;
  const Json policy{json_loads(text.c_str(), 0, nullptr)};
  const json_t* const time = json_object_get(json_object_get(policy.get(), "global"), "time");
  return (json_is_integer(time) ? json_integer_value(time) : DEFAULT_MINUTES) * MINUTE;
}

}  // namespace

std::optional<std::vector<Login>> latest_logins(const std::string& user, size_t count) {
  const auto answer = log_db::ask(
      list_conn_server_log, rows_of(user, BY_TIME, static_cast<int64_t>(count) * ROWS_FOR_ONE));
  if (!is_answer(answer)) return {};
  std::vector<Login> logins;
  for (const db_conn_server_log& row : answer.rows()) {
    if (logins.size() < count && (row.action == CONNECTED || row.action == REFUSED))
      logins.push_back(login_of(row));
  }
  return logins;
}

std::optional<Failures> failures_of(const std::string& user) {
  const auto answer = log_db::ask(list_privilege_user_block, rows_of(user, 0, 1));
  const int blocked = is_answer(answer) ? check_privilege_user_block(user.c_str()) : -1;
  if (blocked != 0 && blocked != 1) return {};
  if (answer.rows().empty()) return Failures{};
  const db_privilege_user_block_data& row = answer.rows().front();
  return Failures{row.limit,
                  blocked == 0 ? 0 : static_cast<std::time_t>(row.timestamp) + block_time()};
}

}  // namespace ormel::access
