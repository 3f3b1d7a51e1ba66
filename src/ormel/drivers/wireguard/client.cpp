#include <arpa/inet.h>

#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/config/fields.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/tool.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/notification.h"
#include "ormel/host/process.h"

namespace ormel::wireguard {

namespace {

constexpr int CLIENT_MASK = 32;  // the only prefix length of a client's interface, bits
constexpr int MAX_PORT = 65535;

// clang-format off
constexpr config::Field CLIENT_FIELDS[] = {
    {"VPN Port",            &ClientConfig::port,           0,                   "port",           2, config::FOR_ADMIN},
    {"Client name",         &ClientConfig::client_name,    "",                  "client_name",    0, config::FOR_ADMIN},
    {"Client private key",  &ClientConfig::client_pri_key, "",                  "client_pri_key", 0, config::FOR_ADMIN},
    {"Client public key",   &ClientConfig::client_pub_key, "",                  "client_pub_key", 0, config::FOR_ADMIN},
    {"Client Address",      &ClientConfig::client_ip,      config::ANY_ADDRESS, "client_ip",      0, config::FOR_ADMIN},
    {"Client Address Mask", &ClientConfig::client_mask,    0,                   "client_mask",    0, config::FOR_ADMIN},
    {"Use Manual DNS",      &ClientConfig::manual_dns,     config::ANY_ADDRESS, "manual_dns",     0, config::FOR_ADMIN},
    {"Enable Manual DNS",   &ClientConfig::enable_dns,     0,                   "enable_dns",     0, config::FOR_ADMIN},
    {"Peer Public key",     &ClientConfig::peer_pub_key,   "",                  "peer_pub_key",   0, config::FOR_ADMIN},
    {"Peer Endpoint",       &ClientConfig::peer_endpoint,  "",                  "peer_endpoint",  0, config::FOR_ADMIN},
    {"PSK",                 &ClientConfig::psk,            "",                  "psk",            1, config::FOR_ADMIN},
    {"Peer Allowed IPs",    &ClientConfig::peer_allow_ip,  "",                  "peer_allow_ip",  0, config::FOR_ADMIN},
    {"Peer keepalive",      &ClientConfig::keepalive,      0,                   "keepalive",      0, config::FOR_ADMIN},
    {"Domain IP",           &ClientConfig::conf_domain_ip, "",                  nullptr,          0, config::LEARNED},
};
// clang-format on

}  // namespace

bool ClientConfig::split_endpoint() {
  const size_t colon = peer_endpoint.find(':');
  if (colon == std::string::npos) return false;
  domain_ip = peer_endpoint.substr(0, colon);
  domain_port = peer_endpoint.substr(colon + 1);
  return true;
}

int ClientConfig::verify() {
  if (type != WIREGUARD_CLIENT_TYPE) return error_message(ERR_WRONG_TYPE, nullptr);
  if (client_name.empty()) return error_message(ERR_VALUE, "client_name");
  if (client_pri_key.empty()) return error_message(ERR_VALUE, "client_pri_key");
  if (client_ip.empty()) return error_message(ERR_VALUE, "client_ip");
  if (client_mask != CLIENT_MASK) return error_message(ERR_VALUE, "client_mask");
  if (peer_pub_key.empty()) return error_message(ERR_VALUE, "peer_pub_key");
  if (peer_endpoint.empty()) return error_message(ERR_VALUE, "peer_endpoint");
  if (port < 0 || port > MAX_PORT) return error_message(ERR_PORT_NUMBER, nullptr);
  if (index < 0 || index > config::MAX_CLIENTS) return error_message(ERR_MAX_CONFIGS, nullptr);
  if (in_addr unused{}; inet_aton(client_ip.c_str(), &unused) == 0) {
    ORMEL_LOG(ERROR, "%s: client_ip is not ip format. %s", __func__, client_ip.c_str());
    return error_message(ERR_VALUE, "client_ip is not ip format.");
  }
  if (!split_endpoint()) {
    ORMEL_LOG(ERROR, "%s: peer_endpoint %s, listen port not exist.", __func__,
              peer_endpoint.c_str());
    return error_message(ERR_VALUE, "peer_endpoint");
  }
  if (const int rc = verify_keys(); rc != NO_ERROR) return rc;
  return config::check_wireguard_client_profile(index, client_ip, domain_ip, domain_port, port);
}

int ClientConfig::verify_keys() {
  if (server_gen_pri_pub_keys(client_pri_key, nullptr, client_pub_key) != NO_ERROR) {
    ORMEL_LOG(ERROR, "wireguard client_pri_key wrong key: %s", client_pri_key.c_str());
    return error_message(ERR_VALUE, "client_pri_key");
  }
  if (check_key(peer_pub_key) != NO_ERROR) {
    ORMEL_LOG(ERROR, "wireguard peer_pub_key wrong key: %s", peer_pub_key.c_str());
    return error_message(ERR_VALUE, "peer_pub_key");
  }
  if (!psk.empty() && check_key(psk) != NO_ERROR) {
    ORMEL_LOG(ERROR, "wireguard psk wrong psk: %s", psk.c_str());
    return error_message(ERR_VALUE, "psk");
  }
  return NO_ERROR;
}

int ClientConfig::add(int slot) {
  if (const int rc = verify(); rc != NO_ERROR) return rc;
  set_index(slot);
  return announce_settings(nc_message("C002", "0026"), opt_ext_dev_register);
}

int ClientConfig::modify() {
  if (const int rc = verify(); rc != NO_ERROR) return rc;
  set_index(index);
  return announce_settings(nc_message("C002", "0027"), opt_ext_dev_modify);
}

int ClientConfig::announce_settings(const nc_msg_struct& message, OptExternalDev op) {
  dns_server = enable_dns ? manual_dns : "";
  std::string plain_name;
  if (const int rc = system::decode_urlEncoded(name, plain_name); rc != NO_ERROR) return rc;
  notify_settings(message, plain_name);
  return mibcall_external_dev(op);
}

void ClientConfig::notify_settings(const nc_msg_struct& message,
                                   const std::string& plain_name) const {
  nclog::notify_send(&message, plain_name.c_str(), client_ip.c_str(), std::to_string(port).c_str(),
                     enable_dns ? manual_dns.c_str() : " ", peer_endpoint.c_str(),
                     peer_allow_ip.c_str(), std::to_string(keepalive).c_str(), nullptr);
}

// The key material lives in vpn.conf; the script owns what it has derived from it.
void ClientConfig::remove() {
  std::string plain_name;
  std::ignore = system::decode_urlEncoded(name, plain_name);  // the profile is removed anyway
  notify_settings(nc_message("C002", "0028"), plain_name);
  std::ignore = mibcall_external_dev(opt_ext_dev_unregister);  // it has been logged
  std::ignore = system::background(script("remove"));          // not waited for
}

int ClientConfig::do_connect(int flag) {
  if (enable && pid != 0) return NO_ERROR;
  if (const int rc = check_client_with_server_ip_pool_and_port(client_ip, client_mask_str, port);
      rc != NO_ERROR) {
    return rc;
  }
  return DriverClient::do_connect(flag);
}

int ClientConfig::gen_pri_pub_keys(const std::string& key, JsonValue* doc) {
  std::string pub_key;
  const int rc = server_gen_pri_pub_keys(key, doc, pub_key);
  if (rc != NO_ERROR) ORMEL_LOG(ERROR, "wireguard client wrong pri key: %s", key.c_str());
  return rc;
}

void ClientConfig::nslookup(const std::string& host_name, std::vector<std::string>& ips) {
  std::vector<std::string> found;
  system::nslookup(host_name, found);
  if (!found.empty()) ip = found.back();
  ips.insert(ips.end(), found.begin(), found.end());
}

std::span<const config::FieldTable> ClientConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS, config::CLIENT_FIELDS,
                                                  CLIENT_FIELDS};
  return TABLES;
}

