// The pool of all records: the only reader and writer of /etc/config/vpn.conf.
//
// The file is always rewritten whole: section "global" with "dbversion" and
// "ovpn_config_migration", then one section for each record, servers first, by type and index. What
// no class writes is lost on a save.
#pragma once

#include <memory>
#include <netinet/in.h>
#include <string>
#include <vector>

#include "ormel/config/record.h"

namespace ormel::config {

constexpr const char* VPN_CONF = "/etc/config/vpn.conf";

// Why a settings file cannot be read.
struct SettingsFault {
  std::string code{};  // "folder", "no-file", "unreadable", "binary" or "no-section"
  std::string text{};  // the same in words, with the path
  explicit operator bool() const { return !code.empty(); }
};

// What is wrong with a settings file that `load` below takes for one without any record: it is no
// regular file, cannot be opened, or does not hold settings. Nothing for a good one, an empty one,
// and a missing one, as a new host has it.
[[nodiscard]] SettingsFault fault_of_settings(const char* path = VPN_CONF);
// Why no change may be made that goes by the settings: they are damaged, and a save would replace
// them by a file without any server or profile. Empty when it may.
[[nodiscard]] std::string refusal_for_settings();

class Management {
 public:
  using PolyConfigPool = std::vector<std::unique_ptr<PolyConfig>>;
  using PolyConfigPoolIt = PolyConfigPool::iterator;

  std::string config_version;  // "dbversion" as read, empty if absent
  PolyConfigPool config_pool;

  // Reads the file, or another one of its form, and the process table. Once per object: the pool is
  // not cleared. Always 0.
  int load(const char* path = VPN_CONF);
  // Writes the file. 0 or ERR_SAVE_CONFIG.
  int save();
  // Shows every record whose type has a bit in `mask`; `out` becomes an array if there is one.
  void show(TYPE mask, USER_TYPE who, JsonValue* out);
  // The users' own client profiles (those of no application) have reached their limit.
  [[nodiscard]] bool is_full() const;
  // Lowest free index of a client type, 0 if none.
  [[nodiscard]] int fetch_slot(TYPE type);
  // The pool's own holder, null if there is none.
  [[nodiscard]] PolyConfig* fetch(TYPE type, int index) const;
  [[nodiscard]] PolyConfigPoolIt fetch(const PolyConfig* other);
  // A copy of a stored record, null if there is none.
  [[nodiscard]] std::unique_ptr<PolyConfig> clone(TYPE type, int index) const;
  // Adds a copy of a client record in a new slot, which `record` gets too. 0, ERR_WRONG_TYPE,
  // ERR_CONFIGURE_INDEX or ERR_MAX_CONFIGS, reported.
  int create(PolyConfig* record);
  // Replaces or adds a copy. Always 0.
  int update(const PolyConfig* record);
  // Deletes a client record. 0, ERR_WRONG_TYPE or ERR_CONFIGURE_INDEX, reported.
  int remove(const PolyConfig* record);
  void sort();
  // Keeps the PPTP and the L2TP server on one MSS while they share an outgoing interface.
  void sync_mss(TYPE type, const PolyConfig* record);
  // Sets one object per client profile, under its interface's name. The number of profiles.
  int list_vpn_eif(JsonValue* out);
  // The label of a client's interface for the user; any other interface leaves `out` as it is.
  void get_out_eif_str(const std::string& eif, std::string& out) const;

  // No enabled server but that of `type`, and no WireGuard client, uses addresses of this network.
  [[nodiscard]] bool ip_pool_available(TYPE type, const in_addr& addr, const in_addr& mask) const;
  // A peer's address is in the WireGuard server's network.
  [[nodiscard]] bool check_wireguard_peer_ip(const std::string& ip, const std::string& mask) const;
  // No other WireGuard client has this address, listen port or endpoint. 0 or
  // ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE.
  [[nodiscard]] int check_wireguard_client_profile(int index, const std::string& client_ip,
                                                   const std::string& domain_ip,
                                                   const std::string& domain_port, int listen_port);
  // No other Drovik client goes to this address and port. 0 or ERR_DROVIK_CLIENT_DUPLICATE.
  [[nodiscard]] int check_drovik_client_profile(int index, int port, const std::string& ip);
  // No WireGuard client listens on this port. 0 or ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE.
  [[nodiscard]] int check_server_listen_port_with_client(int port);

 private:
  void load_servers(Conf_dir* conf);
  void load_clients(Conf_dir* conf);
};

extern Management cm;

// Each asks `cm`.
void get_out_eif_str(const std::string& eif, std::string& out);
[[nodiscard]] int check_wireguard_client_profile(int index, const std::string& client_ip,
                                                 const std::string& domain_ip,
                                                 const std::string& domain_port, int listen_port);
[[nodiscard]] int check_drovik_client_profile(int index, int port, const std::string& ip);
[[nodiscard]] int check_server_listen_port_with_client(int port);

}  // namespace ormel::config
