#include <cstdio>

#include "ormel/config_pool.h"
#include "ormel/error.h"
#include "ormel/net.h"
#include "ormel/system.h"
#include "ormel/wireguard.h"
#include "ormel/wireguard_key.h"
#include "ormel/wireguard_peers.h"
#include "ormel/wireguard_tool.h"

namespace ormel::wireguard {

namespace {

constexpr int DEFAULT_PORT = 51820;
constexpr int DEFAULT_SERVER_MASK = 24;  // bits
constexpr const char* DEFAULT_SERVER_IP = "198.18.7.1";

// In the place of a text that a notification has not got.
constexpr const char* BLANK = " ";

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
    if (!peer.pub_key.empty()) show_peer(add_object(out), peer, index, peer_status(status, peer.pub_key));
  }
}

ServerConfig::ServerConfig(int) : DriverServer(WIREGUARD_SERVER_TYPE) {
  encryption = NONE_ENCRYPTION;
}

int ServerConfig::modify() {
  std::string plain_name;
  if (const int rc = system::decode_urlEncoded(server_name, plain_name); rc != NO_ERROR) return rc;
  nclog::notify_send(&nc_message("C001", "0022"), plain_name.c_str(), server_ip.c_str(), std::to_string(port).c_str(),
                     interface_text(out_eif).c_str(), enable_dns ? manual_dns.c_str() : BLANK, nullptr);
  return NO_ERROR;
}

void ServerConfig::show(USER_TYPE who, JsonValue* out) {
  config::ServerConfig::show(who, out);
  if (!out) {
    config::print_line("PSK", psk);
    std::puts("");
    return;
  }
  (*out)["port"] = port;
  (*out)["server_ip"] = server_ip;
  (*out)["server_mask"] = server_mask;
  (*out)["enable_dns"] = enable_dns;
  (*out)["manual_dns"] = manual_dns;
  (*out)["server_name"] = server_name;
  (*out)["server_pri_key"] = server_pri_key;
  (*out)["server_pub_key"] = server_pub_key;
  show_peers((*out)["peers"], PeerFile(folder));
}

void ServerConfig::load(Conf_dir* conf, pid_t process) {
  config::ServerConfig::load(conf, process);
  const char* where = section.c_str();
  port = Conf_Dir_Get_Int(conf, where, "VPN Port", DEFAULT_PORT);
  server_ip = Conf_Dir_Get_Str(conf, where, "Server Address", DEFAULT_SERVER_IP);
  server_mask = Conf_Dir_Get_Int(conf, where, "Server Address Mask", DEFAULT_SERVER_MASK);
  enable_dns = Conf_Dir_Get_Bool(conf, where, "Enable Manual DNS", false) != 0;
  manual_dns = Conf_Dir_Get_Str(conf, where, "Use Manual DNS", config::ANY_ADDRESS);
  server_name = Conf_Dir_Get_Str(conf, where, "Server name", "");
  server_pri_key = Conf_Dir_Get_Str(conf, where, "Server private key", "");
  server_pub_key = Conf_Dir_Get_Str(conf, where, "Server public key", "");
  server_mask_str = system::dotted_mask(server_mask);
}

// Without the keys of the other servers: there are no accounts to count and no LAN to choose.
void ServerConfig::save(Conf_dir* conf) {
  const char* where = section.c_str();
  Conf_Dir_Set_Int(conf, where, "VPN Port", port);
  Conf_Dir_Set_Str(conf, where, "Server Address", server_ip.c_str());
  Conf_Dir_Set_Int(conf, where, "Server Address Mask", server_mask);
  Conf_Dir_Set_Bool(conf, where, "Enable Manual DNS", enable_dns);
  Conf_Dir_Set_Str(conf, where, "Use Manual DNS", manual_dns.c_str());
  Conf_Dir_Set_Str(conf, where, "interface", out_eif.c_str());
  Conf_Dir_Set_Str(conf, where, "Server name", server_name.c_str());
  Conf_Dir_Set_Str(conf, where, "Server private key", server_pri_key.c_str());
  Conf_Dir_Set_Str(conf, where, "Server public key", server_pub_key.c_str());
  Conf_Dir_Set_Bool(conf, where, "Enable", enable);
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
