#include "ormel/config/pool.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sys/stat.h>

#include "base/file.h"
#include "base/lines.h"
#include "base/tunnel.h"
#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"
#include "ormel/host/vpn_process.h"

namespace ormel::config {

namespace {

constexpr const char* FIRST_VERSION = "0.0.1";
constexpr std::string_view BLANKS = " \t\r\n\xEF\xBB\xBF";  // with the mark of UTF-8
constexpr int MAX_USER_PROFILES = 16;  // client profiles that belong to no application

}  // namespace

Management cm;

SettingsFault fault_of_settings(const char* path) {
  const std::string name = path;
  struct stat info {};
  if (stat(path, &info) != 0 && errno == ENOENT) return {};
  if (S_ISDIR(info.st_mode)) return {"folder", name + " is a folder"};
  std::string text;
  const int failure = fenro::read_file(path, text);
  if (failure == EINVAL) return {"no-file", name + " is not a regular file, or far too large"};
  if (failure != 0) {
    const char* const why = strerrordesc_np(failure);
    return {"unreadable", name + " cannot be read: " + (why ? why : "unknown error")};
  }
  if (text.find('\0') != std::string::npos) return {"binary", name + " holds binary data"};
  bool blank = true;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = fenro::trimmed(fenro::take_line(rest), BLANKS);
    if (line.starts_with('[') && line.find(']') != std::string_view::npos) return {};
    blank = blank && line.empty();
  }
  if (blank) return {};
  return {"no-section", name + " has no section: it holds no settings"};
}

std::string refusal_for_settings() {
  const SettingsFault fault = fault_of_settings();
  return !fault ? std::string()
                : fault.text + "; nothing was changed: ormelctl doctor says what to do";
}

int Management::load(const char* path) {
  const Conf conf{Conf_Dir_Load(path)};
  config_version = Conf_Dir_Get_Str(conf.get(), "global", "dbversion", "");
  load_servers(conf.get());
  load_clients(conf.get());
  return NO_ERROR;
}

void Management::load_servers(Conf_dir* conf) {
  for (const TunnelFacts& facts : TUNNELS) {
    auto record = std::make_unique<PolyConfig>(make_record(facts.server, 0));
    (*record)->load(conf, 0);
    // A file that no version was written to may still hold the factory's keys.
    if (config_version.empty()) (*record)->clean_psk();
    config_pool.push_back(std::move(record));
  }
}

void Management::load_clients(Conf_dir* conf) {
  // The walk over all processes takes a tenth of a short run, or more on a busy host: an appliance
  // whose clients have none is spared it.
  std::optional<system::VpnProcess> running;
  for (const TunnelFacts& facts : TUNNELS) {
    for (int index = 1; index <= MAX_CLIENTS; ++index) {
      const std::string section = facts.client_section + std::to_string(index);
      // Most of the 160 slots are free: the one key that says so is asked before a record is built.
      if (Conf_Dir_Get_Int(conf, section.c_str(), "Index", 0) == 0) continue;
      if (facts.client_daemon && !running) running.emplace().update();
      auto record = std::make_unique<PolyConfig>(make_record(facts.client, index));
      (*record)->load(conf, facts.client_daemon ? running->pidof(facts.client, index) : 0);
      config_pool.push_back(std::move(record));
    }
  }
}

int Management::save() {
  sort();
  // An object of the platform's library, which Conf_Dir_Free releases.
  const Conf conf{static_cast<Conf_dir*>(
      std::calloc(1, sizeof(Conf_dir)))};  // NOLINT(cppcoreguidelines-no-malloc)
  if (!conf) return ERR_SAVE_CONFIG;
  std::snprintf(conf->file, sizeof conf->file, "%s", VPN_CONF);
  Conf_Dir_Set_Str(conf.get(), "global", "dbversion",
                   config_version.empty() ? FIRST_VERSION : config_version.c_str());

  constexpr const char* MIGRATION = "ovpn_config_migration";  // of another tool; only carried over
  const Conf present{Conf_Dir_Load(VPN_CONF)};
  Conf_Dir_Set_Str(conf.get(), "global", MIGRATION,
                   Conf_Dir_Get_Str(present.get(), "global", MIGRATION, "0"));

  for (const auto& record : config_pool) (*record)->save(conf.get());
  return Conf_Dir_Wirte_File(conf.get()) == 0 ? NO_ERROR : ERR_SAVE_CONFIG;
}

void Management::show(TYPE mask, USER_TYPE who, JsonValue* out) {
  for (const auto& record : config_pool) {
    if (((*record)->type & mask) == 0) continue;
    if (!out) {
      (*record)->show(who, nullptr);
      continue;
    }
    auto shown = std::make_unique<JsonValue>();
    (*record)->show(who, shown.get());
    shown->settle();
    out->append(std::move(shown));
  }
}

