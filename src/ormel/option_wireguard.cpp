// Appliers of what a WireGuard record holds.
#include <cstring>
#include <string>

#include "ormel/config_pool.h"
#include "ormel/net.h"
#include "ormel/option_apply.h"
#include "ormel/system_log.h"
#include "ormel/text.h"
#include "ormel/wireguard.h"

namespace ormel::option {

namespace {

using wireguard::ClientConfig;
using wireguard::ServerConfig;

constexpr int BOTH_ENDS = WIREGUARD_SERVER_TYPE | WIREGUARD_CLIENT_TYPE;
constexpr const char* PEER_MASK = "32";

int empty_value(const char* logged, const char* detail) {
  ORMEL_LOG(ERROR, "%s is NULL or 0.", logged);
  return bad_value(detail);
}

// The value must not be empty; the log and the user have names of their own for each option.
int expect_value(BaseConfig** record, const char* value, int types, const char* type_detail, const char* logged,
                 const char* detail) {
  if (const int rc = expect(record, types, type_detail); rc != NO_ERROR) return rc;
  return empty(value) ? empty_value(logged, detail) : NO_ERROR;
}

int apply_server_text(BaseConfig** record, const char* value, const char* type_detail, const char* logged,
                      const char* detail, std::string ServerConfig::*field) {
  const int rc = expect_value(record, value, WIREGUARD_SERVER_TYPE, type_detail, logged, detail);
  if (rc == NO_ERROR) as<ServerConfig>(record).*field = value;
  return rc;
}

int apply_client_text(BaseConfig** record, const char* value, const char* type_detail, const char* logged,
                      const char* detail, std::string ClientConfig::*field) {
  const int rc = expect_value(record, value, WIREGUARD_CLIENT_TYPE, type_detail, logged, detail);
  if (rc == NO_ERROR) as<ClientConfig>(record).*field = value;
  return rc;
}

// A peer of the server: one address in its network.
int apply_server_allow_ip(ServerConfig& server, const char* value) {
  if (empty(value)) return empty_value("peer allow ip", "peer_allow_ip");
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

int apply_server_ip(BaseConfig** record, const char* value) {
  return apply_server_text(record, value, "--server_ip for wireguard Server", "server ip", "server ip",
                           &ServerConfig::server_ip);
}

int apply_server_name(BaseConfig** record, const char* value) {
  return apply_server_text(record, value, "--server_name for wireguard Server", "server name", "server name",
                           &ServerConfig::server_name);
}

int apply_server_pri_key(BaseConfig** record, const char* value) {
  return apply_server_text(record, value, "--server_pri_key for wireguard Server", "server_pri_key", "server_pri_key",
                           &ServerConfig::server_pri_key);
}

int apply_server_mask(BaseConfig** record, const char* value) {
  const int rc = expect_value(record, value, WIREGUARD_SERVER_TYPE, "--server_mask for wireguard Server", "server mask",
                              "server_mask");
  if (rc != NO_ERROR) return rc;
  auto& server = as<ServerConfig>(record);
  server.server_mask = to_int(value);
  server.server_mask_str = system::dotted_mask(server.server_mask);
  return NO_ERROR;
}

int apply_client_ip(BaseConfig** record, const char* value) {
  return apply_client_text(record, value, "--client_ip for wireguard Client", "client ip", "client_ip",
                           &ClientConfig::client_ip);
}

int apply_client_name(BaseConfig** record, const char* value) {
  const int rc = apply_client_text(record, value, "--client_name for wireguard Client", "client name", "client_name",
                                   &ClientConfig::client_name);
  if (rc == NO_ERROR) as<ClientConfig>(record).name = value;
  return rc;
}

int apply_client_pri_key(BaseConfig** record, const char* value) {
  return apply_client_text(record, value, "--client_pri_key for wireguard Client", "client pri key", "client_pri_key",
                           &ClientConfig::client_pri_key);
}

int apply_client_mask(BaseConfig** record, const char* value) {
  const int rc = expect_value(record, value, WIREGUARD_CLIENT_TYPE, "--client_mask for wireguard Client", "client mask",
                              "client_mask");
  if (rc != NO_ERROR) return rc;
  auto& client = as<ClientConfig>(record);
  client.client_mask = to_int(value);
  client.client_mask_str = system::dotted_mask(client.client_mask);
  return NO_ERROR;
}

int apply_peer_name(BaseConfig** record, const char* value) {
  return apply_server_text(record, value, "--peer_name for wireguard Server Client", "peer name", "peer_name",
                           &ServerConfig::peer_name);
}

int apply_peer_pub_key(BaseConfig** record, const char* value) {
  const int rc = expect_value(record, value, BOTH_ENDS, "--peer_pub_key for wireguard Server Client", "peer pub key",
                              "peer_pub_key");
  if (rc != NO_ERROR) return rc;
  const bool server = (*record)->type == WIREGUARD_SERVER_TYPE;
  (server ? as<ServerConfig>(record).peer_pub_key : as<ClientConfig>(record).peer_pub_key) = value;
  return NO_ERROR;
}

int apply_peer_allow_ip(BaseConfig** record, const char* value) {
  const int rc = expect(record, BOTH_ENDS, "--peer_allow_ip for wireguard Server Client");
  if (rc != NO_ERROR) return rc;
  if ((*record)->type == WIREGUARD_SERVER_TYPE) return apply_server_allow_ip(as<ServerConfig>(record), value);
  as<ClientConfig>(record).peer_allow_ip = empty(value) ? "0.0.0.0/0" : value;
  return NO_ERROR;
}

int apply_peer_endpoint(BaseConfig** record, const char* value) {
  const int rc = expect(record, BOTH_ENDS, "--peer_endpoint for wireguard Server Client");
  if (rc != NO_ERROR) return rc;
  if ((*record)->type == WIREGUARD_SERVER_TYPE) {
    as<ServerConfig>(record).peer_endpoint = value ? value : "";
    return NO_ERROR;
  }
  if (empty(value)) return bad_value("peer_endpoint is NULL or 0.");
  as<ClientConfig>(record).peer_endpoint = value;
  return NO_ERROR;
}

int apply_keepalive(BaseConfig** record, const char* value) {
  const int rc = expect(record, BOTH_ENDS, "--keepalive for wireguard Server Client");
  if (rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("keepalive is NULL or 0.");
  const bool server = (*record)->type == WIREGUARD_SERVER_TYPE;
  (server ? as<ServerConfig>(record).keepalive : as<ClientConfig>(record).keepalive) = to_int(value);
  return NO_ERROR;
}

}  // namespace ormel::option
