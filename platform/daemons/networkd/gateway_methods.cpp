#include "daemons/networkd/gateway_methods.h"

#include <algorithm>
#include <linux/rtnetlink.h>

#include "daemons/networkd/guard.h"
#include "daemons/networkd/interfaces.h"
#include "daemons/networkd/ipv4_network.h"

namespace fenro::networkd {
namespace {

constexpr const char* POLICY_KEY = "gateway_policy";
constexpr const char* BY_ITSELF = "1";
constexpr const char* SET = "2";

// The default routes of the host itself, the best first.
bool default_routes(std::vector<Route>& out) {
  if (!list_routes(out)) return false;
  std::erase_if(out, [](const Route& route) {
    return route.table != RT_TABLE_MAIN || route.prefix != 0 || route.index == 0;
  });
  std::stable_sort(out.begin(), out.end(),
                   [](const Route& a, const Route& b) { return a.metric < b.metric; });
  return true;
}

std::string profile_name(const State& state, const std::string& interface) {
  const std::string key = tunnel_key(interface);
  const Json devices = state.devices.list(key);
  const char* name = text_or_null(json_object_get(devices.get(), key.c_str()), "profile");
  return name == nullptr ? interface : name;
}

Json describe(const Link& link, std::string_view type, std::uint32_t gateway,
              const std::string& name, const std::vector<Address>& addresses) {
  return Json{json_pack("{s:i, s:o, s:s%, s:s, s:{s:o, s:o}}", "ifindex", link.index, "ifname",
                        json_text(link.name).release(), "interface_type", type.data(), type.size(),
                        "gateway", gateway == 0 ? "" : dotted(gateway).c_str(), "status",
                        "display_name", json_text(name).release(), "IPv4",
                        addresses_of(link, addresses).release())};
}

}  // namespace

Answer update_vpn_gw(State& state, const json_t*) {
  state.gateway.reload();
  return succeed(json_text(""));
}

Answer get_current_gw_info(State& state, const json_t*) {
  std::vector<Link> links;
  std::vector<Address> addresses;
  std::vector<Route> routes;
  if (!list_links(links) || !list_addresses(addresses) || !default_routes(routes))
    return fail(ERROR_PLATFORM, "no answer from the kernel");
  Json all{json_array()};
  for (const Link& link : links) {
    if (link.name != state.gateway.interface()) continue;
    json_array_append_new(
        all.get(), describe(link, "VPN", 0, profile_name(state, link.name), addresses).release());
  }
  for (const Route& route : routes) {
    const Link* link = find_link(links, route.index);
    if (link == nullptr) continue;
    json_array_append_new(
        all.get(),
        describe(*link, interface_type(*link), route.gateway, link->name, addresses).release());
  }
  return succeed(std::move(all));
}

Answer guard_state(State& state, const json_t*) {
  Json all = describe_guard();
  const std::string mode = json_string_value(json_object_get(all.get(), "mode"));
  const bool filtered = json_object_get(all.get(), "stopped") != nullptr;
  const bool wanted = state.gateway.held() || !state.gateway.interface().empty();
  const char* word = "guarding";
  if (mode == "off") {
    word = guard_is_paused() ? "paused" : "off";
  } else if (!wanted) {
    word = "idle";
  } else if (!filtered) {
    word = "failed";
  } else if (state.gateway.held()) {
    word = "holding";
  }
  json_object_set_new(all.get(), "state", json_string(word));
  json_object_set_new(all.get(), "held", json_boolean(state.gateway.held()));
  json_object_set_new(all.get(), "switches", json_integer(state.gateway.switches()));
  json_object_set_new(all.get(), "since", json_integer(state.gateway.since()));
  json_object_set_new(all.get(), "interface", json_text(state.gateway.interface()).release());
  return succeed(std::move(all));
}

Answer get_global_config(State&, const json_t* request) {
  const char* key = text_or_null(request, "key");
  if (key == nullptr || std::string_view{key} != POLICY_KEY)
    return fail(ERROR_NOT_FOUND, "no such setting");
  std::vector<Route> routes;
  if (!default_routes(routes)) return fail(ERROR_PLATFORM, "no answer from the kernel");
  const bool by_itself =
      !routes.empty() && (routes[0].protocol == RTPROT_DHCP || routes[0].protocol == RTPROT_RA);
  return succeed(Json{json_pack("{s:s}", POLICY_KEY, by_itself ? BY_ITSELF : SET)});
}

}  // namespace fenro::networkd
