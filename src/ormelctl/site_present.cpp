// The configuration as it is, in the form of the document. It reads files alone: no program is
// run, and no daemon is asked.
#include <algorithm>
#include <string>

#include "base/grants.h"
#include "ormel/actions/gateway_policy.h"
#include "ormel/actions/guard.h"
#include "ormel/actions/privilege.h"
#include "ormel/base/file.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormelctl/profile.h"
#include "ormelctl/site.h"

namespace ormelctl::site {
namespace {

using ormel::Json;
using ormel::config::BaseConfig;
using ormel::config::ClientConfig;
using ormel::config::Management;

constexpr const char* BLOCK_POLICY = "/etc/config/vpn_block.conf";
constexpr const char* DEFAULT_BLOCK = R"({"enable": true, "limit": 5, "time": 30})";
constexpr const char* KEEPER = "/etc/config/ormel/keeper.conf";
constexpr std::string_view NOTIFY_SECTION = "notify ";

json_t* text(const std::string& value) {
  json_t* const valid = json_stringn(value.data(), value.size());
  return valid ? valid : json_string(printable(value).c_str());
}

void set(const Json& object, const char* key, json_t* value) {
  json_object_set_new(object.get(), key, value);
}

std::string plain_name(const BaseConfig& profile) {
  return decoded(static_cast<const ClientConfig&>(profile).name);
}

std::string target_of(const BaseConfig& profile) {
  const Protocol* const protocol = protocol_of(profile.type);
  return (protocol ? protocol->name : "") + '/' + std::to_string(profile.index);
}

// An empty text is left out where the option takes none, so that what is printed can be applied.
Json members(const BaseConfig& record) {
  Json out{json_pack("{s:b}", "enable", record.enable ? 1 : 0)};
  for (const Member& member : members_of(record.type)) {
    Json value = value_of(record, member);
    const bool empty = json_is_string(value.get()) && json_string_length(value.get()) == 0;
    if (!empty || (!member.secret && !member.option->empty))
      set(out, member.name.c_str(), value.release());
  }
  return out;
}

Json servers(const Management& pool) {
  Json out{json_object()};
  for (const auto& holder : pool.config_pool) {
    const Protocol* const protocol = protocol_of(holder->bc->type);
    if (protocol && protocol->server == holder->bc->type)
      set(out, protocol->name.c_str(), members(*holder->bc).release());
  }
  return out;
}

Json profile(const Management& pool, const BaseConfig& record) {
  Json out = members(record);
  set(out, "protocol", json_string(protocol_of(record.type)->name.c_str()));
  if (key_of(pool, record) != plain_name(record)) set(out, "name", text(plain_name(record)));
  if (record.type != ormel::OVPN_CLIENT_TYPE) return out;
  std::string content;
  const std::string path = static_cast<const ormel::ovpn::ClientConfig&>(record).profile_path();
  if (ormel::system::read_file(path.c_str(), content)) set(out, PROFILE_TEXT, text(content));
  return out;
}

Json profiles(const Management& pool) {
  Json out{json_object()};
  for (const auto& holder : pool.config_pool) {
    if ((holder->bc->type & ALL_CLIENTS) != 0)
      set(out, key_of(pool, *holder->bc).c_str(), profile(pool, *holder->bc).release());
  }
  return out;
}

Json peer(const ormel::wireguard::Peer& stored, const std::string& owner) {
  Json out{json_object()};
  set(out, "peer_pub_key", text(stored.pub_key));
  set(out, "peer_allow_ip", text(stored.allow_ip + '/' + stored.allow_ip_mask));
  set(out, "peer_endpoint", text(stored.endpoint));
  set(out, "keepalive", json_integer(ormel::to_int(stored.keepalive.c_str())));
  if (!stored.psk.empty()) set(out, "psk", text(stored.psk));
  set(out, "owner", text(printable(owner)));
  return out;
}

Json peers() {
  Json out{json_object()};
  const fenro::GrantBook book = fenro::read_grants();
  const ormel::wireguard::PeerFile file(ormel::wireguard::FOLDER);
  for (int index = 1; index <= file.max_index(); ++index) {
    if (file.is_free(index)) continue;
    const ormel::wireguard::Peer stored = file.peer(index);
    const std::string name = decoded(stored.name);
    const bool unusable =
        name.empty() || printable(name) != name || json_object_get(out.get(), name.c_str());
    const std::string key = unusable ? "device/" + std::to_string(index) : name;
    Json row = peer(stored, book.owner_of(stored.pub_key));
    if (key != name) set(row, "name", text(name));
    set(out, key.c_str(), row.release());
  }
  return out;
}

Json rights() {
  Json out{json_object()};
  ormel::PrivilegeStorage stored;
  ormel::load_privileges("", stored);
  for (const auto& [user, mask] : stored) {
    Json names{json_array()};
    for (const Protocol& protocol : protocols()) {
      if ((mask & protocol.server) != 0)
        json_array_append_new(names.get(), json_string(protocol.name.c_str()));
    }
    set(out, printable(user).c_str(), names.release());
  }
  return out;
}

// Until when the rights are, and how many devices users may have.
Json access() {
  Json out{json_object()};
  for (const fenro::Grant& grant : fenro::read_grants().grants) {
    Json until{json_object()};
    for (const Protocol& protocol : protocols()) {
      const int64_t end = grant.end_of(static_cast<uint32_t>(protocol.server));
      if (end != 0) set(until, protocol.name.c_str(), json_integer(end));
    }
    Json row{json_pack("{s:i}", "devices", grant.devices)};
    set(row, "until", until.release());
    set(out, printable(grant.user).c_str(), row.release());
  }
  return out;
}

Json block() {
  Json rules{json_loads(DEFAULT_BLOCK, 0, nullptr)};
  const Json file{json_load_file(BLOCK_POLICY, 0, nullptr)};
  json_object_update_existing(rules.get(), json_object_get(file.get(), "global"));
  return rules;
}

// A profile of the policy by its key in the document, or by its number when it is gone.
json_t* gateway_name(const Management& pool, const json_t* tunnel) {
  const auto type = static_cast<ormel::TYPE>(number_of(tunnel, "type"));
  const auto index = static_cast<int>(number_of(tunnel, "index"));
  const ormel::config::PolyConfig* const found = pool.fetch(type, index);
  if (found) return text(key_of(pool, *found->bc));
  const Protocol* const protocol = protocol_of(type);
  return text((protocol ? protocol->name : "") + '/' + std::to_string(index));
}

Json gateway(const Management& pool) {
  const Json policy = ormel::GlobalConfig().load("gw_setting");
  const bool on = number_of(policy.get(), "as_gw_en") == 1;
  Json out{json_pack("{s:b}", "on", on ? 1 : 0)};
  if (!on) return out;
  set(out, "first", gateway_name(pool, json_object_get(policy.get(), "gw1")));
  set(out, "snat", json_boolean(number_of(policy.get(), "snat") == 1));
  if (number_of(policy.get(), "failover_en") != 1) return out;
  set(out, "second", gateway_name(pool, json_object_get(policy.get(), "gw2")));
  set(out, "back_minutes", json_integer(number_of(policy.get(), "failover_interval")));
  return out;
}

Json guard() {
  const ormel::guard::Settings settings = ormel::guard::load();
  return Json{json_pack("{s:s, s:b, s:s, s:s}", "mode", settings.mode.c_str(), "lan",
                        settings.lan == "1" ? 1 : 0, "ipv6", settings.ipv6.c_str(), "dns",
                        settings.dns.c_str())};
}

Json events(const std::string& words) {
  Json list{json_array()};
  for (size_t at = 0; at < words.size();) {
    const size_t end = std::min(words.find_first_of(" ,", at), words.size());
    if (end > at) json_array_append_new(list.get(), text(words.substr(at, end - at)));
    at = end + 1;
  }
  return list;
}

Json notifications() {
  Json out{json_object()};
  const ormel::Conf conf{Conf_Dir_Load(KEEPER)};
  for (int i = 0; i < conf->sec_num; ++i) {
    const std::string section = conf->sec[i];
    if (!section.starts_with(NOTIFY_SECTION)) continue;
    const auto value = [&](const char* key) {
      return std::string(Conf_Dir_Get_Str(conf.get(), section.c_str(), key, ""));
    };
    const Json row{json_object()};
    set(row, "url", text(value("URL")));
    set(row, "events", events(value("Events")).release());
    if (!value("Secret").empty()) set(row, "secret", text(value("Secret")));
    set(out, section.substr(NOTIFY_SECTION.size()).c_str(), json_incref(row.get()));
  }
  return out;
}

}  // namespace

std::string key_of(const Management& pool, const BaseConfig& profile) {
  const std::string name = plain_name(profile);
  const auto same = std::ranges::count_if(pool.config_pool, [&](const auto& holder) {
    return (holder->bc->type & ALL_CLIENTS) != 0 && plain_name(*holder->bc) == name;
  });
  return same > 1 || name.empty() || printable(name) != name ? target_of(profile) : name;
}

Json present() {
  Management pool;
  pool.load();
  Json out{json_pack("{s:i}", "format", FORMAT)};
  set(out, "servers", servers(pool).release());
  set(out, "profiles", profiles(pool).release());
  set(out, "peers", peers().release());
  set(out, "access", access().release());
  set(out, "rights", rights().release());
  set(out, "block", block().release());
  set(out, "gateway", gateway(pool).release());
  set(out, "guard", guard().release());
  set(out, "notifications", notifications().release());
  return out;
}

}  // namespace ormelctl::site