void ClientConfig::show(USER_TYPE who, JsonValue* out) {
  DriverClient::show(who, out);
  if (!out || who != ADMIN_USER) return;
  (*out)["profile"] = client_name;
  (*out)["server_ip"] = peer_endpoint;
  (*out)["local_ip"] = client_ip;

  std::string text;
  get_wg_status(text, index);
  const PeerStatus live = peer_status(text, "");
  (*out)["latest_handshake"] = live.latest_handshake;
  (*out)["tx_total"] = live.tx_total;
  (*out)["rx_total"] = live.rx_total;
  if (enable) (*out)["status"] = static_cast<int32_t>(CONNECTED_STATUS);
}

void ClientConfig::load(Conf_dir* conf, pid_t process) {
  DriverClient::load(conf, process);
  std::ignore = split_endpoint();  // an endpoint without a port has no parts
  client_mask_str = system::dotted_mask(client_mask);
}

int check_client_with_server_ip_pool_and_port(const std::string& ip, const std::string& mask,
                                              int port) {
  const system::Network client{ip, mask};
  for (const TunnelFacts& facts : TUNNELS) {
    const config::PolyConfig* stored = config::cm.fetch(facts.server, 0);
    if (!stored || !(*stored)->enable || facts.server == WIREGUARD_SERVER_TYPE) continue;
    const system::Network pool{stored->cast<config::ServerConfig>()->ip_begin, config::POOL_MASK};
    if (system::is_intersect(client, pool)) {
      ORMEL_LOG(ERROR, "%s: ip pool conflict with %s server.", __func__, facts.log_name);
      return ERR_IP_POOL_CONFLICT;
    }
  }

  const config::PolyConfig* stored = config::cm.fetch(WIREGUARD_SERVER_TYPE, 0);
  const auto* server = stored ? stored->cast<ServerConfig>() : nullptr;
  if (!server || !server->enable) return NO_ERROR;
  const system::Network own{server->server_ip, server->server_mask_str};
  if (!system::is_intersect(own, own)) return NO_ERROR;  // no network at all
  if (server->port == port) {
    ORMEL_LOG(ERROR, "%s: client port conflict with WireGuard server.", __func__);
    return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
  }
  if (!system::is_intersect(client, own)) return NO_ERROR;
  ORMEL_LOG(ERROR, "%s: ip pool conflict with WireGuard server.", __func__);
  return ERR_IP_POOL_CONFLICT;
}

}  // namespace ormel::wireguard
