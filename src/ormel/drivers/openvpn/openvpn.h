// The OpenVPN driver, and the personality by which the daemon of a client logs in.
//
// What a client profile does is in a separate file, /etc/config/openvpn/clients/client<index>,
// which `import` makes from a foreign profile and every change rewrites from its own content;
// vpn.conf holds a summary of it. The rewriting keeps the cryptography and the routes of the
// foreign profile and replaces all that decides how the daemon runs here: interface, user, log,
// management, scripts, pid file. It changes nothing on its own output.
#pragma once

#include <cstdint>
#include <iterator>
#include <map>
#include <string>

#include "ormel/config/driver.h"
#include "ormel/drivers/openvpn/profile.h"

namespace ormel::ovpn {

constexpr int DEFAULT_PORT = 1194;
constexpr const char* CLIENTS_FOLDER = "/etc/config/openvpn/clients";
constexpr const char* KEYS_FOLDER = "/etc/openvpn/keys";
// The list of revoked certificates of a client profile, beside its file.
constexpr const char* CRL_ENDING = "_crl.pem";

// A live peer of the server.
struct PeerStatus {
  std::string peer_from;  // real address and port
  std::string peer_ipv4;  // tunnel address
  uint64_t tx = 0;        // bytes sent
  uint64_t rx = 0;        // bytes received
};

using Status = std::map<std::string, PeerStatus>;  // by peer_from

// What clients have to download again.
enum Download { NOTHING_NEW = 0, NEW_PROFILE = 2, NEW_CERTIFICATE = 3 };

class ServerConfig : public config::DriverServer {
 public:
  int port = DEFAULT_PORT;
  int download_status = NOTHING_NEW;
  bool broadcast = true;
  std::string protocol = "tcp";  // "UDP" or "TCP" once loaded
  std::string signature_algorithm;
  int mss = 1400;  // TCP maximum segment size, bytes

  explicit ServerConfig(int);

  // Notes what clients must download again after this change.
  int modify() override;
  int verify() override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
  void save(Conf_dir* conf) override;

  // Asks the running daemon; empty when it does not answer.
  [[nodiscard]] static Status fetch_all_peer_status();
};

class ClientConfig : public config::DriverClient {
 public:
  int port = DEFAULT_PORT;   // of the last remote, once verified
  bool auth_pass = true;     // logs in with a user name and password
  bool vendor_auth = false;  // authentication by the vendor of the profile
  std::string protocol;
  std::string ca;  // this and the next eight: files given for one import
  std::string dh;
  std::string key;
  std::string cert;
  std::string pkcs12;
  std::string secret;
  std::string tls_auth;
  std::string crl_verify;
  std::string extra_certs;
  std::string ip;             // resolved addresses, a comma list
  std::string trusted_ip;     // server address in use, written by the tunnel's side
  std::string trusted_proto;  // protocol in use, written by the tunnel's side
  option::OpenvpnRemotesOption remotes;

  explicit ClientConfig(int slot) : DriverClient(OVPN_CLIENT_TYPE, slot) {}

  // Makes a profile without a server and announces nothing: a working profile is imported.
  int add(int slot) override;
  // Makes the profile from the foreign one at `file`. A list of revoked certificates that was moved
  // into place before a refusal stays there.
  int import(int slot) override;
  // Makes the profile of an import from the one at `file` without storing anything; key files are
  // read, and stay. The record gets the account and the servers.
  [[nodiscard]] int convert(int slot, option::ConfigFile& cf);
  int modify() override;
  // Checks all remotes, and takes `host` and `port` from the last.
  int verify() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  void save(Conf_dir* conf) override;
  void remove() override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;

  // The path of this profile's own file.
  [[nodiscard]] std::string profile_path() const;
  // Reads `file`, which is this profile's own if it is empty.
  [[nodiscard]] int load_config_file(option::ConfigFile& cf);
  // Writes this profile's own file, which `file` names from now on.
  [[nodiscard]] int save_config_file(option::ConfigFile& cf);

  // The rewriting: deletes what must not stay, adds what the record says, adds what the system
  // demands.
  static void remove_incompatible(option::ConfigFile& cf);
  void apply_base_option(option::ConfigFile& cf) const;
  void override_compatible(option::ConfigFile& cf);

 private:
  void save_remotes(Conf_dir* conf);
};

// Where the daemon of a client profile answers to its management commands.
[[nodiscard]] std::string management_socket(int index);

// The peers in the lines that the command for `fetch_all_peer_status` prints; a later line of a
// peer counts.
[[nodiscard]] Status read_peer_status(const std::string& output);

// The cipher that the profiles made here name, by level of encryption.
inline constexpr const char* CIPHERS[] = {"none", "AES-128-CBC", "AES-256-CBC"};
static_assert(std::size(CIPHERS) == HIGH_ENCRYPTION + 1);
// Their TLS ciphers, by the version of the installed OpenSSL.
[[nodiscard]] const char* tls_ciphers();

// Escapes a text for a quoted argument of the management interface: a backslash before every quote
// and backslash.
[[nodiscard]] std::string escap(const std::string& text);

// The device of a foreign profile is of the kind that it gets here: "tun", with or without a
// number.
[[nodiscard]] bool is_tun(const std::string& device);

// `ormel.cauth <index>`: answers the client daemon's request for credentials on its management
// socket. Ends the process.
[[noreturn]] void cauth(int argc, char** argv);

}  // namespace ormel::ovpn
