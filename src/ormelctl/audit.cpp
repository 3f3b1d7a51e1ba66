// Who changed what: the audit trail, and what it gets of the commands of this tool.
#include "ormel/actions/audit.h"

#include "ormel/base/error.h"
#include "ormel/base/text.h"
#include "ormelctl/log_query.h"
#include "ormelctl/profile.h"
#include "ormelctl/recording.h"

namespace ormelctl {
namespace {

constexpr size_t SHOWN_CHANGES = 3;  // in a table; JSON has all

const Columns COLUMNS = {{"when", "TIME"},     {"user", "USER"},       {"from", "FROM"},
                         {"action", "ACTION"}, {"subject", "SUBJECT"}, {"what", "CHANGES"},
                         {"result", "RESULT"}};

std::string change_text(const json_t* change) {
  std::string field = text_of(change, "field");
  const std::string from = text_of(change, "from"), to = text_of(change, "to");
  if (from.empty() && to.empty()) return field;
  if (from.empty() && to == "changed") return field + " changed";
  return field + ": " + (from.empty() ? "none" : from) + " → " + (to.empty() ? "none" : to);
}

std::string changes_text(const json_t* changes) {
  std::string text;
  size_t at = 0;
  const json_t* change = nullptr;
  json_array_foreach(changes, at, change) {
    if (at < SHOWN_CHANGES) text += (at ? "; " : "") + change_text(change);
  }
  const size_t count = json_array_size(changes);
  return count > SHOWN_CHANGES ? text + "; " + std::to_string(count - SHOWN_CHANGES) + " more"
                               : text;
}

std::string result_text(const json_t* row) {
  const long error = number_of(row, "error");
  if (error == ormel::audit::UNFINISHED) return "interrupted";
  return error == 0 ? "ok" : "error " + std::to_string(error);
}

// What a table shows beside the members of the route.
void add_texts(json_t* row) {
  const std::string ip = text_of(row, "ip");
  const std::pair<const char*, std::string> texts[] = {
      {"when", ormel::clock_text(number_of(row, "time"))},
      {"from", text_of(row, "via") + (ip.empty() ? "" : ' ' + ip)},
      {"what", changes_text(json_object_get(row, "changes"))},
      {"result", result_text(row)},
  };
  for (const auto& [name, text] : texts) json_object_set_new(row, name, json_string(text.c_str()));
}

// "1,204"
std::string grouped(long number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3; text.insert(at, ",")) at -= 3;
  return text;
}

std::string entries_text(long count) {
  return grouped(count) + (count == 1 ? " entry" : " entries");
}

}  // namespace

Result audit_list(const Arguments& arguments) {
  LogQuery query;
  Result problem;
  if (!read_query(arguments, query, problem)) return problem;
  const Reply reply = call("/ormel/audit/list", {{"upper", std::to_string(query.limit - 1)},
                                                 {"user", query.user},
                                                 {"since", std::to_string(query.since)}});
  if (reply.error != 0) return failed(reply.error, reply.reason);
  ormel::Json rows{json_array()};
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(reply.data(), at, row) {
    add_texts(row);
    json_array_insert(rows.get(), 0, row);  // the newest last, as in a log
  }
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "No entries." : "", std::move(rows), COLUMNS);
}

Result audit_verify(const Arguments&) {
  const Reply reply = call("/ormel/audit/verify");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  json_t* const data = reply.data();
  const long entries = number_of(data, "entries");
  if (const std::string fault = text_of(data, "fault"); !fault.empty()) {
    Result result =
        failed(Exit::Failed, fault + "; " + entries_text(entries) + " before it are unbroken",
               "compare with a copy of " + ormel::audit::trail().folder() +
                   ", and find out who was root on this host");
    result.data.reset(json_incref(data));
    return result;
  }
  std::string text = entries == 0 ? "no entries yet"
                                  : entries_text(entries) + ", unbroken since " +
                                        moment_text(number_of(data, "since"));
  size_t at = 0;
  const json_t* note = nullptr;
  json_array_foreach(json_object_get(data, "notes"), at, note) text +=
      "\n  " + printable(json_string_value(note));
  return done(text + '\n', ormel::Json{json_incref(data)});
}

bool is_change(const Command& command, const Arguments& arguments) {
  if (command.reading || arguments.has("report")) return false;
  return command.run != user_policy || !arguments.options.empty();
}

ormel::audit::Recorder recorder_of(const Command& command, const Arguments& arguments) {
  if (!is_change(command, arguments) || !ormel::audit::is_kept()) return {};
  std::string subject;
  if (command.run != confirm) {  // its word is a code, which is for one user alone
    for (const std::string& word : arguments.words) subject += (subject.empty() ? "" : " ") + word;
  }
  const std::string action = std::string(command.noun) + (*command.verb ? " " : "") + command.verb;
  return {ormel::audit::local_origin("ormelctl"), action, subject};
}

}  // namespace ormelctl
