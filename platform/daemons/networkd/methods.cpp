#include "daemons/networkd/methods.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <net/if.h>

#include "daemons/networkd/gateway_methods.h"
#include "daemons/networkd/interface_methods.h"
#include "daemons/networkd/interfaces.h"
#include "daemons/networkd/ipv4_network.h"
#include "daemons/networkd/local_networks.h"
#include "daemons/networkd/rtnetlink.h"

namespace fenro::networkd {

Answer succeed(Json data) {
  return {ERROR_NONE, std::move(data)};
}
Answer fail(int error, std::string_view text) {
  return {error, json_text(text)};
}

namespace {

// {"ip":ADDRESS,"mask":NETMASK}: 1 and the network in the way if it overlaps one of this host.
Answer check_network_intersect(State&, const json_t* request) {
  std::uint32_t ip = 0;
  int length = 0;
  if (!parse_ipv4(text_or_null(request, "ip"), ip))
    return fail(ERROR_REQUEST, "ip is not an IPv4 address");
  if (!parse_netmask(text_or_null(request, "mask"), length))
    return fail(ERROR_REQUEST, "mask is not a netmask");

  std::vector<Link> links;
  std::vector<Address> addresses;
  if (!list_links(links) || !list_addresses(addresses))
    return fail(ERROR_PLATFORM, "no answer from the kernel");

  const std::vector<LocalNetwork> networks = local_networks(links, addresses);
  const LocalNetwork* hit = find_overlap(networks, Ipv4Network{ip, length});
  if (hit != nullptr) return fail(ERROR_INTERSECT, hit->interface + " " + hit->network.text());
  return succeed(json_text(""));
}

// {"ifname":NAME}: whether the internet can be reached, given that this interface, which is to lead
// there, is up.
Answer check_access_internet(State& state, const json_t* request) {
  const char* const name = text_or_null(request, "ifname");
  std::vector<Link> links;
  if (name == nullptr) return fail(ERROR_REQUEST, "ifname is missing");
  if (!list_links(links)) return fail(ERROR_REQUEST, "no answer from the kernel");
  const Link* const link = find_link(links, name);
  if (!link || !link->running) return fail(ERROR_REQUEST, "the interface is not up");
  switch (state.internet.ask()) {
    case InternetCheck::State::REACHED: return succeed(json_text(""));
    case InternetCheck::State::WORKING: return fail(ERROR_WORKING, "the check is at work");
    case InternetCheck::State::FAILED: break;
  }
  return fail(ERROR_REQUEST, "the internet is not reached");
}

// The outcome of a change of the table: "" or what went wrong.
Answer changed(State& state, const std::string& failure) {
  state.gateway.profiles_changed();
  return failure.empty() ? succeed(json_text("")) : fail(ERROR_REQUEST, failure);
}

Answer register_device(State& state, const json_t* request) {
  return changed(state, state.devices.put(request));
}
Answer modify_device(State& state, const json_t* request) {
  return changed(state, state.devices.change(request));
}

Answer unregister_device(State& state, const json_t* request) {
  const char* key = text_or_null(request, DEVICE_KEY);
  return changed(state, state.devices.remove(key == nullptr ? "" : key));
}

Answer list_devices(State& state, const json_t* request) {
  const json_t* key = json_object_get(request, DEVICE_KEY);
  if (key == nullptr) return succeed(state.devices.list());
  if (!json_is_string(key)) return fail(ERROR_REQUEST, "key is not a string");
  return succeed(state.devices.list(json_string_value(key)));
}

Json describe(const Link& link, const Rate& rate) {
  Json object{json_object()};
  const auto set = [&](const char* key, json_t* value) {
    json_object_set_new(object.get(), key, value);
  };
  const auto number = [](std::uint64_t value) {
    return json_integer(static_cast<json_int_t>(value));
  };
  set("name_interface", json_text(link.name).release());
  set("status", json_string(link.running ? "up" : "down"));
  set("rx_bytes", number(link.rx_bytes));
  set("tx_bytes", number(link.tx_bytes));
  set("rx_rate", number(rate.rx));
  set("tx_rate", number(rate.tx));
  return object;
}

// {"name_interface":NAME}: counters and rates of one interface; without a name, an array of all.
Answer get_info_interfaces(State& state, const json_t* request) {
  const json_t* name = json_object_get(request, "name_interface");
  if (name != nullptr && !json_is_string(name))
    return fail(ERROR_REQUEST, "name_interface is not a string");
  std::vector<Link> links;
  if (!list_links(links)) return fail(ERROR_PLATFORM, "no answer from the kernel");

  Json all{json_array()};
  for (const Link& link : links) {
    Json info = describe(link, state.rates.of(link.name));
    if (name != nullptr && link.name == json_string_value(name)) return succeed(std::move(info));
    json_array_append_new(all.get(), info.release());
  }
  return name == nullptr ? succeed(std::move(all)) : fail(ERROR_NOT_FOUND, "no such interface");
}

constexpr Method METHODS[] = {
    {"api.Get_global_config", get_global_config},
    {"api.check_access_internet", check_access_internet},
    {"api.check_ip_duplicate", check_ip_duplicate},
    {"api.check_network_intersect", check_network_intersect},
    {"api.get_available_interface_list", get_available_interface_list},
    {"api.get_bonding_slaves", get_bonding_slaves},
    {"api.get_bridge_members", get_bridge_members},
    {"api.get_currentGWinfo", get_current_gw_info},
    {"api.get_interfaceStatus", get_interface_status},
    {"external_dev.guard_state", guard_state},
    {"external_dev.list", list_devices},
    {"external_dev.modify", modify_device},
    {"external_dev.register", register_device},
    {"external_dev.unregister", unregister_device},
    {"external_dev.update_vpn_gw", update_vpn_gw},
    {"interfaces_monitor.get_info_interfaces", get_info_interfaces},
};

}  // namespace

std::span<const Method> methods() {
  return METHODS;
}

std::string answer(State& state, const Method& method, std::string_view body) {
  const Json request = parse_request(body);
  Answer result = request ? method.run(state, request.get())
                          : fail(ERROR_REQUEST, "the request is not a JSON object");
  return reply_text(result.error, std::move(result.data));
}

void look_around(State& state) {
  std::vector<Link> links;
  std::vector<Address> addresses;
  if (!list_links(links)) return;
  state.rates.sample(links, Rates::Clock::now());
  if (list_addresses(addresses)) state.gateway.look(links, addresses);
}

}  // namespace fenro::networkd
