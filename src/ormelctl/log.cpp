// The logs of the service: events, connections of both kinds, and the program's own lines.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <fstream>
#include <thread>

#include "base/lines.h"
#include "ormel/base/error.h"
#include "ormel/base/text.h"
#include "ormelctl/log_query.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

constexpr const char* PROGRAM_LOG = "/var/log/network/ORMEL.log";
constexpr const char* ACTIONS[] = {"connected", "refused", "ended"};

const Columns EVENT_COLUMNS = {{"time", "TIME"}, {"level", "LEVEL"}, {"text", "EVENT"}};
const Columns CONNECTION_COLUMNS = {{"time", "TIME"},
                                    {"user", "USER"},
                                    {"protocol", "PROTOCOL"},
                                    {"action", "ACTION"},
                                    {"source", "SERVER / FROM"},
                                    {"duration", "DURATION"},
                                    {"traffic", "IN / OUT"}};
const Columns LINE_COLUMNS = {{"line", "LINE"}};

long moment_of(const std::string& date_and_time) {
  std::tm parts{};
  parts.tm_isdst = -1;
  return strptime(date_and_time.c_str(), "%Y-%m-%d %H:%M:%S", &parts)
             ? static_cast<long>(std::mktime(&parts))
             : 0;
}

ormel::Json event_row(const json_t* event) {
  constexpr const char* LEVELS[] = {"info", "warning", "error"};
  const std::string type = text_of(event, "type");
  const size_t level = type == "1" ? 1 : type == "2" ? 2 : 0;
  return ormel::Json{json_pack("{s:s, s:s, s:s, s:s, s:s}", "time",
                               (text_of(event, "date") + ' ' + text_of(event, "time")).c_str(),
                               "level", LEVELS[level], "user", text_of(event, "user").c_str(),
                               "text", text_of(event, "description").c_str(), "id",
                               text_of(event, "id").c_str())};
}

ormel::Json connection_row(const json_t* row) {
  const Protocol* protocol = protocol_of(static_cast<int>(number_of(row, "type")));
  const auto action = static_cast<size_t>(number_of(row, "action"));
  const double in = json_number_value(json_object_get(row, "rx_total"));
  const double out = json_number_value(json_object_get(row, "tx_total"));
  const std::string source =
      text_of(row, json_object_get(row, "source_ip") ? "source_ip" : "real_ip");
  return ormel::Json{json_pack(
      "{s:s, s:I, s:s, s:s, s:s, s:s, s:s, s:f, s:f, s:s, s:I}", "time",
      ormel::clock_text(number_of(row, "time")).c_str(), "moment",
      static_cast<json_int_t>(number_of(row, "time")), "user", text_of(row, "username").c_str(),
      "protocol", protocol ? protocol->name.c_str() : "", "action",
      action < std::size(ACTIONS) ? ACTIONS[action] : "", "source", source.c_str(), "duration",
      duration_text(number_of(row, "uptime")).c_str(), "received", in, "sent", out, "traffic",
      (size_text(in) + " / " + size_text(out)).c_str(), "id",
      static_cast<json_int_t>(number_of(row, "id")))};
}

// The newest rows of a route that pass the query, oldest first.
Result rows_of(const char* route, const LogQuery& query, ormel::Json (*row_of)(const json_t*),
               const char* user_key, ormel::Json& rows) {
  const Reply reply =
      call(route, {{"lower", "0"},
                   {"upper", std::to_string(query.user.empty() ? query.limit : LogQuery::MOST)},
                   {"order", "desc"}});
  if (reply.error != 0) return failed(reply.error, reply.reason);
  rows.reset(json_array());
  size_t at = 0;
  const json_t* raw = nullptr;
  json_array_foreach(reply.data(), at, raw) {
    ormel::Json row = row_of(raw);
    const long moment = json_object_get(row.get(), "moment")
                            ? number_of(row.get(), "moment")
                            : moment_of(text_of(row.get(), "time"));
    const bool wanted = (query.since == 0 || moment >= query.since) &&
                        (query.user.empty() || text_of(row.get(), user_key) == query.user);
    if (wanted && json_array_size(rows.get()) < static_cast<size_t>(query.limit))
      json_array_insert_new(rows.get(), 0, row.release());
  }
  return {};
}

