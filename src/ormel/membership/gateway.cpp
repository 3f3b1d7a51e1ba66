#include "ormel/membership/gateway.h"

#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/interfaces.h"

namespace ormel::pelmar {

namespace {

// The first gateway of the daemon's answer, which owns it; null, and logged, when there is none.
const json_t* first_gateway(const PlainReply& reply) {
  const json_t* const gateways = reply.data();
  if (!json_is_array(gateways)) {
    ORMEL_LOG(ERROR, "Failed to get data");
    return nullptr;
  }
  const json_t* const first = json_array_get(gateways, 0);
  if (!first) ORMEL_LOG(ERROR, "Failed to get first item");
  return first;
}

PlainReply ask() {
  return call_network_service(system::CURRENT_GATEWAY);
}

// The text of a value; empty, with `failure` in the log, for any other.
std::string text_of(const json_t* value, const char* failure) {
  const char* const text = json_string_value(value);
  if (!text) ORMEL_LOG(ERROR, "%s", failure);
  return text ? text : "";
}

}  // namespace

std::string get_gateway_ip() {
  const PlainReply reply = ask();
  const json_t* const gateway = first_gateway(reply);
  if (!gateway) return "";
  const json_t* const addresses = json_object_get(json_object_get(gateway, "status"), "IPv4");
  const char* const ip = json_string_value(json_object_get(json_array_get(addresses, 0), "ip"));
  return ip ? ip : "";
}

std::string get_gateway_interface_name() {
  const PlainReply reply = ask();
  const json_t* const gateway = first_gateway(reply);
  return gateway ? text_of(json_object_get(gateway, "ifname"), "Failed to get interface_name") : "";
}

std::string get_gateway_display_name() {
  const PlainReply reply = ask();
  const json_t* const gateway = first_gateway(reply);
  if (!gateway) return "";
  return text_of(json_object_get(json_object_get(gateway, "status"), "display_name"),
                 "Failed to get display_name");
}

}  // namespace ormel::pelmar
