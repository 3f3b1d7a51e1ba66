// Appliers of what a WireGuard record holds.
#include "ormel/drivers/wireguard/wireguard.h"

#include <cstring>
#include <string>

#include "ormel/base/address.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/options/apply.h"

namespace ormel::option {

namespace {

using wireguard::ClientConfig;
using wireguard::ServerConfig;

constexpr const char* PEER_MASK = "32";

// A peer of the server: one address in its network.
int apply_server_allow_ip(ServerConfig& server, const char* value) {
  if (empty(value)) {
    ORMEL_LOG(ERROR, "peer allow ip is NULL or 0.");
    return bad_value("peer_allow_ip");
  }
  const char* slash = std::strchr(value, '/');
  if (!slash) return bad_value("peer_allow_ip doesn't have \"/\"");
  if (std::strcmp(slash + 1, PEER_MASK) != 0) {
    return error_message(ERR_WIREGUARD_PEER_IP, "wireguard peer allow ip mask is not 32.");
  }
  const std::string address(value, slash);
  if (!config::cm.check_wireguard_peer_ip(address, system::dotted_mask(to_int(PEER_MASK)))) {
    return error_message(ERR_WIREGUARD_PEER_IP, "wireguard peer ip not in server.");
  }
  server.peer_allow_ip = address;
  server.peer_allow_ip_mask = PEER_MASK;
  return NO_ERROR;
}

}  // namespace

int apply_server_mask(BaseConfig** record, const char* value) {
  auto& server = as<ServerConfig>(record);
  server.server_mask = to_int(value);
  server.server_mask_str = system::dotted_mask(server.server_mask);
  return NO_ERROR;
}

int apply_client_name(BaseConfig** record, const char* value) {
  auto& client = as<ClientConfig>(record);
  client.name = client.client_name = value;
  return NO_ERROR;
}

int apply_client_mask(BaseConfig** record, const char* value) {
  auto& client = as<ClientConfig>(record);
  client.client_mask = to_int(value);
  client.client_mask_str = system::dotted_mask(client.client_mask);
  return NO_ERROR;
}

int apply_peer_allow_ip(BaseConfig** record, const char* value) {
  if ((*record)->type == WIREGUARD_SERVER_TYPE)
    return apply_server_allow_ip(as<ServerConfig>(record), value);
  as<ClientConfig>(record).peer_allow_ip = empty(value) ? "0.0.0.0/0" : value;
  return NO_ERROR;
}

int apply_peer_endpoint(BaseConfig** record, const char* value) {
  if (empty(value) && is_client((*record)->type)) return bad_value("peer_endpoint is NULL or 0.");
  field<&ServerConfig::peer_endpoint, &ClientConfig::peer_endpoint>(record) = value ? value : "";
  return NO_ERROR;
}

}  // namespace ormel::option
