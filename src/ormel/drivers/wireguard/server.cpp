#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/config/fields.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/tool.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/notification.h"

namespace ormel::wireguard {

namespace {

constexpr int DEFAULT_PORT = 51820;
constexpr int DEFAULT_SERVER_MASK = 24;  // bits
constexpr const char* DEFAULT_SERVER_IP = "198.18.7.1";

// In the place of a text that a notification has not got.
constexpr const char* BLANK = " ";

// clang-format off
constexpr config::Field SERVER_FIELDS[] = {
    {"VPN Port",            &ServerConfig::port,        DEFAULT_PORT,        "port"},
    {"Server Address",      &ServerConfig::server_ip,   DEFAULT_SERVER_IP,   "server_ip"},
    {"Server Address Mask", &ServerConfig::server_mask, DEFAULT_SERVER_MASK, "server_mask"},
};
constexpr config::Field NAME_FIELDS[] = {
    {"interface",          &ServerConfig::out_eif,        "all", "out_eif"},
    {"Server name",        &ServerConfig::server_name,    "",    "server_name"},
    {"Server private key", &ServerConfig::server_pri_key, "",    "server_pri_key"},
    {"Server public key",  &ServerConfig::server_pub_key, "",    "server_pub_key"},
};
// Without the keys of the other servers: there are no accounts to count and no LAN to choose.
constexpr config::Field UNSAVED_FIELDS[] = {
    {"Max Client",    &ServerConfig::maximum,  5,  "maximum", 0, config::UNSAVED},
    {"interface lan", &ServerConfig::out_lan,  0,  nullptr,   0, config::UNSAVED},
    {"Client IP 1",   &ServerConfig::ip_begin, "", "ip_pool", 0, config::UNSTORED},
    {"PSK",           &ServerConfig::psk,      "", nullptr,   1, config::UNSTORED},
};
// clang-format on

std::string interface_text(const std::string& out_eif) {
  if (out_eif == "all") return "All";
  if (out_eif == "none") return "None";
  std::string label = out_eif;  // stays for an interface without a label
  config::get_out_eif_str(out_eif, label);
  return label;
}

JsonValue& add_object(JsonValue& array) {
  auto item = std::make_unique<JsonValue>();
  JsonValue& object = *item;
  array.append(std::move(item));
  return object;
}

void show_peer(JsonValue& out, const Peer& peer, int index, const PeerStatus& status) {
  const std::string address = peer.allow_ip.empty() ? "" : peer.allow_ip + '/' + peer.allow_ip_mask;
  out["peer_name"] = peer.name;
  out["psk"] = peer.psk;
  out["peer_pub_key"] = peer.pub_key;
  out["peer_allow_ip"] = status.allowed_ips.empty() ? address : status.allowed_ips;
  out["peer_endpoint"] = peer.endpoint;
  out["keepalive"] = peer.keepalive;
  out["index"] = index;
  out["latest_handshake"] = status.latest_handshake;
  out["tx_total"] = status.tx_total;
  out["rx_total"] = status.rx_total;
}

}  // namespace

void show_peers(JsonValue& out, const PeerFile& peers) {
  out.make_array();  // also without peers
  std::string status;
  if (peers.max_index() != 0) get_wg_status(status, 0);
  for (int index = 1; index <= peers.max_index(); ++index) {
    const Peer peer = peers.peer(index);
    if (!peer.pub_key.empty())
      show_peer(add_object(out), peer, index, peer_status(status, peer.pub_key));
  }
}

ServerConfig::ServerConfig(int) : DriverServer(WIREGUARD_SERVER_TYPE) {
  encryption = NONE_ENCRYPTION;
}

int ServerConfig::modify() {
  std::string plain_name;
  if (const int rc = system::decode_urlEncoded(server_name, plain_name); rc != NO_ERROR) return rc;
  nclog::notify_send(&nc_message("C001", "0022"), plain_name.c_str(), server_ip.c_str(),
                     std::to_string(port).c_str(), interface_text(out_eif).c_str(),
                     enable_dns ? manual_dns.c_str() : BLANK, nullptr);
  return NO_ERROR;
}

std::span<const config::FieldTable> ServerConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {SERVER_FIELDS, config::MANUAL_DNS_FIELDS,
                                                  NAME_FIELDS, config::BASE_FIELDS, UNSAVED_FIELDS};
  return TABLES;
}

void ServerConfig::show(USER_TYPE who, JsonValue* out) {
  DriverServer::show(who, out);
  if (out) show_peers((*out)["peers"], PeerFile(folder));
}

void ServerConfig::load(Conf_dir* conf, pid_t process) {
  DriverServer::load(conf, process);
  server_mask_str = system::dotted_mask(server_mask);
}

int ServerConfig::gen_pri_pub_keys(const std::string& key, JsonValue* doc) {
  std::string pub_key;
  const int rc = server_gen_pri_pub_keys(key, doc, pub_key);
  if (rc != NO_ERROR) ORMEL_LOG(ERROR, "wireguard server wrong pri key: %s", key.c_str());
  return rc;
}

int ServerConfig::check_config_value() {
  int rc = server_pri_key.empty() ? make_private_key(server_pri_key) : NO_ERROR;
  if (rc == NO_ERROR) rc = server_gen_pri_pub_keys(server_pri_key, nullptr, server_pub_key);
  if (rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "wireguard server wrong pri key: %s", server_pri_key.c_str());
    return rc;
  }
  return enable ? config::check_server_listen_port_with_client(port) : NO_ERROR;
}

}  // namespace ormel::wireguard
