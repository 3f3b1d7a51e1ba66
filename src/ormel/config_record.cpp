#include "ormel/config_record.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "ormel/config_pool.h"
#include "ormel/drovik.h"
#include "ormel/error.h"
#include "ormel/l2tp.h"
#include "ormel/net.h"
#include "ormel/openssl.h"
#include "ormel/ovpn.h"
#include "ormel/pptp.h"
#include "ormel/system.h"
#include "ormel/tunnel.h"
#include "ormel/wireguard.h"

namespace ormel::config {

int BaseConfig::add(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::import(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::modify() {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::verify() {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::connect() {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::disconnect() {
  return ERR_NOT_SUPPORT;
}
void BaseConfig::set_index(int slot) {
  index = slot;
}
void BaseConfig::remove() {}
int BaseConfig::do_disconnect(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::do_connect(int) {
  return ERR_NOT_SUPPORT;
}
void BaseConfig::update_disconnect_status() {}
void BaseConfig::clean_psk() {}
int BaseConfig::add_peer() {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::check_peer_value(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::enable_peer(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::disable_peer(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::modify_peer(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::delete_peer(int) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::gen_pri_pub_keys(const std::string&, JsonValue*) {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::check_private_key() {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::check_config_value() {
  return ERR_NOT_SUPPORT;
}
int BaseConfig::modify_peers_ip() {
  return ERR_NOT_SUPPORT;
}

void BaseConfig::route_nat(bool add) {
  if (is_server(type)) return;
  const char* change = add ? "add_vpnclient_profile" : "remove_vpnclient_profile";
  std::ignore =
      system::background({system::COMMON_SCRIPT, change, interface_name(type, index)});  // nobody waits for it
}

void BaseConfig::show(USER_TYPE, JsonValue* out) {
  if (out) {
    (*out)["enable"] = enable;
    (*out)["type"] = static_cast<int32_t>(type);
    return;
  }
  std::printf("[%s]\n", section.c_str());
  print_line("Enable", enable);
}

void BaseConfig::load(Conf_dir* conf, pid_t process) {
  pid = process;
  enable = Conf_Dir_Get_Bool(conf, section.c_str(), "Enable", false) != 0;
}

void BaseConfig::save(Conf_dir* conf) {
  Conf_Dir_Set_Bool(conf, section.c_str(), "Enable", enable);
}

void BaseConfig::reset() {
  mask = DEFAULT_MASK;
  enable = compress = gateway = false;
}

int ServerConfig::connect() {
  return NO_ERROR;
}

int ServerConfig::disconnect() {
  system::kick_all_connection(type, "");
  return NO_ERROR;
}

void ServerConfig::show(USER_TYPE who, JsonValue* out) {
  BaseConfig::show(who, out);
  if (!out) return;
  (*out)["ip_pool"] = ip_begin;
  (*out)["maximum"] = maximum;
  (*out)["out_eif"] = out_eif;
  (*out)["enable_dns"] = enable_dns;
  (*out)["manual_dns"] = manual_dns;
}

void ServerConfig::load(Conf_dir* conf, pid_t process) {
  BaseConfig::load(conf, process);
  maximum = Conf_Dir_Get_Int(conf, section.c_str(), "Max Client", 5);
  out_eif = Conf_Dir_Get_Str(conf, section.c_str(), "interface", "all");
  out_lan = Conf_Dir_Get_Int(conf, section.c_str(), "interface lan", 0);
}

void ServerConfig::save(Conf_dir* conf) {
  BaseConfig::save(conf);
  Conf_Dir_Set_Int(conf, section.c_str(), "Max Client", maximum);
  Conf_Dir_Set_Str(conf, section.c_str(), "interface", out_eif.c_str());
  Conf_Dir_Set_Int(conf, section.c_str(), "interface lan", out_lan);
}

int ClientConfig::add(int) {
  return ERR_NOT_SUPPORT;
}
int ClientConfig::import(int) {
  return ERR_NOT_SUPPORT;
}
int ClientConfig::modify() {
  return ERR_NOT_SUPPORT;
}
void ClientConfig::remove() {}

int ClientConfig::verify() {
  if (mask < 8 || mask > 32) return error_message(ERR_MASK_LENGTH, nullptr);
  if (index < 0 || index > MAX_CLIENTS) return error_message(ERR_MAX_CONFIGS, nullptr);
  if (name.empty() || name.size() > MAX_NAME_LENGTH) return error_message(ERR_NAME_LENGTH, nullptr);
  const bool host_fits = !host.empty() && host.size() <= 255;
  if (type != OVPN_CLIENT_TYPE && !host_fits) return error_message(ERR_HOST_LENGTH, nullptr);
  // Compared unsigned, so that a negative number from a damaged file is refused as well.
  if (static_cast<unsigned>(encryption) > HIGH_ENCRYPTION) return error_message(ERR_ENCRYPTION, nullptr);
  return NO_ERROR;
}

int ClientConfig::connect() {
  enable = true;
  status = CONNECTING_STATUS;
  last_error = NO_ERROR;
  return cm.save();
}

int ClientConfig::disconnect() {
  rx = tx = 0;
  rx_rate = tx_rate = 0;
  enable = false;
  status = DISCONNECTED_STATUS;
  return cm.save();
}

void ClientConfig::reset() {
  BaseConfig::reset();
  for (std::string* field : {&real_ip, &local_ip, &remote_ip, &country_code}) field->clear();
  status = DISCONNECTED_STATUS;
  timestamp = 0;
}

namespace {

// The string keys of every client, apart from the encoded password. The order of writing is told in `save`.
struct TextKey {
  const char* key;
  std::string ClientConfig::*field;
};

constexpr TextKey NAME_KEYS[] = {{"Profile File", &ClientConfig::name}, {"Name", &ClientConfig::user}};
constexpr TextKey ADDRESS_KEYS[] = {
    {"Server Address", &ClientConfig::host},       {"Real Address", &ClientConfig::real_ip},
    {"LocalIP", &ClientConfig::local_ip},          {"RemoteIP", &ClientConfig::remote_ip},
    {"Country Code", &ClientConfig::country_code},
};
constexpr TextKey HOOK_KEYS[] = {
    {"Up", &ClientConfig::up},
    {"Down", &ClientConfig::down},
    {"Metadata", &ClientConfig::metadata},
    {"Vendor", &ClientConfig::vendor},
    {"DNS Server", &ClientConfig::dns_server},
};

template <size_t N>
void load_texts(ClientConfig& record, Conf_dir* conf, const TextKey (&keys)[N]) {
  for (const TextKey& row : keys) record.*row.field = Conf_Dir_Get_Str(conf, record.section.c_str(), row.key, "");
}

template <size_t N>
void save_texts(const ClientConfig& record, Conf_dir* conf, const TextKey (&keys)[N]) {
  for (const TextKey& row : keys) Conf_Dir_Set_Str(conf, record.section.c_str(), row.key, (record.*row.field).c_str());
}

}  // namespace

void ClientConfig::load(Conf_dir* conf, pid_t process) {
  BaseConfig::load(conf, process);
  const char* where = section.c_str();
  mask = Conf_Dir_Get_Int(conf, where, "Mask", DEFAULT_MASK);
  // The section's own number is the index; the key only says that the section is in use.
  if (Conf_Dir_Get_Int(conf, where, "Index", 0) == 0) index = 0;
  fenro_port = Conf_Dir_Get_Int(conf, where, "FENRO Port", 0);
  last_error = Conf_Dir_Get_Int(conf, where, "Last Error", 0);
  imported = Conf_Dir_Get_Int(conf, where, "Imported", 0) != 0;
  reconnect = Conf_Dir_Get_Int(conf, where, "Reconnect", 1) != 0;
  custom_mask = Conf_Dir_Get_Bool(conf, where, "Custom Mask", false) != 0;
  load_texts(*this, conf, NAME_KEYS);
  pass = openssl::base64_decode(Conf_Dir_Get_Str(conf, where, "AccessCode", ""));
  load_texts(*this, conf, ADDRESS_KEYS);
  timestamp = std::strtoll(Conf_Dir_Get_Str(conf, where, "Time Stamp", "0"), nullptr, 10);
  load_texts(*this, conf, HOOK_KEYS);
  settle_status();
}

// "Status" is not read: what counts is whether the tunnel is wanted or alive, and whether it has an address.
void ClientConfig::settle_status() {
  status = DISCONNECTED_STATUS;
  if (pid == 0 && !enable) return;
  status = local_ip.empty() ? CONNECTING_STATUS : CONNECTED_STATUS;
  if (type != WIREGUARD_CLIENT_TYPE) update_connection();
}

void ClientConfig::save(Conf_dir* conf) {
  BaseConfig::save(conf);
  const char* where = section.c_str();
  Conf_Dir_Set_Int(conf, where, "Mask", mask);
  Conf_Dir_Set_Int(conf, where, "Index", index);
  Conf_Dir_Set_Int(conf, where, "FENRO Port", fenro_port);
  Conf_Dir_Set_Int(conf, where, "Last Error", last_error);
  Conf_Dir_Set_Int(conf, where, "Imported", imported);
  Conf_Dir_Set_Int(conf, where, "Reconnect", reconnect);
  Conf_Dir_Set_Bool(conf, where, "Custom Mask", custom_mask);
  save_texts(*this, conf, NAME_KEYS);
  Conf_Dir_Set_Str(conf, where, "AccessCode", pass.empty() ? "" : openssl::base64_encode(pass).c_str());
  save_texts(*this, conf, ADDRESS_KEYS);
  Conf_Dir_Set_Int(conf, where, "Status", status);
  Conf_Dir_Set_Str(conf, where, "Time Stamp", std::to_string(timestamp).c_str());
  save_texts(*this, conf, HOOK_KEYS);
}

void ClientConfig::show(USER_TYPE who, JsonValue* out) {
  BaseConfig::show(who, out);
  if (out) {
    show_json(who, *out);
  } else {
    show_text();
  }
}

void ClientConfig::show_text() {
  const bool down_now = status == DISCONNECTED_STATUS;
  const std::string none;
  print_line("Index", index);
  print_line("FENRO Port", fenro_port);
  print_line("Last Error", last_error);
  print_line("Reconnect", reconnect);
  print_line("Custom Mask", custom_mask);
  print_line("Profile File", name);
  print_line("Name", user);
  print_line("Server Address", host);
  print_line("Status", status);
  print_line("Vendor", vendor);
  print_line("Metadata", metadata);
  print_line("DNS Server", dns_server);
  print_line("Mask", mask);
  print_line("Up", up);
  print_line("Down", down);
  print_line("TX", down_now ? "0" : std::to_string(tx));
  print_line("RX", down_now ? "0" : std::to_string(rx));
  print_line("Real Address", down_now ? none : real_ip);
  print_line("LocalIP", down_now ? none : local_ip);
  print_line("Time Stamp", down_now ? 0 : timestamp);
  print_line("Country Code", down_now ? none : country_code);
}

void ClientConfig::show_json(USER_TYPE who, JsonValue& out) {
  // The clear password never leaves the record; what replaces it here stays for the rest of the run.
  pass = openssl::base64_encode(openssl::sha1(pass));

  const bool down_now = status == DISCONNECTED_STATUS;
  const std::string none;
  const int64_t age = timestamp == 0 ? 0 : std::time(nullptr) - timestamp;
  out["mask"] = mask;
  out["index"] = index;
  out["fenro_port"] = fenro_port;
  out["last_error"] = last_error;
  out["reconnect"] = reconnect;
  out["custom_mask"] = custom_mask;
  out["profile"] = name;
  if (who == ADMIN_USER) {
    out["user"] = user;
    out["pass"] = pass;
  }
  out["server_ip"] = host;
  out["status"] = static_cast<int32_t>(status);
  out["vendor"] = vendor;
  out["metadata"] = metadata;
  out["dns_server"] = dns_server;
  out["uptime"] = down_now ? int64_t{0} : age;
  out["real_ip"] = down_now ? none : real_ip;
  out["tx_total"] = down_now ? uint64_t{0} : tx;
  out["rx_total"] = down_now ? uint64_t{0} : rx;
  out["tx_rate"] = down_now ? 0 : tx_rate;
  out["rx_rate"] = down_now ? 0 : rx_rate;
  out["local_ip"] = down_now ? none : local_ip;
  out["remote_ip"] = down_now ? none : remote_ip;
  out["country_code"] = down_now ? none : country_code;
}

void print_line(const char* key, const std::string& value) {
  std::printf("%s = %s\n", key, value.c_str());
}

void print_line(const char* key, int64_t value) {
  std::printf("%s = %" PRId64 "\n", key, value);
}

namespace {

// The classes behind the types.
struct RecordClass {
  TYPE type;
  std::unique_ptr<BaseConfig> (*make)(int index);
  void (*copy)(const BaseConfig& from, BaseConfig& to);
};

template <typename Record>
std::unique_ptr<BaseConfig> make(int index) {
  return std::make_unique<Record>(index);
}

template <typename Record>
void copy(const BaseConfig& from, BaseConfig& to) {
  static_cast<Record&>(to) = static_cast<const Record&>(from);
}

constexpr RecordClass CLASSES[] = {
    {PPTP_SERVER_TYPE, make<pptp::ServerConfig>, copy<pptp::ServerConfig>},
    {L2TP_SERVER_TYPE, make<l2tp::ServerConfig>, copy<l2tp::ServerConfig>},
    {OVPN_SERVER_TYPE, make<ovpn::ServerConfig>, copy<ovpn::ServerConfig>},
    {DROVIK_SERVER_TYPE, make<drovik::ServerConfig>, copy<drovik::ServerConfig>},
    {WIREGUARD_SERVER_TYPE, make<wireguard::ServerConfig>, copy<wireguard::ServerConfig>},
    {PPTP_CLIENT_TYPE, make<pptp::ClientConfig>, copy<pptp::ClientConfig>},
    {L2TP_CLIENT_TYPE, make<l2tp::ClientConfig>, copy<l2tp::ClientConfig>},
    {OVPN_CLIENT_TYPE, make<ovpn::ClientConfig>, copy<ovpn::ClientConfig>},
    {DROVIK_CLIENT_TYPE, make<drovik::ClientConfig>, copy<drovik::ClientConfig>},
    {WIREGUARD_CLIENT_TYPE, make<wireguard::ClientConfig>, copy<wireguard::ClientConfig>},
};

const RecordClass* class_of(TYPE type) {
  for (const RecordClass& row : CLASSES) {
    if (row.type == type) return &row;
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<BaseConfig> make_record(TYPE type, int index) {
  const RecordClass* row = class_of(type);
  return row ? row->make(index) : nullptr;
}

void PolyConfig::destroy() {
  std::unique_ptr<BaseConfig>(std::exchange(bc, nullptr)).reset();
}

bool PolyConfig::operator==(const PolyConfig& other) const {
  if (!bc || !other.bc) return false;
  return bc == other.bc || (bc->type == other->type && bc->index == other->index);
}

void PolyConfig::dup(BaseConfig* target) const {
  if (!bc || !target || target == bc || target->type != bc->type) return;
  if (const RecordClass* row = class_of(bc->type)) row->copy(*bc, *target);
}

std::unique_ptr<PolyConfig> PolyConfig::clone() const {
  if (!bc) return nullptr;
  auto copy = std::make_unique<PolyConfig>(make_record(bc->type, 0));
  dup(copy->bc);
  return copy;
}

bool compare(const PolyConfig* a, const PolyConfig* b) {
  return (*a)->type != (*b)->type ? (*a)->type < (*b)->type : (*a)->index < (*b)->index;
}

}  // namespace ormel::config
