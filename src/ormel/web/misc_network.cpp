// The routes that pass on what the network daemon knows.
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/interfaces.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::misc {

namespace {

using system::CURRENT_GATEWAY;
using system::INTERFACE_COUNTERS;

constexpr const char* RATE_SERVICE = "RateServer";
constexpr const char* HISTORY = "history";
constexpr const char* TRAILS = "tunnels";
constexpr const char* LIST = "api.get_available_interface_list";

// A failure that names the method of the daemon.
Outcome fail_at(const std::string& method, JsonValue& reply) {
  reply.make_object()["detail"] = method;
  return {ERR_MIB_CALL_FAILED, {}, true};
}

// What the daemon's own reply carries becomes that of ours; nothing for a reply that carries
// nothing.
void pass_on(json_t* data, JsonValue& reply) {
  if (data) reply["data"] = data;
}

using Describe = int (*)(json_t* interface, std::string& failed_method);

// The list of all interfaces, each with what `describe` adds to it.
Outcome list_interfaces(Describe describe, JsonValue& reply) {
  const PlainReply list = call_network_service(LIST);
  if (list.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, ": mib_call failed, method: %s, ret: %d", LIST, list.status);
    return fail_at(LIST, reply);
  }
  if (!list.document) {
    ORMEL_LOG(ERROR, ": json load failed, method: %s, reason: %s", LIST, list.reason.c_str());
    return {ERR_MIB_CALL_FAILED};
  }
  Json interfaces{json_deep_copy(list.data())};
  size_t index = 0;
  json_t* interface = nullptr;
  json_array_foreach(interfaces.get(), index, interface) {
    std::string failed_method;
    if (describe(interface, failed_method) != NO_ERROR) return fail_at(failed_method, reply);
  }
  pass_on(interfaces.release(), reply);
  return {};
}

int add_members(json_t* interface, std::string& failed_method) {
  const json_t* type = json_object_get(interface, "interface_type");
  const auto is = [type](const char* name) {
    return json_is_string(type) && json_string_value(type) == std::string_view(name);
  };
  if (is("vswitch")) return get_bridge_members(interface, failed_method);
  return is("bond") ? get_bonding_slaves(interface, failed_method) : static_cast<int>(NO_ERROR);
}

Outcome unreadable(const char* method, const PlainReply& answer) {
  return {ERR_MIB_CALL_FAILED, answer.reason + ", Network API: " + method};
}

Outcome tell_gateway(const Request&, JsonValue& reply) {
  const PlainReply answer = call_network_service(CURRENT_GATEWAY);
  if (answer.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, ": mib_call failed method: %s ret: %d", CURRENT_GATEWAY, answer.status);
    return fail_at(CURRENT_GATEWAY, reply);
  }
  if (!answer.document) {
    ORMEL_LOG(ERROR, ": json load currentGWinfo, error=%s", answer.reason.c_str());
    return unreadable(CURRENT_GATEWAY, answer);
  }
  pass_on(json_deep_copy(answer.data()), reply);
  return {};
}

Outcome tell_rates(const Request&, JsonValue& reply) {
  const PlainReply answer = call_network_service(INTERFACE_COUNTERS);
  if (answer.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, ": mib_call failed method: %s ret: %d", INTERFACE_COUNTERS, answer.status);
    return fail_at(INTERFACE_COUNTERS, reply);
  }
  if (!answer.document) {
    ORMEL_LOG(ERROR, ": json load failed reason:%s\nbuf=%s", answer.reason.c_str(),
              escape_json(answer.text).c_str());
    return unreadable(INTERFACE_COUNTERS, answer);
  }
  pass_on(json_incref(answer.data()), reply);
  return {};
}

// What the daemon that counts bytes answers to one of its methods: an object.
Outcome ask_rates(const char* method, const json_t* question, JsonValue& reply) {
  const PlainReply answer = system::plain_call(RATE_SERVICE, method, question);
  if (answer.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, ": mib_call failed method: %s ret: %d", method, answer.status);
    return fail_at(method, reply);
  }
  if (!json_is_object(answer.data())) return {ERR_WRONG_JSON_FORMAT};
  reply["data"] = json_incref(answer.data());
  return {};
}

// What each protocol has carried over the last `span` seconds.
Outcome tell_history(const Request& request, JsonValue& reply) {
  constexpr int HOUR = 3600;
  constexpr int DAY = 24 * HOUR;
  const int span = request.number("span", HOUR);
  if (span < 1 || span > DAY) return {ERR_VALUE, "span"};
  const Json question{json_pack("{s:i}", "span", span)};
  return ask_rates(HISTORY, question.get(), reply);
}

Outcome tell_trails(const Request&, JsonValue& reply) {
  return ask_rates(TRAILS, nullptr, reply);
}

Outcome tell_interfaces(const Request&, JsonValue& reply) {
  return list_interfaces(get_interface_status, reply);
}

Outcome tell_members(const Request&, JsonValue& reply) {
  return list_interfaces(add_members, reply);
}

constexpr Route ROWS[] = {
    {"/ormel/misc/nic", ADMINISTRATOR, READS, json<tell_interfaces>},
    {"/ormel/misc/member", ADMINISTRATOR, READS, json<tell_members>},
    {"/ormel/misc/gw", ADMINISTRATOR, READS, json<tell_gateway>},
    {"/ormel/traffic/history", ADMINISTRATOR, READS, json<tell_history>},
    {"/ormel/traffic/tunnels", ADMINISTRATOR, READS, json<tell_trails>},
    {"/ormel/misc/interface_rate", ADMINISTRATOR, READS, json<tell_rates>},
};

}  // namespace

const Routes NETWORK{ROWS};

}  // namespace ormel::cgi::misc