// Prints rows as they come until the program is interrupted.
void follow(const char* route, const LogQuery& query, ormel::Json (*row_of)(const json_t*),
            const char* user_key, const Columns& columns, std::string last) {
  for (;;) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ormel::Json rows;
    if (rows_of(route, query, row_of, user_key, rows).exit != Exit::Done) continue;
    ormel::Json fresh{json_array()};
    size_t at = 0;
    json_t* row = nullptr;
    bool seen = false;
    json_array_foreach(rows.get(), at, row) {
      if (seen || last.empty()) json_array_append(fresh.get(), row);
      seen = seen || cell(json_object_get(row, "id")) == last;
    }
    if (json_array_size(fresh.get()) == 0) continue;
    last =
        cell(json_object_get(json_array_get(fresh.get(), json_array_size(fresh.get()) - 1), "id"));
    const std::string text = table(fresh.get(), columns);
    std::fputs(text.c_str() + text.find('\n') + 1, stdout);
    std::fflush(stdout);
  }
}

Result show_log(const Arguments& arguments, const char* route, ormel::Json (*row_of)(const json_t*),
                const char* user_key, const Columns& columns) {
  LogQuery query;
  Result problem;
  if (!read_query(arguments, query, problem)) return problem;
  ormel::Json rows;
  if (problem = rows_of(route, query, row_of, user_key, rows); problem.exit != Exit::Done)
    return problem;
  if (arguments.has("follow")) {
    const size_t count = json_array_size(rows.get());
    std::fputs(table(rows.get(), columns).c_str(), stdout);
    std::fflush(stdout);
    follow(route, query, row_of, user_key, columns,
           count == 0 ? "" : cell(json_object_get(json_array_get(rows.get(), count - 1), "id")));
  }
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "No entries." : "", std::move(rows), columns);
}

}  // namespace

bool read_query(const Arguments& arguments, LogQuery& query, Result& problem) {
  const long ago = arguments.seconds("since", 0);
  if (ago > 0) query.since = std::time(nullptr) - ago;
  if (ago < 0) problem = failed(Exit::Usage, "--since takes a time such as 30m, 1h or 2d");
  const bool is_number =
      !arguments.has("limit") || fenro::parse_number(arguments.value("limit"), query.limit);
  if (!is_number || query.limit < 1 || query.limit > LogQuery::MOST)
    problem = failed(Exit::Usage, "--limit takes 1 to " + std::to_string(LogQuery::MOST));
  query.user = arguments.value("user");
  return problem.exit == Exit::Done;
}

Result log_events(const Arguments& arguments) {
  return show_log(arguments, "/ormel/log/event", event_row, "user", EVENT_COLUMNS);
}

Result log_clients(const Arguments& arguments) {
  return show_log(arguments, "/ormel/log/client", connection_row, "user", CONNECTION_COLUMNS);
}

Result log_servers(const Arguments& arguments) {
  return show_log(arguments, "/ormel/log/server", connection_row, "user", CONNECTION_COLUMNS);
}

Result log_program(const Arguments& arguments) {
  LogQuery query;
  Result problem;
  if (!read_query(arguments, query, problem)) return problem;
  std::ifstream in(PROGRAM_LOG, std::ios::binary);
  if (!in)
    return failed(Exit::NotFound, std::string(PROGRAM_LOG) + " cannot be read",
                  "it is written once the program has run");
  std::deque<std::string> last;
  std::string line;
  while (std::getline(in, line)) {
    last.push_back(line);
    if (last.size() > static_cast<size_t>(query.limit)) last.pop_front();
  }
  if (arguments.has("follow")) {
    for (const std::string& text : last) std::printf("%s\n", printable(text).c_str());
    for (;;) {
      std::fflush(stdout);
      std::this_thread::sleep_for(std::chrono::seconds(1));
      in.clear();
      while (std::getline(in, line)) std::printf("%s\n", printable(line).c_str());
    }
  }
  ormel::Json rows{json_array()};
  for (const std::string& text : last)
    json_array_append_new(rows.get(), json_pack("{s:s}", "line", printable(text).c_str()));
  return done("", std::move(rows), LINE_COLUMNS);
}

}  // namespace ormelctl
