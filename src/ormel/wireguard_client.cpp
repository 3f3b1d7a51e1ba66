#include <arpa/inet.h>
#include <cstdio>

#include "ormel/config_pool.h"
#include "ormel/error.h"
#include "ormel/net.h"
#include "ormel/system.h"
#include "ormel/wireguard.h"
#include "ormel/wireguard_key.h"
#include "ormel/wireguard_tool.h"

namespace ormel::wireguard {

namespace {

constexpr int CLIENT_MASK = 32;  // the only prefix length of a client's interface, bits
constexpr int MAX_PORT = 65535;
constexpr const char* POOL_MASK = "255.255.255.0";  // a server's pool is the /24 around its first address

// A network in text; false when either part is no address.
struct Network {
  in_addr address{};
  in_addr mask{};

  bool parse(const std::string& ip, const std::string& mask_text) {
    return system::parse_address(ip, address) && system::parse_address(mask_text, mask);
  }
  [[nodiscard]] bool meets(const Network& other) const {
    return system::is_intersect(address, mask, other.address, other.mask);
  }
};

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
    ORMEL_LOG(ERROR, "%s: peer_endpoint %s, listen port not exist.", __func__, peer_endpoint.c_str());
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

void ClientConfig::notify_settings(const nc_msg_struct& message, const std::string& plain_name) const {
  nclog::notify_send(&message, plain_name.c_str(), client_ip.c_str(), std::to_string(port).c_str(),
                     enable_dns ? manual_dns.c_str() : " ", peer_endpoint.c_str(), peer_allow_ip.c_str(),
                     std::to_string(keepalive).c_str(), nullptr);
}

// The key material lives in vpn.conf; the script owns what it has derived from it.
void ClientConfig::remove() {
  std::string plain_name;
  std::ignore = system::decode_urlEncoded(name, plain_name);  // the profile goes all the same
  notify_settings(nc_message("C002", "0028"), plain_name);
  std::ignore = mibcall_external_dev(opt_ext_dev_unregister);  // it has been logged
  std::ignore = system::background(script("remove"));          // nobody waits for it
}

int ClientConfig::do_connect(int flag) {
  if (enable && pid != 0) return NO_ERROR;
  if (const int rc = check_client_with_server_ip_pool_and_port(client_ip, client_mask_str, port); rc != NO_ERROR) {
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

void ClientConfig::show(USER_TYPE who, JsonValue* out) {
  config::ClientConfig::show(who, out);
  if (!out) {
    config::print_line("PSK", psk);
    config::print_line("VPN Port", port);
    std::puts("");
    return;
  }
  if (who != ADMIN_USER) return;
  (*out)["port"] = port;
  (*out)["client_name"] = client_name;
  (*out)["client_pri_key"] = client_pri_key;
  (*out)["client_pub_key"] = client_pub_key;
  (*out)["client_ip"] = client_ip;
  (*out)["client_mask"] = client_mask;
  (*out)["enable_dns"] = enable_dns;
  (*out)["manual_dns"] = manual_dns;
  (*out)["peer_pub_key"] = peer_pub_key;
  (*out)["peer_endpoint"] = peer_endpoint;
  (*out)["peer_allow_ip"] = peer_allow_ip;
  (*out)["keepalive"] = keepalive;
  (*out)["psk"] = psk;
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
  config::ClientConfig::load(conf, process);
  const char* where = section.c_str();
  port = Conf_Dir_Get_Int(conf, where, "VPN Port", 0);
  client_name = Conf_Dir_Get_Str(conf, where, "Client name", "");
  client_pri_key = Conf_Dir_Get_Str(conf, where, "Client private key", "");
  client_pub_key = Conf_Dir_Get_Str(conf, where, "Client public key", "");
  client_ip = Conf_Dir_Get_Str(conf, where, "Client Address", config::ANY_ADDRESS);
  client_mask = Conf_Dir_Get_Int(conf, where, "Client Address Mask", 0);
  manual_dns = Conf_Dir_Get_Str(conf, where, "Use Manual DNS", config::ANY_ADDRESS);
  enable_dns = Conf_Dir_Get_Bool(conf, where, "Enable Manual DNS", false) != 0;
  peer_pub_key = Conf_Dir_Get_Str(conf, where, "Peer Public key", "");
  peer_endpoint = Conf_Dir_Get_Str(conf, where, "Peer Endpoint", "");
  psk = Conf_Dir_Get_Str(conf, where, "PSK", "");
  peer_allow_ip = Conf_Dir_Get_Str(conf, where, "Peer Allowed IPs", "");
  keepalive = Conf_Dir_Get_Int(conf, where, "Peer keepalive", 0);
  conf_domain_ip = Conf_Dir_Get_Str(conf, where, "Domain IP", "");
  std::ignore = split_endpoint();  // an endpoint without a port has no parts
  client_mask_str = system::dotted_mask(client_mask);
}

void ClientConfig::save(Conf_dir* conf) {
  config::ClientConfig::save(conf);
  const char* where = section.c_str();
  Conf_Dir_Set_Int(conf, where, "VPN Port", port);
  Conf_Dir_Set_Str(conf, where, "Client name", client_name.c_str());
  Conf_Dir_Set_Str(conf, where, "Client private key", client_pri_key.c_str());
  Conf_Dir_Set_Str(conf, where, "Client public key", client_pub_key.c_str());
  Conf_Dir_Set_Str(conf, where, "Client Address", client_ip.c_str());
  Conf_Dir_Set_Int(conf, where, "Client Address Mask", client_mask);
  Conf_Dir_Set_Str(conf, where, "Use Manual DNS", manual_dns.c_str());
  Conf_Dir_Set_Bool(conf, where, "Enable Manual DNS", enable_dns);
  Conf_Dir_Set_Str(conf, where, "Peer Public key", peer_pub_key.c_str());
  Conf_Dir_Set_Str(conf, where, "Peer Endpoint", peer_endpoint.c_str());
  Conf_Dir_Set_Str(conf, where, "PSK", psk.c_str());
  Conf_Dir_Set_Str(conf, where, "Peer Allowed IPs", peer_allow_ip.c_str());
  Conf_Dir_Set_Int(conf, where, "Peer keepalive", keepalive);
  Conf_Dir_Set_Str(conf, where, "Domain IP", conf_domain_ip.c_str());
}

int check_client_with_server_ip_pool_and_port(const std::string& ip, const std::string& mask, int port) {
  Network client;
  const bool known = client.parse(ip, mask);  // what is no network meets none
  for (const TunnelFacts& facts : TUNNELS) {
    const config::PolyConfig* stored = config::cm.fetch(facts.server, 0);
    if (!stored || !(*stored)->enable || facts.server == WIREGUARD_SERVER_TYPE) continue;
    Network pool;
    if (known && pool.parse(stored->cast<config::ServerConfig>()->ip_begin, POOL_MASK) && client.meets(pool)) {
      ORMEL_LOG(ERROR, "%s: ip pool conflict with %s server.", __func__, facts.log_name);
      return ERR_IP_POOL_CONFLICT;
    }
  }

  const config::PolyConfig* stored = config::cm.fetch(WIREGUARD_SERVER_TYPE, 0);
  const auto* server = stored ? stored->cast<ServerConfig>() : nullptr;
  Network own;
  if (!server || !server->enable || !own.parse(server->server_ip, server->server_mask_str)) return NO_ERROR;
  if (server->port == port) {
    ORMEL_LOG(ERROR, "%s: client port conflict with WireGuard server.", __func__);
    return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
  }
  if (!known || !client.meets(own)) return NO_ERROR;
  ORMEL_LOG(ERROR, "%s: ip pool conflict with WireGuard server.", __func__);
  return ERR_IP_POOL_CONFLICT;
}

}  // namespace ormel::wireguard
