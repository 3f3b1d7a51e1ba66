#include "ormel/drivers/report.h"

#include <algorithm>

#include "ormel/host/bus.h"

namespace ormel::report {

namespace {

constexpr const char* FATES[] = {"kept", "changed", "dropped", "refused", "needs"};

json_t* text(const std::string& from) {
  return json_string(system::valid_utf8(from).c_str());
}

json_t* line_row(const Line& line) {
  return json_pack("{s:I, s:I, s:o, s:s, s:o, s:b}", "n", static_cast<json_int_t>(line.first), "to",
                   static_cast<json_int_t>(line.last), "text", text(line.text), "fate",
                   name_of(line.fate), "why", text(line.why), "blank", line.blank ? 1 : 0);
}

json_t* verdict_row(const Verdict& verdict) {
  return json_pack("{s:b, s:b, s:I, s:o}", "asked", verdict.asked ? 1 : 0, "accepts",
                   verdict.accepts ? 1 : 0, "line", static_cast<json_int_t>(verdict.line), "reason",
                   text(verdict.reason));
}

template <typename Items, typename Row>
json_t* rows_of(const Items& items, Row row) {
  Json rows{json_array()};
  for (const auto& item : items) json_array_append_new(rows.get(), row(item));
  return rows.release();
}

}  // namespace

std::size_t Report::count(Fate fate) const {
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const Line& line) {
    return line.fate == fate && !line.blank;
  }));
}

const char* name_of(Fate fate) {
  return FATES[static_cast<std::size_t>(fate)];
}

Json document_of(const Report& report) {
  Json out{json_object()};
  const auto set = [&](const char* key, json_t* value) {
    json_object_set_new(out.get(), key, value);
  };
  set("lines", rows_of(report.lines, line_row));
  set("added", rows_of(report.added, text));
  set("servers", rows_of(report.servers, [](const Server& server) {
        return json_pack("{s:o, s:o, s:o}", "host", text(server.host), "port", text(server.port),
                         "protocol", text(server.protocol));
      }));
  set("needs", rows_of(report.needs, text));
  set("certificates", rows_of(report.certificates, [](const Certificate& one) {
        return json_pack("{s:o, s:o, s:I}", "role", text(one.role), "subject", text(one.subject),
                         "days", static_cast<json_int_t>(one.days));
      }));
  set("daemon", verdict_row(report.daemon));
  set("importable", json_boolean(report.error == 0));
  set("code", json_integer(report.error));
  set("reason", text(report.reason));
  return out;
}

}  // namespace ormel::report
