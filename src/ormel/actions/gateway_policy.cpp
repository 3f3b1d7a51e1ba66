#include "ormel/actions/gateway_policy.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/tunnel.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/notification.h"

namespace ormel {

namespace {

constexpr const char* OPTIONS_CONF = "/etc/config/vpn_options.conf";
constexpr const char* POLICY = "gw_setting";

// A lock of the platform around the policy's file.
class ConfLock {
 public:
  explicit ConfLock(int descriptor) : descriptor_(descriptor) {}
  ConfLock(const ConfLock&) = delete;
  ConfLock& operator=(const ConfLock&) = delete;
  ~ConfLock() {
    if (descriptor_ >= 0) Ini_Conf_Unlock_File(descriptor_);
  }
  explicit operator bool() const { return descriptor_ >= 0; }

 private:
  int descriptor_;
};

struct IntervalText {
  int interval;
  const char* text;
};

constexpr IntervalText INTERVALS[] = {
    {-1, "Not"}, {0, "immediatly"}, {1, "1"}, {5, "5"}, {10, "10"}};

int number(const json_t* object, const char* key) {
  return system::cut_number<int>(json_object_get(object, key));
}

std::string text(const json_t* object, const char* key) {
  const char* member = json_string_value(json_object_get(object, key));
  return member ? member : "";
}

bool is_profile(const json_t* gateway, TYPE type, int index) {
  return number(gateway, "type") == type && number(gateway, "index") == index;
}

void end_failover(json_t* policy) {
  json_object_set_new(policy, "failover_en", json_integer(0));
  json_object_del(policy, "failover_interval");
  json_object_del(policy, "gw2");
}

// Takes a profile out of `policy`. Whether it was there.
bool take_out(json_t* policy, TYPE type, int index) {
  const bool first = is_profile(json_object_get(policy, "gw1"), type, index);
  if (number(policy, "failover_en") != 0) {
    json_t* second = json_object_get(policy, "gw2");
    if (!first && !is_profile(second, type, index)) return false;
    if (first) json_object_set(policy, "gw1", second);  // the second gateway moves up
    end_failover(policy);
    return true;
  }
  if (!first) return false;
  json_object_set_new(policy, "as_gw_en", json_integer(0));
  json_object_del(policy, "gw1");
  return true;
}

void notify_gateway(const nc_msg_struct& message, const json_t* gateway) {
  const std::string profile = get_profile_name(text(gateway, "sname"));
  nclog::notify_send(&message, type_to_string(static_cast<TYPE>(number(gateway, "type"))),
                     profile.c_str(), nullptr);
}

void announce_change() {
  if (!system::easy_mib_call(system::NETWORK_SERVICE, "external_dev.update_vpn_gw", nullptr)) {
    ORMEL_LOG(ERROR, ": mib_call failed");
  }
}

// Merges `parsed` into `root` and writes the document. Whether it was written; nothing is left in
// the file if not.
bool write_merged(std::FILE* file, json_t* root, json_t* parsed) {
  if (json_object_update_existing(root, parsed) != 0) {
    ORMEL_LOG(ERROR, "Update raw_t to root failed. %s", "");
    return false;
  }
  if (json_dumpf(root, file, 0) != 0 || std::fflush(file) != 0) {
    ORMEL_LOG(ERROR, "Write %s to file failed", OPTIONS_CONF);
    return false;
  }
  return true;
}

}  // namespace

Json GlobalConfig::get_tmpl() const {
  return Json{json_pack("{s:{s:s}, s:{s:i}}", "global", "version", "1", POLICY, "as_gw_en", 0)};
}

Json GlobalConfig::load() const {
  const ConfLock lock{Ini_Conf_Read_Lock_File(OPTIONS_CONF)};
  if (!lock) {
    ORMEL_LOG(ERROR, "Ini_Conf_Read_Lock_File failed.");
    return Json{json_object()};
  }
  const File file{std::fopen(OPTIONS_CONF, "re")};
  if (!file) {
    const bool missing = errno == ENOENT;
    ORMEL_LOG(ERROR, "Open %s failed.", OPTIONS_CONF);
    return missing ? get_tmpl()
                   : Json{json_object()};  // a fresh host has no policy yet, and can be given one
  }
  Json root{json_loadf(file.get(), 0, nullptr)};
  if (json_is_object(root.get())) return root;
  ORMEL_LOG(ERROR, "root isn't a object.");
  return get_tmpl();
}

Json GlobalConfig::load(const char* key) const {
  const Json root = load();
  json_t* member = key ? json_object_get(root.get(), key) : nullptr;
  return Json{member ? json_incref(member) : json_object()};
}

int GlobalConfig::load(const char* key, JsonValue& out) const {
  if (!key) return -1;
  out[key] = load(key).release();
  return 0;
}

int GlobalConfig::save(const char* raw) const {
  const Json root = load();
  {
    const ConfLock lock{Ini_Conf_Write_Lock_File(OPTIONS_CONF)};
    if (!lock) return 0;
    const File file{std::fopen(OPTIONS_CONF, "wbe")};
    if (!file) return 0;
    const Json parsed{json_loads(raw, 0, nullptr)};
    if (!write_merged(file.get(), root.get(), parsed.get())) return 0;
    ormel_gw_nclog(parsed.get());
  }
  announce_change();  // with the lock released: the daemon reads the file at once
  return 0;
}

int GlobalConfig::disable_gateway(TYPE type, int index) const {
  const Json root = load();
  json_t* policy = json_object_get(root.get(), POLICY);
  if (number(policy, "as_gw_en") == 0 || !take_out(policy, type, index)) return 0;
  const CString raw{json_dumps(root.get(), 0)};
  if (!raw) return 0;
  save(raw.get());
  ORMEL_LOG(DEBUG, "gw changed, root=%s", raw.get());
  return 0;
}

void GlobalConfig::get_vpn_gw(JsonValue& out) const {
  TYPE type = NONE_TYPE;
  int index = 0;
  const Json answer =
      system::easy_mib_call(system::NETWORK_SERVICE, system::CURRENT_GATEWAY, nullptr);
  if (!answer) {
    ORMEL_LOG(ERROR, "%s: mib_call failed", "get_currentGWinfo");
    return;
  }
  const json_t* interfaces = json_object_get(answer.get(), "data");
  for (size_t i = 0; i < json_array_size(interfaces); ++i) {
    const json_t* interface = json_array_get(interfaces, i);
    if (!json_is_object(interface)) {
      ORMEL_LOG(ERROR, "val isn't an object.");
      return;
    }
    if (text(interface, "interface_type") != "VPN") continue;
    const json_t* name = json_object_get(interface, "ifname");
    if (!json_is_string(name)) return;
    ifname_to_typeindex(json_string_value(name), type, index);
    break;
  }
  out["type"] = static_cast<int32_t>(type);
  out["index"] = index;
}

void ifname_to_typeindex(const std::string& ifname, TYPE& type, int& index) {
  for (const char* prefix : {"dtunc", "tun", "ppp", "wgc"}) {
    if (ifname.find(prefix) == std::string::npos) continue;
    const size_t length = std::strlen(prefix);
    const long number =
        ifname.size() > length ? std::strtol(ifname.c_str() + length, nullptr, 10) : 0;
    index = number > INT_MAX ? INT_MAX : number < -INT_MAX ? -INT_MAX : static_cast<int>(number);
    break;
  }
  // The ranges of the tunnels lie above one another in the order of their rows; the highest that
  // holds wins.
  type = NONE_TYPE;
  const TunnelFacts* range = nullptr;
  for (const TunnelFacts& facts : TUNNELS) {
    if (index >= facts.base || index <= -facts.base) range = &facts;
  }
  if (!range) return;
  type = range->client;
  index %= range->base;
}

std::string typeindex_to_sname(TYPE type, int index) {
  const TunnelFacts* facts = is_client(type) ? find_tunnel(type) : nullptr;
  return facts ? facts->client_section + std::to_string(index) : std::string();
}

const char* type_to_string(TYPE type) {
  if (type == WIREGUARD_CLIENT_TYPE)
    return "Wireguard";  // spelt so in this policy's notifications alone
  const TunnelFacts* facts = is_client(type) ? find_tunnel(type) : nullptr;
  return facts ? facts->label : "";
}

const char* interval_to_string(int interval) {
  for (const IntervalText& row : INTERVALS) {
    if (row.interval == interval) return row.text;
  }
  return "";
}

std::string get_profile_name(const std::string& key) {
  const Json request{json_pack("{s:s}", "key", system::valid_utf8(key).c_str())};
  const CString argument{json_dumps(request.get(), JSON_COMPACT)};
  const Json answer =
      system::easy_mib_call(system::NETWORK_SERVICE, "external_dev.list", argument.get());
  const json_t* device = json_object_get(json_object_get(answer.get(), "data"), key.c_str());
  if (!json_is_object(device)) {
    ORMEL_LOG(ERROR, ": %s isn't an object.", key.c_str());
    return {};
  }
  const json_t* profile = json_object_get(device, "profile");
  if (!json_is_string(profile)) {
    ORMEL_LOG(ERROR, ": profile isn't string.");
    return {};
  }
  return json_string_value(profile);
}

void ormel_gw_nclog(const json_t* raw) {
  const json_t* policy = json_object_get(raw, POLICY);
  if (number(policy, "as_gw_en") == 0) return;
  notify_gateway(nc_message("C002", "0011"), json_object_get(policy, "gw1"));
  if (number(policy, "failover_en") == 0) return;
  notify_gateway(nc_message("C002", "0012"), json_object_get(policy, "gw2"));
  nclog::notify_send(&nc_message("C002", "0013"),
                     interval_to_string(number(policy, "failover_interval")), nullptr);
}

}  // namespace ormel