bool Management::is_full() const {
  const auto users_own = [](const auto& record) {
    return is_client((*record)->type) && record->template cast<ClientConfig>()->vendor.empty();
  };
  return std::count_if(config_pool.begin(), config_pool.end(), users_own) >= MAX_USER_PROFILES;
}

int Management::fetch_slot(TYPE type) {
  sort();
  int slot = 1;
  for (const auto& record : config_pool) {
    if ((*record)->type != type) continue;
    if ((*record)->index > slot) break;
    ++slot;
  }
  return slot <= MAX_CLIENTS ? slot : 0;
}

PolyConfig* Management::fetch(TYPE type, int index) const {
  for (const auto& record : config_pool) {
    if ((*record)->type == type && (*record)->index == index) return record.get();
  }
  return nullptr;
}

Management::PolyConfigPoolIt Management::fetch(const PolyConfig* other) {
  return std::find_if(config_pool.begin(), config_pool.end(),
                      [&](const auto& record) { return *record == *other; });
}

std::unique_ptr<PolyConfig> Management::clone(TYPE type, int index) const {
  const PolyConfig* stored = fetch(type, index);
  return stored ? stored->clone() : nullptr;
}

int Management::create(PolyConfig* record) {
  if (is_server((*record)->type))
    return error_message(ERR_WRONG_TYPE, "cannot create server config");
  if ((*record)->index != 0) return error_message(ERR_CONFIGURE_INDEX, nullptr);
  const int slot = fetch_slot((*record)->type);
  if (slot == 0) return error_message(ERR_MAX_CONFIGS, nullptr);
  (*record)->set_index(slot);
  config_pool.push_back(record->clone());
  return NO_ERROR;
}

int Management::update(const PolyConfig* record) {
  auto copy = record->clone();  // first: `record` may be the pool's own
  if (const auto stored = fetch(record); stored != config_pool.end()) config_pool.erase(stored);
  config_pool.push_back(std::move(copy));
  return NO_ERROR;
}

int Management::remove(const PolyConfig* record) {
  if (is_server((*record)->type))
    return error_message(ERR_WRONG_TYPE, "cannot remove server config");
  const auto stored = fetch(record);
  if (stored == config_pool.end()) return error_message(ERR_CONFIGURE_INDEX, "no such config");
  config_pool.erase(stored);
  return NO_ERROR;
}

void Management::sort() {
  std::sort(config_pool.begin(), config_pool.end(),
            [](const auto& a, const auto& b) { return compare(a.get(), b.get()); });
}

void Management::sync_mss(TYPE type, const PolyConfig* record) {
  const PolyConfig* partner =
      fetch(type == PPTP_SERVER_TYPE ? L2TP_SERVER_TYPE : PPTP_SERVER_TYPE, 0);
  if (!partner) return;
  auto* from = record->cast<ServerConfig>();
  auto* to = partner->cast<ServerConfig>();
  if (from->shared_mss() && to->shared_mss() && to->out_eif == from->out_eif)
    *to->shared_mss() = *from->shared_mss();
}

int Management::list_vpn_eif(JsonValue* out) {
  int listed = 0;
  for (const auto& record : config_pool) {
    if (is_server((*record)->type)) continue;
    const auto* client = record->cast<ClientConfig>();
    JsonValue& entry = (*out)[interface_name(client->type, client->index)];
    entry["name"] = client->name;
    entry["type"] = static_cast<int32_t>(client->type);
    entry["index"] = client->index;
    entry["vendor"] = client->vendor;
    entry["metadata"] = client->metadata;
    entry["fenro_port"] = client->fenro_port;
    ++listed;
  }
  return listed;
}

void Management::get_out_eif_str(const std::string& eif, std::string& out) const {
  for (const TunnelFacts& facts : TUNNELS) {
    if (!eif.starts_with(facts.interface_test)) continue;
    const size_t letters = std::char_traits<char>::length(facts.interface);
    const char* number = eif.size() > letters ? eif.c_str() + letters : "";
    const PolyConfig* profile = fetch(facts.client, to_int(number) - facts.base);
    const std::string suffix = std::string(" (") + facts.label + ')';
    out = profile ? profile->cast<ClientConfig>()->name + suffix : suffix;
    return;
  }
}

void get_out_eif_str(const std::string& eif, std::string& out) {
  cm.get_out_eif_str(eif, out);
}

int check_wireguard_client_profile(int index, const std::string& client_ip,
                                   const std::string& domain_ip, const std::string& domain_port,
                                   int listen_port) {
  return cm.check_wireguard_client_profile(index, client_ip, domain_ip, domain_port, listen_port);
}

int check_drovik_client_profile(int index, int port, const std::string& ip) {
  return cm.check_drovik_client_profile(index, port, ip);
}

int check_server_listen_port_with_client(int port) {
  return cm.check_server_listen_port_with_client(port);
}

}  // namespace ormel::config
