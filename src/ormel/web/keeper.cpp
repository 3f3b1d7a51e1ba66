// What the keeper keeps running, and who is notified of its events.
#include <initializer_list>
#include <string>

#include "ormel/host/bus.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::keeper {

namespace {

// The keeper judges names, addresses and kinds of events; what it says of a refusal is passed on.
Outcome ask(const char* method, const Json& request, JsonValue& reply) {
  const system::PlainReply answer =
      system::plain_call(system::KEEPER_SERVICE, method, request.get());
  const json_t* const code = json_object_get(answer.document.get(), "error");
  if (answer.status != MIB_SUCCESS || !json_is_integer(code))
    return {ERR_MIB_CALL_FAILED, "the keeper does not answer: systemctl restart fenro-keeperd"};
  if (json_integer_value(code) != NO_ERROR) {
    const char* const reason = json_string_value(json_object_get(answer.document.get(), "reason"));
    return {system::cut_number<int>(code), reason ? reason : ""};
  }
  if (json_t* const data = answer.data()) reply["data"] = json_incref(data);
  return {};
}

template <const char* Method>
Outcome list(const Request&, JsonValue& reply) {
  return ask(Method, nullptr, reply);
}

// What the form has of these, as texts.
Json texts_of(const Request& request, std::initializer_list<const char*> names) {
  Json texts{json_object()};
  for (const char* name : names) {
    if (request.filled(name))
      json_object_set_new(texts.get(), name,
                          json_string(system::valid_utf8(request.value(name)).c_str()));
  }
  return texts;
}

Outcome store(const Request& request, JsonValue& reply) {
  if (request.number("remove", 0) == 1)
    return ask("notify.remove", texts_of(request, {"name"}), reply);
  return ask("notify.set", texts_of(request, {"name", "url", "events", "secret"}), reply);
}

// A receiver may take ten seconds: the name begins the test, the number that it gets asks what came
// of it.
Outcome test(const Request& request, JsonValue& reply) {
  if (!request.filled("test")) return ask("notify.test", texts_of(request, {"name"}), reply);
  request.changes_nothing();
  const auto test = request.whole("test", 0);
  if (!test) return {ERR_VALUE, "test is a whole number"};
  Json number{json_object()};
  json_object_set_new(number.get(), "test", json_integer(*test));
  return ask("notify.result", number, reply);
}

constexpr char SHOW[] = "keeper.show";
constexpr char TARGETS[] = "notify.list";
constexpr char KINDS[] = "notify.kinds";
constexpr char RECENT[] = "notify.recent";

constexpr Route ROWS[] = {
    {"/ormel/keeper/show", ADMINISTRATOR, READS, json<list<SHOW>>},
    {"/ormel/notify/kinds", ADMINISTRATOR, READS, json<list<KINDS>>},
    {"/ormel/notify/recent", ADMINISTRATOR, READS, json<list<RECENT>>},
    {"/ormel/notify/list", ADMINISTRATOR, READS, json<list<TARGETS>>},
    {"/ormel/notify/set", ADMINISTRATOR, CHANGES, json<store>},
    {"/ormel/notify/test", ADMINISTRATOR, CHANGES, json<test>},
};

}  // namespace

const Routes KEEPER{ROWS};

}  // namespace ormel::cgi::keeper
