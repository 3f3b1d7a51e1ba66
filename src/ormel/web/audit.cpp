// The routes of the audit trail: its rows, newest first, and whether its chain is whole.
#include "ormel/actions/audit.h"

#include <string>

#include "ormel/actions/audit_row.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::audit {

namespace {

using ormel::audit::Query;
using ormel::audit::Verdict;

constexpr int FIRST_ROW = 0;
constexpr int LAST_ROW = 49;
constexpr int MOST_ROWS = 10000;

Outcome unreadable() {
  return {ERR_QUERY_LOG_FAIL,
          "the audit trail cannot be read: look at " + ormel::audit::trail().folder()};
}

Outcome show_entries(const Request& request, JsonValue& reply) {
  const auto since = request.whole("since", 0);
  if (!since) return {ERR_VALUE, "since is a number of seconds"};
  const Query query{.lower = request.number("lower", FIRST_ROW),
                    .upper = request.number("upper", LAST_ROW),
                    .user = request.value("user"),
                    .since = *since,
                    .oldest_first = std::string_view(request.value("order")) == "asc"};
  if (query.lower < 0 || query.upper - query.lower >= MOST_ROWS)
    return {ERR_VALUE, "at most " + std::to_string(MOST_ROWS) + " entries are sent at once"};
  ormel::audit::Page page;
  if (!ormel::audit::trail().read(query, page)) return unreadable();
  Json rows{json_array()};
  for (const ormel::audit::Entry& entry : page.entries)
    json_array_append_new(rows.get(), ormel::audit::document_of(entry).release());
  reply["data"] = rows.release();
  reply["total"] = page.total;
  return {};
}

Outcome verify(const Request&, JsonValue& reply) {
  Verdict verdict;
  if (!ormel::audit::trail().verify(verdict)) return unreadable();
  JsonValue& data = reply["data"];
  data["unbroken"] = verdict.fault.empty();
  data["entries"] = verdict.entries;
  data["since"] = verdict.since;
  data["bad"] = verdict.bad;
  data["fault"] = verdict.fault;
  JsonValue& notes = data["notes"].make_array();
  for (const std::string& note : verdict.notes) notes << note;
  return {};
}

constexpr Route ROWS[] = {
    {"/ormel/audit/list", ADMINISTRATOR, READS, json<show_entries>},
    {"/ormel/audit/verify", ADMINISTRATOR, READS, json<verify>},
};

}  // namespace

const Routes TRAIL{ROWS};

}  // namespace ormel::cgi::audit
