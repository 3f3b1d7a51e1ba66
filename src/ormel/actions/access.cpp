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

// Without an answer the rows are null, which those of an empty table are not.
template <typename Row>
bool is_answer(const log_db::Answer<Row>& answer) {
  return answer.rows().data() != nullptr;
}

Login login_of(const db_conn_server_log& row) {
  const bool refused = row.action == REFUSED;
  return {row.vpn_type, static_cast<std::time_t>(row.time), refused, field_text(row.source_ip),
          refused ? field_text(row.device_info) : ""};
}

// A missing member has the default of the log database.
struct Policy {
  bool enable = true;
  json_int_t limit = 5;
  json_int_t minutes = 30;
};

Policy read_policy() {
  Policy policy;
  std::string text;
  if (!system::read_file(POLICY, text)) return policy;
  const Json document{json_loads(text.c_str(), 0, nullptr)};
  const json_t* const rules = json_object_get(document.get(), "global");
  if (const json_t* enable = json_object_get(rules, "enable")) policy.enable = json_is_true(enable);
  if (const json_t* limit = json_object_get(rules, "limit"))
    policy.limit = json_integer_value(limit);
  if (const json_t* time = json_object_get(rules, "time"))
    policy.minutes = json_integer_value(time);
  return policy;
}

Failures failures_in(const db_privilege_user_block_data& row, const Policy& policy) {
  const auto end = static_cast<std::time_t>(row.timestamp) + policy.minutes * MINUTE;
  const bool blocked = policy.enable && row.limit >= policy.limit && std::time(nullptr) < end;
  return {row.limit, blocked ? end : 0};
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

std::optional<std::map<std::string, Failures>> all_failures() {
  db_query_cond all{};
  all.count = -1;
  const auto answer = log_db::ask(list_privilege_user_block, all);
  if (!is_answer(answer)) return {};
  const Policy policy = read_policy();
  std::map<std::string, Failures> failures;
  for (const db_privilege_user_block_data& row : answer.rows())
    failures[field_text(row.username)] = failures_in(row, policy);
  return failures;
}

std::optional<Failures> failures_of(const std::string& user) {
  const auto answer = log_db::ask(list_privilege_user_block, rows_of(user, 0, 1));
  if (!is_answer(answer)) return {};
  return answer.rows().empty() ? Failures{} : failures_in(answer.rows().front(), read_policy());
}

}  // namespace ormel::access
