#include "daemons/networkd/gateway_policy.h"

#include <string_view>
#include <unistd.h>

#include "base/lines.h"
#include "base/tunnel.h"
#include "common/json.h"

namespace fenro::networkd {
namespace {

json_int_t number(const json_t* object, const char* key) {
  return json_integer_value(json_object_get(object, key));
}

std::string interface_of(const json_t* gateway) {
  const char* key = text_or_null(gateway, "sname");
  return key == nullptr ? std::string() : tunnel_interface(key);
}

}  // namespace

std::string tunnel_interface(std::string_view key) {
  for (const ormel::TunnelFacts& facts : ormel::TUNNELS) {
    const std::string_view section = facts.client_section;
    if (!key.starts_with(section)) continue;
    int slot = 0;
    if (!parse_number(key.substr(section.size()), slot)) return {};
    if (slot < 1 || slot > ormel::MAX_TUNNEL_INDEX) return {};
    return ormel::interface_name(facts.client, slot);
  }
  return {};
}

std::string tunnel_key(const std::string& interface) {
  for (const ormel::TunnelFacts& facts : ormel::TUNNELS) {
    for (int slot = 1; slot <= ormel::MAX_TUNNEL_INDEX; ++slot) {
      std::string key = facts.client_section + std::to_string(slot);
      if (tunnel_interface(key) == interface) return key;
    }
  }
  return {};
}

GatewayPolicy read_gateway_policy(const char* path) {
  const Json root{json_load_file(path, 0, nullptr)};
  const json_t* setting = json_object_get(root.get(), "gw_setting");
  GatewayPolicy policy;
  policy.damaged = !json_is_object(root.get()) && access(path, F_OK) == 0;
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
