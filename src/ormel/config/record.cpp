#include "ormel/config/record.h"

#include "base/reason.h"
#include "base/tunnel.h"
#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/config/pool.h"
#include "ormel/host/process.h"
#include "ormel/host/sessions.h"

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
  std::ignore = system::background(
      {system::COMMON_SCRIPT, change, interface_name(type, index)});  // not waited for
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

std::vector<system::Network> ServerConfig::networks() const {
  return {{ip_begin, POOL_MASK}};
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
  if (static_cast<unsigned>(encryption) > HIGH_ENCRYPTION)
    return error_message(ERR_ENCRYPTION, nullptr);
  return NO_ERROR;
}

int ClientConfig::connect() {
  enable = true;
  status = CONNECTING_STATUS;
  last_error = NO_ERROR;
  forget_reason(section);  // what the last attempt has left is not the reason of this one
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

void ClientConfig::load(Conf_dir* conf, pid_t process) {
  const int slot = index;
  BaseConfig::load(conf, process);
  if (index != 0)
    index = slot;  // the section's own number counts: the key only says that the section is in use
  settle_status();
}

// What "Status" holds is out of date: what counts is whether the tunnel is wanted or alive, and
// whether it has an address.
void ClientConfig::settle_status() {
  status = DISCONNECTED_STATUS;
  if (pid == 0 && !enable) return;
  status = local_ip.empty() ? CONNECTING_STATUS : CONNECTED_STATUS;
  if (type != WIREGUARD_CLIENT_TYPE) update_connection();
}

void ClientConfig::show(USER_TYPE who, JsonValue* out) {
  // The clear password never leaves the record; what replaces it here stays for the rest of the
  // run.
  if (out) pass = openssl::base64_encode(openssl::sha1(pass));
  BaseConfig::show(who, out);
  if (out)
    (*out)["uptime"] = is_down() || timestamp == 0 ? int64_t{0} : std::time(nullptr) - timestamp;
}

namespace {

constinit std::span<const RecordClass> record_classes;

const RecordClass* class_of(TYPE type) {
  for (const RecordClass& row : record_classes) {
    if (row.type == type) return &row;
  }
  return nullptr;
}

}  // namespace

bool register_classes(std::span<const RecordClass> classes) {
  record_classes = classes;
  return true;
}

std::unique_ptr<BaseConfig> make_record(TYPE type, int index) {
  const RecordClass* row = class_of(type);
  return row ? row->make(index) : nullptr;
}

bool PolyConfig::operator==(const PolyConfig& other) const {
  if (!bc || !other.bc) return false;
  return bc == other.bc || (bc->type == other->type && bc->index == other->index);
}

void PolyConfig::dup(BaseConfig* target) const {
  if (!bc || !target || target == bc.get() || target->type != bc->type) return;
  if (const RecordClass* row = class_of(bc->type)) row->copy(*bc, *target);
}

std::unique_ptr<PolyConfig> PolyConfig::clone() const {
  if (!bc) return nullptr;
  auto copy = std::make_unique<PolyConfig>(make_record(bc->type, 0));
  dup(copy->bc.get());
  return copy;
}

bool compare(const PolyConfig* a, const PolyConfig* b) {
  return (*a)->type != (*b)->type ? (*a)->type < (*b)->type : (*a)->index < (*b)->index;
}

}  // namespace ormel::config
