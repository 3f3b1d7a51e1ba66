#include "daemons/keeper/methods.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <iterator>

namespace fenro::keeper {
namespace {

// Numbers as the program has them.
enum Code { DONE = 0, FAILED = 1, WRONG_VALUE = 9, NOT_FOUND = 30 };

bus::Reply refusal(Code code, const std::string& reason) {
  Json root{json_object()};
  json_object_set_new(root.get(), "error", json_integer(code));
  json_object_set_new(root.get(), "reason", json_text(reason).release());
  return {MIB_SUCCESS, compact(root.get())};
}

bus::Reply answer(Json data) {
  return {MIB_SUCCESS, reply_text(DONE, std::move(data))};
}

void set_text(const Json& object, const char* key, std::string_view text) {
  json_object_set_new(object.get(), key, json_text(text).release());
}

void set_outcome(const Json& object, const Outcome& outcome) {
  json_object_set_new(object.get(), "at", json_integer(outcome.at));
  json_object_set_new(object.get(), "status", json_integer(outcome.status));
  json_object_set_new(object.get(), "milliseconds", json_integer(outcome.milliseconds));
  set_text(object, "failure", outcome.error);
}

bus::Reply list(const Notifier& notifier) {
  Json rows{json_array()};
  for (const Target& target : read_targets()) {
    Json row{json_object()};
    set_text(row, "name", target.name);
    set_text(row, "url", target.url);
    set_text(row, "events", join_events(target.events));
    if (const auto outcome = notifier.last_outcome(target.name)) set_outcome(row, *outcome);
    json_array_append_new(rows.get(), row.release());
  }
  return answer(std::move(rows));
}

std::string text_of(const Json& request, const char* key) {
  const char* const text = text_or_null(request.get(), key);
  return text ? text : "";
}

bus::Reply set(const Json& request) {
  Target target{text_of(request, "name"), text_of(request, "url"),
                split_events(text_of(request, "events")), text_of(request, "secret")};
  if (target.events.empty()) target.events = {"all"};
  if (const std::string fault = fault_of(target); !fault.empty())
    return refusal(WRONG_VALUE, fault);
  const std::vector<Target> known = read_targets();
  const auto old = std::ranges::find(known, target.name, &Target::name);
  const bool is_mail = target.url.starts_with("mail:");
  Json data{json_object()};
  if (is_mail) {
    target.secret.clear();
  } else if (target.secret.empty() && old != known.end() && !old->secret.empty()) {
    target.secret = old->secret;
  } else if (target.secret.empty()) {
    target.secret = new_secret();
    if (target.secret.empty()) return refusal(FAILED, "no secret could be made");
    set_text(data, "secret", target.secret);
  }
  if (!store_target(target))
    return refusal(FAILED, "/etc/config/ormel/keeper.conf cannot be written");
  return answer(std::move(data));
}

bool is_known(const std::string& name) {
  const std::vector<Target> known = read_targets();
  return std::ranges::find(known, name, &Target::name) != known.end();
}

bus::Reply unknown(const std::string& name) {
  return refusal(NOT_FOUND, "no target is named " + name);
}

bus::Reply remove(const Json& request) {
  const std::string name = text_of(request, "name");
  if (!is_known(name)) return unknown(name);
  if (!remove_target(name))
    return refusal(FAILED, "/etc/config/ormel/keeper.conf cannot be written");
  return answer(Json{json_object()});
}

bus::Reply test(Notifier& notifier, const Json& request) {
  const std::string name = text_of(request, "name");
  const std::uint64_t number = notifier.test(name);
  if (number == 0) return unknown(name);
  return answer(Json{json_pack("{s:I}", "test", static_cast<json_int_t>(number))});
}

bus::Reply result(const Notifier& notifier, const Json& request) {
  const json_int_t number = json_integer_value(json_object_get(request.get(), "test"));
  const auto outcome = notifier.test_outcome(static_cast<std::uint64_t>(number));
  Json data{json_pack("{s:b}", "done", outcome ? 1 : 0)};
  if (outcome) set_outcome(data, *outcome);
  return answer(std::move(data));
}

bus::Reply kinds() {
  Json rows{json_array()};
  for (const Kind& kind : KINDS) {
    Json row{json_object()};
    set_text(row, "kind", kind.name);
    set_text(row, "text", kind.text);
    json_array_append_new(rows.get(), row.release());
  }
  return answer(std::move(rows));
}

// Others pass on here what they have stored in the event log, or have it stored by "store".
bus::Reply report(Notifier& notifier, Recent& recent, const Json& request) {
  const Kind* const kind = find_kind(text_of(request, "kind"));
  const json_int_t level = json_integer_value(json_object_get(request.get(), "level"));
  const std::string text = text_of(request, "text");
  if (!kind || text.empty() || level < 0 || level >= std::ssize(LEVEL_NAMES))
    return refusal(WRONG_VALUE, "a report has a known kind, a level and a text");
  const Report what{kind->name, static_cast<Level>(level), text_of(request, "subject"), text, {}};
  if (json_is_true(json_object_get(request.get(), "store")) && !store_event(what))
    return refusal(FAILED, "the event log cannot be written");
  notifier.send(what);
  recent.add(what, std::time(nullptr));
  return answer(Json{json_object()});
}

}  // namespace

void serve(bus::Server& server, const Watch& watch, Notifier& notifier, Recent& recent) {
  const auto on = [&server](const char* method, std::function<bus::Reply(const Json&)> work) {
    server.on(method, [work = std::move(work)](std::string_view body) {
      const Json request = parse_request(body);
      return request ? work(request) : bus::Reply{MIB_IS_INVALID};
    });
  };
  on("keeper.show", [&watch](const Json&) { return answer(watch.show()); });
  on("keeper.report",
     [&notifier, &recent](const Json& request) { return report(notifier, recent, request); });
  on("notify.kinds", [](const Json&) { return kinds(); });
  on("notify.recent", [&recent](const Json&) { return answer(recent.show()); });
  on("notify.list", [&notifier](const Json&) { return list(notifier); });
  on("notify.set", set);
  on("notify.remove", remove);
  on("notify.test", [&notifier](const Json& request) { return test(notifier, request); });
  on("notify.result", [&notifier](const Json& request) { return result(notifier, request); });
}

}  // namespace fenro::keeper
