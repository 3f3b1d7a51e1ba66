#include "ormel/web/log.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include <fenro/datetime.h>
#include <fenro/event_log.h>

#include "base/tunnel.h"
#include "ormel/actions/log_db.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/host/bus.h"
#include "ormel/host/process.h"
#include "ormel/web/routes.h"

namespace ormel::cgi {

int sqlite_query_callback(void* out, int columns, char** values, char** names) {
  auto row = std::make_unique<JsonValue>();
  for (int i = 0; i < columns; ++i)
    (*row)[names[i]] = system::valid_utf8(values[i] ? values[i] : "");
  static_cast<JsonValue*>(out)->append(std::move(row));
  return 0;
}

namespace log {

namespace {

constexpr const char* SERVICE_TAG = "[ORMEL Service]";  // begins every event of ours
constexpr int FIRST_ROW = 0;
constexpr int LAST_ROW = 50;
constexpr const char* DESCENDING = "desc";
constexpr size_t DATE_SIZE = 256;  // four times what the platform asks for

constexpr bool is_logged(const TunnelFacts& facts) {
  return facts.logged;
}
constexpr long LOGGED_SERVERS = types_of(&TunnelFacts::server, is_logged);
constexpr long LOGGED_CLIENTS = types_of(&TunnelFacts::client, is_logged);

constexpr const char* DUMP_SCRIPT = "/etc/init.d/ormel_dump_log.sh";
constexpr const char* DUMP_ACTION = "dump_log";
constexpr const char* ARCHIVE = "/tmp/ormel_dump_log.tar.gz";
constexpr const char* ARCHIVE_HEAD =
    "Content-Type: application/octet-stream\r\n"
    "Content-Disposition: attachment; filename=ormel_dump_log.tar.gz\r\n";

int64_t number_or(const Request& request, const char* name, int64_t fallback) {
  return request.filled(name) ? std::strtol(request.value(name), nullptr, 10) : fallback;
}

// How many rows there are from one to another, both included. Bounded: the two come from the
// request.
int64_t rows_between(int64_t lower, int64_t upper) {
  int64_t count = 0;
  if (!__builtin_sub_overflow(upper, lower, &count) && !__builtin_add_overflow(count, 1, &count))
    return count;
  return upper > lower ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

db_query_cond page_of(const Request& request) {
  db_query_cond page{};
  page.start = number_or(request, "lower", FIRST_ROW);
  page.count = rows_between(page.start, number_or(request, "upper", LAST_ROW));
  page.order_by = number_or(request, "field", 0);
  page.order_style =
      !request.filled("order") || std::strcmp(request.value("order"), DESCENDING) == 0 ? 1 : 0;
  return page;
}

template <size_t Size>
std::string text_of(const char (&field)[Size]) {
  return system::valid_utf8(field_text(field));
}

template <typename Row>
void describe_common(const Row& row, JsonValue& out) {
  out["id"] = row.id;
  out["type"] = row.vpn_type;
  out["time"] = timestamp(static_cast<long>(row.time));
  out["uptime"] = row.uptime;
  out["action"] = row.action;
  out["username"] = text_of(row.username);
  out["tx_total"] = row.tx_total;
  out["rx_total"] = row.rx_total;
}

void describe(const db_conn_client_log_data& row, JsonValue& out) {
  describe_common(row, out);
  out["real_ip"] = text_of(row.wan_ip);
  out["local_ip"] = text_of(row.vpn_ip);
  out["country_code"] = text_of(row.country_code);
}

void describe(const db_conn_server_log& row, JsonValue& out) {
  describe_common(row, out);
  out["remote_ip"] = text_of(row.vpn_ip);
  out["source_ip"] = text_of(row.source_ip);
  out["device_info"] = text_of(row.device_info);
}

// A page of one of the connection logs; without the daemon that of an empty one.
template <auto* List>
int show_page(const Request& request, JsonValue& reply) {
  const auto answer = log_db::ask(List, page_of(request));
  reply["total"] = answer.total();
  JsonValue& data = reply["data"].make_array();
  for (const auto& row : answer.rows()) {
    auto item = std::make_unique<JsonValue>();
    describe(row, *item);
    data.append(std::move(item));
  }
  return NO_ERROR;
}

int show_events(const Request& request, JsonValue& reply) {
  const char* const any = nullptr;
  const int total = naslog_event_query_count_ex(0, any, any, any, any, any, SERVICE_TAG, any, any);
  JsonValue& data = reply["data"].make_array();
  const int rc =
      naslog_event_query_ex(sqlite_query_callback, request.number("sort", 0),
                            request.number("lower", FIRST_ROW), request.number("upper", LAST_ROW),
                            any, any, any, any, any, any, SERVICE_TAG, &data, any, any);
  if (rc != 0) return ERR_QUERY_LOG_FAIL;
  reply["total"] = total;
  return NO_ERROR;
}

// Each empties its whole table, whichever of the protocols was named. The result is not reported.
int clean_tables(const Request& request, JsonValue&) {
  const long mask = number_or(request, "type", NONE_TYPE);
  if (mask & LOGGED_SERVERS) clean_conn_server_log();
  if (mask & LOGGED_CLIENTS) clean_conn_client_log();
  return NO_ERROR;
}

int make_archive(const Request&, SentFile& file) {
  std::string output;
  if (system::do_exec_safe({DUMP_SCRIPT, DUMP_ACTION}, output) != 0) {
    ORMEL_LOG(ERROR, "result: %s", output.c_str());
    return ERR_CMD_FAILED;
  }
  file.head = ARCHIVE_HEAD;
  file.content = File{std::fopen(ARCHIVE, "rbe")};
  return file.content ? NO_ERROR : ERR_CMD_FAILED;
}

constexpr Route ROWS[] = {
    {"/ormel/log/event", ADMINISTRATOR, READS, json<show_events>},
    {"/ormel/log/client", ADMINISTRATOR, READS, json<show_page<list_conn_client_log>>},
    {"/ormel/log/server", ADMINISTRATOR, READS, json<show_page<list_conn_server_log>>},
    {"/ormel/log/cleanup", ADMINISTRATOR, CHANGES, json<clean_tables>},
    {"/ormel/log/dump", ADMINISTRATOR, READS, file<make_archive>},
};

}  // namespace

std::string timestamp(long seconds) {
  char date[DATE_SIZE] = "";
  char time[DATE_SIZE] = "";
  if (Change_Date_To_String_By_Format(seconds, date, Get_Date_Format_Index()) != 0) return "";
  std::ignore = Change_Time_To_String_By_Format(seconds, time, 0,
                                                Get_Time_Format());  // the text is empty then
  return std::string(date) + ' ' + time;
}

const Routes EVENTS{ROWS};

}  // namespace log
}  // namespace ormel::cgi
