// What the log database of the appliance holds.
#pragma once
#include <algorithm>
#include <cstring>

#include "base/log_db_records.h"
#include "support/appliance_host.h"

namespace ormel::test {

template <typename Record>
std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

// All rows that a query method gives.
template <typename Row>
std::vector<Row> log_rows(const char* method) {
  const std::string reply =
      bus(log_db::SERVICE, method, bytes_of(db_query_cond{0, -1, 0, 0, {}, {}}));
  std::vector<Row> rows(reply.size() < sizeof(db_query_answer<Row>)
                            ? 0
                            : (reply.size() - sizeof(db_query_answer<Row>)) / sizeof(Row));
  if (!rows.empty())
    std::memcpy(rows.data(), &reply[sizeof(db_query_answer<Row>)], rows.size() * sizeof(Row));
  return rows;
}

// How many rows the servers' log has of an event: 0 a connect, 1 a refusal, 2 an end.
inline std::ptrdiff_t server_events(int vpn_type, int action, std::string_view user = {}) {
  const auto rows = log_rows<db_conn_server_log>(log_db::CONN_SERVER_LOG.query);
  return std::ranges::count_if(rows, [&](const db_conn_server_log& row) {
    return row.vpn_type == vpn_type && row.action == action &&
           (user.empty() || user == row.username);
  });
}

}  // namespace ormel::test
