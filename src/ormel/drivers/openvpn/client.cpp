#include <chrono>
#include <unistd.h>

#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/base/text.h"
#include "ormel/config/fields.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/openvpn/profile.h"
#include "ormel/host/notification.h"

namespace ormel::ovpn {

namespace {

constexpr size_t MAX_HOST_LENGTH = 255;
constexpr size_t MAX_HOOK_LENGTH = 4096;
constexpr size_t MAX_VENDOR_LENGTH = 128;
constexpr std::chrono::seconds LOOKUP_TIME{60};

// clang-format off
constexpr config::Field CLIENT_FIELDS[] = {
    {"Domain IP",                  &ClientConfig::ip,            "",                nullptr,          0, config::LEARNED},
    {"VPN Port",                   &ClientConfig::port,          DEFAULT_PORT,      "port",           3},
    {"VPN Proto Type",             &ClientConfig::protocol,      "tcp",             "proto",          4, config::AS_LOWER},
    {"Enable compressed VPN link", &ClientConfig::compress,      1,                 "compress",       1, config::AS_NUMBER},
    {"Auth User Pass",             &ClientConfig::auth_pass,     1,                 "auth_user_pass"},
    {"Vendor Auth",                &ClientConfig::vendor_auth,   0,                 "vendor_auth",    5},
    {"Encryption",                 &ClientConfig::encryption,    MEDIUM_ENCRYPTION, "enc",            2},
    {"Trusted IP",                 &ClientConfig::trusted_ip,    "",                "trusted_ip",     0, config::LEARNED},
    {"Trusted Proto",              &ClientConfig::trusted_proto, "",                nullptr,          0, config::LEARNED},
};
// clang-format on

bool known_protocol(const std::string& protocol) {
  return protocol.empty() || protocol == "tcp" || protocol == "tcp-client" || protocol == "udp";
}

// The protocol as it is shown to the user.
std::string shown_protocol(const std::string& protocol) {
  if (protocol.find("udp") != std::string::npos) return "UDP";
  if (protocol.find("tcp") != std::string::npos) return "TCP";
  return protocol;
}

void add_to_list(std::string& list, const std::string& item, bool first) {
  if (!first) list += ",";
  list += item;
}

}  // namespace

int ClientConfig::add(int slot) {
  if (const int rc = verify(); rc != NO_ERROR) return rc;
  set_index(slot);
  option::ConfigFile cf;
  apply_base_option(cf);
  override_compatible(cf);
  return save_config_file(cf);
}

int ClientConfig::modify() {
  option::ConfigFile cf;
  std::ignore = load_config_file(cf);  // a profile that has lost its file gets one without servers
  remotes = cf.get_all_remotes();
  if (const int rc = verify(); rc != NO_ERROR) return rc;
  remove_incompatible(cf);
  apply_base_option(cf);
  override_compatible(cf);
  if (const int rc = save_config_file(cf); rc != NO_ERROR) return rc;
  return announce(nc_message("C002", "0009"), opt_ext_dev_modify);
}

int ClientConfig::verify() {
  for (const option::OpenvpnRemotes& remote : remotes) {
    if (remote.remote_ip.empty() || remote.remote_ip.size() > MAX_HOST_LENGTH)
      return error_message(ERR_HOST_LENGTH, nullptr);
    host = remote.remote_ip;
    port = to_int(remote.remote_port.c_str());
    if (port < 1 || port > 65535) return error_message(ERR_PORT_NUMBER, nullptr);
    if (!known_protocol(remote.remote_proto)) return error_message(ERR_PROTOCOL_TYPE, nullptr);
  }
  if (up.size() > MAX_HOOK_LENGTH || down.size() > MAX_HOOK_LENGTH)
    return error_message(ERR_EXECUTABLE, nullptr);
  if (vendor.size() > MAX_VENDOR_LENGTH) return error_message(ERR_NAME_LENGTH, nullptr);
  return config::ClientConfig::verify();
}

void ClientConfig::remove() {
  for (const char* ending : {"", ".auth", CRL_ENDING}) unlink((profile_path() + ending).c_str());
  announce_removal();
}

std::span<const config::FieldTable> ClientConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS, config::CLIENT_FIELDS,
                                                  CLIENT_FIELDS};
  return TABLES;
}

void ClientConfig::show(USER_TYPE who, JsonValue* out) {
  DriverClient::show(who, out);
  if (out) (*out)["trusted_proto"] = shown_protocol(trusted_proto);
}

void ClientConfig::load(Conf_dir* conf, pid_t process) {
  DriverClient::load(conf, process);
  option::ConfigFile cf;
  std::ignore = load_config_file(cf);  // a profile whose file is missing has no remotes
  remotes = cf.get_all_remotes();
}

void ClientConfig::save(Conf_dir* conf) {
  DriverClient::save(conf);
  if (!remotes.empty()) save_remotes(conf);
}

// The lists of the profile's servers in place of the single values, resolved afresh for the script.
// A foreign profile can name thousands that take their time to have no address: once it is up, the
// rest count as unresolved.
void ClientConfig::save_remotes(Conf_dir* conf) {
  std::string hosts;
  std::string ports;
  std::string protocols;
  ip.clear();
  const auto deadline = std::chrono::steady_clock::now() + LOOKUP_TIME;
  for (const option::OpenvpnRemotes& remote : remotes) {
    const bool first = &remote == remotes.data();
    add_to_list(hosts, remote.remote_ip, first);
    const bool in_time = std::chrono::steady_clock::now() < deadline;
    add_to_list(ip, in_time ? system::nslookup(remote.remote_ip) : "", first);
    add_to_list(ports, remote.remote_port, first);
    add_to_list(protocols, remote.remote_proto, first);
  }
  const char* where = section.c_str();
  Conf_Dir_Set_Str(conf, where, "Server Address", hosts.c_str());
  Conf_Dir_Set_Str(conf, where, "Domain IP", ip.c_str());
  Conf_Dir_Set_Str(conf, where, "VPN Port", ports.c_str());
  Conf_Dir_Set_Str(conf, where, "VPN Proto Type", protocols.c_str());
}

std::string ClientConfig::profile_path() const {
  return std::string(CLIENTS_FOLDER) + "/client" + std::to_string(index);
}

int ClientConfig::load_config_file(option::ConfigFile& cf) {
  if (file.empty()) file = profile_path();
  return cf.load(file.c_str());
}

int ClientConfig::save_config_file(option::ConfigFile& cf) {
  file = profile_path();
  return cf.save(file.c_str(), true, remotes);
}

}  // namespace ormel::ovpn
