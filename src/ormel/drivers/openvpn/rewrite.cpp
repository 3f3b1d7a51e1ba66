#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

#include "base/tunnel.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/openvpn/profile.h"
#include "ormel/host/appliance.h"

namespace ormel::ovpn {

namespace {

using option::ConfigFile;
using option::NORMAL_OPTION_TYPE;

constexpr const char* PLUGIN = "/usr/lib/vpn_ext.so";

// Options of a foreign profile that decide how the daemon runs on this machine.
constexpr const char* INCOMPATIBLE[] = {
    "bind",        "verb",
    "user",        "group",
    "dev-type",    "route-noexec",
    "lport",       "management-hold",
    "keysize",     "redirect-gateway",
    "ncp-disable", "block-outside-dns",
};

struct Setting {
  const char* name;
  const char* value;
};

constexpr Setting FORCED[] = {
    {"up", "/etc/openvpn/openvpn_up"},
    {"down", "/etc/openvpn/openvpn_down"},
    {"nobind", ""},
    {"daemon", "openvpn-client"},
    {"tls-exit", ""},
    {"connect-timeout", "10"},
    {"connect-retry-max", "1"},
    {"client", ""},
    {"script-security", "3"},
    {"resolv-retry", "infinite"},
    {"reneg-sec", "0"},
    {"float", ""},
};

// What a <connection> block may not say: it is settled in "remote", or for the profile as a whole.
constexpr const char* SETTLED[] = {"bind",           "lport",  "rport", "port",
                                   "proto",          "nobind", "float", "connect-retry-max",
                                   "connect-timeout"};

constexpr std::string_view DATA_CIPHERS[] = {
    "AES-256-GCM", "AES-128-GCM",      "AES-128-CBC",      "AES-192-CBC",      "AES-256-CBC",
    "AES-192-GCM", "CAMELLIA-128-CBC", "CAMELLIA-256-CBC", "CAMELLIA-128-GCM", "CAMELLIA-256-GCM",
};
constexpr size_t MAX_DATA_CIPHERS = 112;  // bytes, separators not counted

constexpr unsigned int OPENSSL_1_0_1 = 10001000;  // knows elliptic curves and GCM

void set(ConfigFile& cf, const char* name, const std::string& value) {
  cf.add_option(name, value, NORMAL_OPTION_TYPE, false);
}

std::string value_of(const ConfigFile& cf, const char* name) {
  const option::FileOption* found = cf.get_option(name);
  return found ? found->value : std::string();
}

void capitalize(ConfigFile& cf, const char* name) {
  if (const std::string value = value_of(cf, name); !value.empty()) set(cf, name, to_upper(value));
}

void settle_connection(option::OpenvpnRemotes& remote) {
  if (remote.remote_proto == "udp")
    remote.others.emplace("explicit-exit-notify", "1");  // unless the profile sets it
  for (const char* name : SETTLED) remote.others.erase(name);
}

void set_login(ConfigFile& cf, bool needed) {
  for (const char* name : {"auth-user-pass", "management-query-passwords"}) {
    if (needed) {
      set(cf, name, "");
    } else {
      cf.del_option(name, "");
    }
  }
}

// Trimmed, as the list is when it is read again: it must be found in it then.
std::vector<std::string> cipher_candidates(const std::string& cipher) {
  std::vector<std::string> candidates;
  for (size_t begin = 0; begin < cipher.size();) {
    const size_t end = std::min(cipher.find(':', begin), cipher.size());
    candidates.push_back(ntrim(cipher.data() + begin, static_cast<unsigned int>(end - begin)));
    begin = end + 1;
  }
  candidates.insert(candidates.end(), std::begin(DATA_CIPHERS), std::end(DATA_CIPHERS));
  return candidates;
}

// Adds what fits to the present list. A cipher that is part of a longer name in it counts as
// listed.
std::string data_ciphers(std::string list, const std::string& cipher) {
  for (const std::string& candidate : cipher_candidates(cipher)) {
    if (list.find(candidate) != std::string::npos) continue;
    if (candidate.size() + list.size() > MAX_DATA_CIPHERS) break;
    if (!list.empty()) list += ":";
    list += candidate;
  }
  return list;
}

std::string pid_file(int index) {
  return "/var/run/openvpn.client" + std::to_string(index) + ".pid";
}

}  // namespace

const char* tls_ciphers() {
  // Compared unsigned: an unknown version counts as a recent one.
  return static_cast<unsigned int>(openssl::version_num()) < OPENSSL_1_0_1
             ? "TLS-DHE-RSA-WITH-AES-256-CBC-SHA256:TLS-DHE-RSA-WITH-AES-128-CBC-SHA256"
             : "TLS-ECDHE-RSA-WITH-AES-256-GCM-SHA384:TLS-ECDHE-ECDSA-WITH-AES-256-GCM-SHA384:"
               "TLS-DHE-RSA-WITH-AES-256-GCM-SHA384:TLS-DHE-RSA-WITH-AES-256-CBC-SHA256:"
               "TLS-DHE-RSA-WITH-AES-128-CBC-SHA256";
}

void ClientConfig::remove_incompatible(ConfigFile& cf) {
  for (const char* name : INCOMPATIBLE) cf.del_option(name, "");
  cf.del_option("plugin", PLUGIN);
  capitalize(cf, "auth");
  capitalize(cf, "cipher");
}

void ClientConfig::apply_base_option(ConfigFile& cf) const {
  set(cf, "proto", protocol);
  const auto level = static_cast<unsigned int>(encryption);
  if (!imported && level < std::size(CIPHERS)) {  // an imported profile keeps its own
    set(cf, "cipher", CIPHERS[level]);
    if (level == NONE_ENCRYPTION) {
      cf.del_option("tls-cipher", "");
    } else {
      set(cf, "tls-cipher", tls_ciphers());
    }
  }
  set(cf, "remote", host + " " + std::to_string(port));
  set(cf, "writepid", pid_file(index));
}

void ClientConfig::override_compatible(ConfigFile& cf) {
  for (const Setting& setting : FORCED) set(cf, setting.name, setting.value);
  for (option::OpenvpnRemotes& remote : remotes) settle_connection(remote);
  const std::string slot = std::to_string(index);
  set(cf, "management", management_socket(index) + " unix");
  set(cf, "log", "/dev/null");
  set_login(cf, auth_pass);
  set(cf, "data-ciphers", data_ciphers(value_of(cf, "data-ciphers"), value_of(cf, "cipher")));
  set(cf, "dev", interface_name(type, index));
  cf.add_option("plugin", std::string(PLUGIN) + " " + slot, NORMAL_OPTION_TYPE,
                true);  // beside the profile's own
  set(cf, "writepid", pid_file(index));
  for (const char* settled : {"proto", "remote", "rport", "port"})
    cf.del_option(settled, "");  // they are in `remotes`
}

}  // namespace ormel::ovpn
