#include "daemons/networkd/gateway_policy.h"

#include <charconv>

#include "common/json.h"

namespace fenro::networkd {
namespace {

constexpr int SLOTS = 32;

struct Tunnel {
  std::string_view key;
  std::string_view interface;
  int base;  // the unit less the slot
};

constexpr Tunnel TUNNELS[] = {
    {"PPTP_CLIENT", "ppp", 1000},     {"L2TP_CLIENT", "ppp", 1250}, {"OPENVPN_CLIENT", "tun", 2000},
    {"DROVIK_CLIENT", "dtunc", 2500}, {"WG_CLIENT", "wgc", 3000},
};

json_int_t number(const json_t* object, const char* key) {
  return json_integer_value(json_object_get(object, key));
}

std::string interface_of(const json_t* gateway) {
  const char* key = text_or_null(gateway, "sname");
  return key == nullptr ? std::string() : tunnel_interface(key);
}

}  // namespace

std::string tunnel_interface(std::string_view key) {
  for (const Tunnel& tunnel : TUNNELS) {
    if (!key.starts_with(tunnel.key)) continue;
    const std::string_view rest = key.substr(tunnel.key.size());
    int slot = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), slot);
    if (error != std::errc() || end != rest.data() + rest.size() || slot < 1 || slot > SLOTS) return {};
    return std::string(tunnel.interface) + std::to_string(tunnel.base + slot);
  }
  return {};
}

std::string tunnel_key(const std::string& interface) {
  for (const Tunnel& tunnel : TUNNELS) {
    for (int slot = 1; slot <= SLOTS; ++slot) {
      std::string key = std::string(tunnel.key) + std::to_string(slot);
      if (tunnel_interface(key) == interface) return key;
    }
  }
  return {};
}

GatewayPolicy read_gateway_policy(const char* path) {
  const Json root{json_load_file(path, 0, nullptr)};
  const json_t* setting = json_object_get(root.get(), "gw_setting");
  GatewayPolicy policy;
  if (number(setting, "as_gw_en") != 1) return policy;
  policy.first = interface_of(json_object_get(setting, "gw1"));
  policy.snat = number(setting, "snat") != 0;
  if (policy.first.empty() || number(setting, "failover_en") == 0) return policy;
  policy.second = interface_of(json_object_get(setting, "gw2"));
  const json_int_t interval = number(setting, "failover_interval");
  if (interval >= 0) policy.reversion = std::chrono::minutes(interval);
  return policy;
}

}  // namespace fenro::networkd
