// The WireGuard driver.
#pragma once

#include <string>
#include <vector>

#include "ormel/base/error.h"
#include "ormel/config/driver.h"

namespace ormel::wireguard {

struct Peer;
class PeerFile;

constexpr const char* SERVER_INTERFACE = "wg0";
constexpr const char* FOLDER =
    "/etc/config/ormel/wireguard";  // of the peer file and the peers' key files

// The peers are not client accounts: each is a record in its own file, and the running
// interface is changed one peer at a time. To add one: check_peer_value(0), enable_peer(0),
// add_peer(); to edit one: the same with its index and modify_peer; to delete one: disable_peer,
// delete_peer.
class ServerConfig : public config::DriverServer {
 public:
  int port = 443;   // listen port; 51820 once loaded from a file without one
  std::string psk;  // this and the peer_ fields carry the arguments of one peer operation; none is
                    // stored in vpn.conf
  std::string server_ip;
  std::string server_name;     // URL-encoded
  std::string server_pri_key;  // base64 text
  std::string server_pub_key;
  int server_mask = 24;         // prefix length, bits
  std::string server_mask_str;  // the same as a dotted mask, set by `load`
  std::string peer_name;        // URL-encoded
  std::string peer_pub_key;
  std::string peer_allow_ip;
  std::string peer_allow_ip_mask;  // prefix length as text
  std::string peer_endpoint;       // may be empty
  int keepalive = 0;               // seconds, 0 for none
  std::string folder = FOLDER;     // where the peers are kept

  explicit ServerConfig(int);

  int modify() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
  [[nodiscard]] std::vector<system::Network> networks() const override {
    return {{server_ip, server_mask_str}};
  }
  [[nodiscard]] int listen_port() const override { return port; }

  int add_peer() override;
  int check_peer_value(int peer) override;
  int enable_peer(int peer) override;
  int disable_peer(int peer) override;
  int modify_peer(int peer) override;
  int delete_peer(int peer) override;
  int gen_pri_pub_keys(const std::string& key, JsonValue* doc) override;
  // Fills the keys: a new private one if there is none, and the public one. ERR_CMD_FAILED for a
  // bad private key; ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE if a client listens on the port of a
  // server that is on.
  int check_config_value() override;
  // Moves the peers into the server's network if its address differs from that of the stored
  // record.
  int modify_peers_ip() override;

 private:
  [[nodiscard]] Peer peer_in_work() const;
  int installation_of(const PeerFile& peers, int peer, std::vector<std::string>& command) const;
};

class ClientConfig : public config::DriverClient {
 public:
  std::string ip;  // last address that `nslookup` found
  int port = 0;    // listen port, 0 lets the kernel choose
  std::string psk;
  std::string client_ip;
  std::string client_name;  // URL-encoded
  std::string client_pri_key;
  std::string client_pub_key;   // set by `verify`
  int client_mask = 0;          // prefix length, bits; a usable profile has 32
  std::string client_mask_str;  // the same as a dotted mask, set by `load`
  std::string peer_pub_key;     // the server's
  std::string peer_allow_ip;
  std::string peer_endpoint;  // host, colon, port
  int keepalive = 0;          // seconds
  bool enable_dns = false;
  std::string manual_dns = config::ANY_ADDRESS;
  std::string conf_domain_ip;  // "Domain IP" as read
  std::string domain_ip;       // host of the endpoint
  std::string domain_port;     // port of the endpoint
  std::vector<std::string> domain_ips;

  explicit ClientConfig(int slot) : DriverClient(WIREGUARD_CLIENT_TYPE, slot) {}

  int add(int slot) override;
  int modify() override;
  int verify() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
  void remove() override;
  int do_connect(int flag) override;
  [[nodiscard]] std::vector<system::Network> networks() const override {
    return {{client_ip, client_mask_str}};
  }
  [[nodiscard]] int listen_port() const override { return port; }
  [[nodiscard]] config::Endpoint endpoint() const override { return {domain_ip, domain_port}; }

  int gen_pri_pub_keys(const std::string& key, JsonValue* doc) override;

  // Appends each address of `host`, holding the last in `ip`.
  void nslookup(const std::string& host_name, std::vector<std::string>& ips);

 private:
  int verify_keys();
  bool split_endpoint();
  int announce_settings(const nc_msg_struct& message, OptExternalDev op);
  void notify_settings(const nc_msg_struct& message, const std::string& plain_name) const;
  [[nodiscard]] const char* registered_dns() const override { return dns_server.c_str(); }
  [[nodiscard]] const char* registered_gateway() const override { return config::ANY_ADDRESS; }
};

// Makes `out` the array of the peers, each with what the running interface reports about it.
void show_peers(JsonValue& out, const PeerFile& peers);

// Whether a client's interface can be up beside the servers that are on. 0, ERR_IP_POOL_CONFLICT
// when it shares addresses with one, ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE when it listens on the
// port of the WireGuard server.
[[nodiscard]] int check_client_with_server_ip_pool_and_port(const std::string& ip,
                                                            const std::string& mask, int port);

}  // namespace ormel::wireguard
