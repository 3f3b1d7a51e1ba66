#include "ormel/membership/status.h"

#include <cstdlib>
#include <string>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/lines.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/settings.h"
#include "ormel/membership/daemon.h"
#include "ormel/membership/gateway.h"
#include "ormel/membership/settings.h"

namespace ormel::pelmar {

namespace {

constexpr const char* UNKNOWN_REGION = "unknown";
constexpr int32_t DROVIK_PORT =
    15533;  // of the appliance's own tunnel to the super node; nothing here looks at it

// What of the document is known before it is built.
struct Membership {
  std::string org_id, org_name, region_id, region_name, virtual_ip;
  std::string hub_name, hub_ip, supernode_name, supernode_ip;
  int router_status = 0;
  int supernode_status = 0;
};

// Behind "=" and one blank of the last line that names the key.
std::string value_in_file(const std::string& content, const char* key) {
  std::string value;
  for (const std::string& line : split_lines(content)) {
    const size_t equals = line.find('=');
    if (line.find(key) == std::string::npos || equals == std::string::npos) continue;
    value = equals + 2 < line.size() ? line.substr(equals + 2) : "";
  }
  return value;
}

void read_settings(Membership& member) {
  if (get_org_name(member.org_name) != NO_ERROR)
    ORMEL_LOG(ERROR, "Failed to get org name, leaving blank");
  if (get_region_name(member.region_name) != NO_ERROR)
    ORMEL_LOG(ERROR, "Failed to get region name, leaving blank");
  if (get_virtual_ip(member.virtual_ip) != NO_ERROR)
    ORMEL_LOG(ERROR, "Failed to get virtual ip, leaving blank");
}

const char* region_type(const std::string& region) {
  if (region == SUPERNODE_REGION) return "supernode";
  return region == UNKNOWN_REGION || region == AUTO_REGION ? "unknown" : "hub";
}

// Null, as it came, when the traffic is not known.
void tell_supernode(const Membership& member, JsonValue& supernode) {
  supernode["enable"] = member.region_id == SUPERNODE_REGION;
  if (mibsh_get_supernode_remaining(supernode) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get supernode traffic");
    supernode.destroy();
    return;
  }
  supernode["public_ip"] = member.supernode_ip;
  supernode["pelmar_drovik_port"] = DROVIK_PORT;
  JsonValue& devices = supernode["devices"];
  if (mibsh_get_supernode_devices(devices) == NO_ERROR) {
    ORMEL_LOG(INFO, "Successfully got supernode devices");
  } else {
    ORMEL_LOG(ERROR, "Failed to get supernode devices");
    devices.make_array();
  }
}

// Null, as it came, while no hub is known.
void tell_hub(const Membership& member, JsonValue& hub) {
  if (member.hub_name.empty()) return;
  hub["topology_status"] = member.router_status;
  hub["name"] = member.hub_name;
  hub["role"] = "hub";
  hub["public_ip"] = member.hub_ip;
}

void tell_orchestrator(const Membership& member, int64_t connection, JsonValue& orchestrator) {
  orchestrator["connection_status"] = connection;
  orchestrator["org_id"] = system::valid_utf8(member.org_id);
  orchestrator["region_id"] = system::valid_utf8(member.region_id);
  orchestrator["organization"] = system::valid_utf8(member.org_name);
  orchestrator["region"] = system::valid_utf8(member.region_name);
}

int64_t serial_number() {
  std::string text;
  if (system::getcfg_wrapper(PELMAR_CONF, JOIN_SECTION, SERIAL_KEY, "0", text) == NO_ERROR) {
    return std::strtol(text.c_str(), nullptr, 10);
  }
  ORMEL_LOG(WARN, "Failed to get serial number");
  return 0;
}

void tell_local(const Membership& member, JsonValue& local) {
  std::string name;
  if (get_host_name(name) != NO_ERROR) ORMEL_LOG(ERROR, "Failed to get device name, leaving blank");
  local["role"] = "edge_nas";
  local["virtual_ip"] = system::valid_utf8(member.virtual_ip);
  local["device_name"] = system::valid_utf8(name);
  local["network_interface"] = get_gateway_display_name();
  local["serial_number"] = serial_number();
}

}  // namespace

int get_pelmar_status(JsonValue& data) {
  std::string content;
  if (!system::read_file(PELMAR_CONF, content)) {
    ORMEL_LOG(ERROR, "Failed to open pelmar.conf");
    return ERR_REGULAR_FILE;
  }
  Membership member;
  member.org_id = value_in_file(content, ORG_ID_KEY);
  read_settings(member);
  if (mibsh_get_hubinfo(member.hub_name, member.hub_ip, member.supernode_name,
                        member.supernode_ip) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get hub info");
  }
  std::ignore = system::getcfg_wrapper(PELMAR_CONF, JOIN_SECTION, REGION_ID_KEY, UNKNOWN_REGION,
                                       member.region_id);
  data["region_type"] = region_type(member.region_id);
  std::ignore = mibsh_get_ipsec_status(member.router_status,
                                       member.supernode_status);  // zeroes show a failure too
  tell_supernode(member, data["supernode"]);
  tell_hub(member, data["hub"]);
  const int64_t connection = mibsh_get_cloud_status();
  JsonValue& orchestrator = data["orchestrator"];
  tell_orchestrator(member, connection, orchestrator);
  JsonValue& local = data["local"];
  tell_local(member, local);

  const bool mqtt = connection != 0;
  const bool vpn = member.router_status + member.supernode_status > 0;
  data["vpn_status"] = vpn ? 1 : 0;
  bool is_mqtt_timeout = false;
  bool is_ipsec_timeout = false;
  if (mibsh_update_and_check_timeout(mqtt, vpn, is_mqtt_timeout, is_ipsec_timeout) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to update status and check timeout");
  }
  ORMEL_LOG(INFO, "mqtt_status: %d, vpn_status: %d, is_mqtt_timeout: %d, is_ipsec_timeout: %d",
            mqtt, vpn, is_mqtt_timeout, is_ipsec_timeout);
  orchestrator["is_mqtt_timeout"] = is_mqtt_timeout;
  local["is_ipsec_timeout"] = is_ipsec_timeout;
  return NO_ERROR;
}

}  // namespace ormel::pelmar
