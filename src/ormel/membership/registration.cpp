#include "ormel/membership/registration.h"

#include <cstdio>

#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/host/settings.h"
#include "ormel/membership/agent.h"
#include "ormel/membership/cloud.h"
#include "ormel/membership/organization.h"
#include "ormel/membership/precheck.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/token.h"
#include "ormel/membership/virtual_ip.h"

namespace ormel::pelmar {

namespace {

constexpr size_t SERIAL_SIZE =
    10;  // of the buffer: longer numbers are cut to nine digits, as other devices do
constexpr size_t SHOWN_TOKEN = 8;  // bytes of a token in the log

int org_id_of_join(std::string& out) {
  return get_join_pelmar_info(ORG_ID_KEY, out);
}
int site_id_of_join(std::string& out) {
  return get_join_pelmar_info(SITE_ID_KEY, out);
}
int region_id_of_join(std::string& out) {
  return get_join_pelmar_info(REGION_ID_KEY, out);
}

// What the cloud learns about this device.
struct EdgeFacts {
  std::string email, contact, cloud, host_name, model, mac, serial, org_id, site_id, region_id;
};

struct EdgeFact {
  std::string EdgeFacts::*field;
  int (*read)(std::string& out);
  const char* failure;
};

// In the order in which they are read.
constexpr EdgeFact EDGE_FACTS[] = {
    {&EdgeFacts::email, get_contact_email, "Failed to get contact email"},
    {&EdgeFacts::contact, get_contact, "Failed to get contact"},
    {&EdgeFacts::cloud, get_global_or_china, "Failed to get global or cn"},
    {&EdgeFacts::host_name, get_host_name, "Failed to get device name"},
    {&EdgeFacts::model, get_nas_model_name, "Failed to get nas model name"},
    {&EdgeFacts::mac, get_eth0_mac, "Failed to get gateway mac"},
    {&EdgeFacts::serial, get_hwsn, "Failed to get hwsn"},
    {&EdgeFacts::org_id, org_id_of_join, "Failed to get vantri org id"},
    {&EdgeFacts::site_id, site_id_of_join, "Failed to get vantri site id"},
    {&EdgeFacts::region_id, region_id_of_join, "Failed to get pelmar region id"},
};

int gather(EdgeFacts& facts) {
  for (const EdgeFact& fact : EDGE_FACTS) {
    if (fact.read(facts.*fact.field) == NO_ERROR) continue;
    ORMEL_LOG(ERROR, "%s", fact.failure);
    return ERR_CMD_FAILED;
  }
  return NO_ERROR;
}

std::string text_member(const char* key, const std::string& value) {
  return '"' + std::string(key) + "\": \"" + value + '"';
}

// Nothing is escaped: the cloud's other devices send it so, and it answers what is no JSON with a
// refusal.
std::string edge_body(const EdgeFacts& facts) {
  const std::string location = text_member("locationAddress", "");
  const std::string model =
      text_member("subModelName", facts.model) + ',' + location;  // no blank between these two
  const std::string members[] = {
      text_member("deviceName", facts.host_name),
      text_member("contact", facts.contact),
      text_member("contactEmail", facts.email),
      "\"modelId\": 11",
      model,
      text_member("timezone", get_timezone()),
      std::string("\"regionId\": ") + (facts.cloud == GLOBAL_REGION ? '0' : '1'),
      text_member("country", ""),
      text_member("identifyMac", facts.mac),
      text_member("identifySN", facts.serial),
      text_member("identifySid", ""),
      text_member("vantriOrgId", facts.org_id),
      text_member("vantriSiteId", facts.site_id),
      text_member("pelmarRegionId", facts.region_id),
      text_member("deviceRole", "edge"),
  };
  std::string body;
  for (const std::string& member : members) body += (body.empty() ? "{" : ", ") + member;
  return body + '}';
}

std::string shortened(const std::string& token) {
  return token.size() <= SHOWN_TOKEN ? token : token.substr(0, SHOWN_TOKEN) + "...";
}

// Looks for a clash of the address with this device, and puts the cloud's suggestion in its place.
int settle_virtual_ip(std::string& ip) {
  ORMEL_LOG(INFO, "[parse_api_edge] Virtual IP from edge API: %s", ip.c_str());
  ORMEL_LOG(INFO, "[parse_api_edge] Checking virtual IP subnet conflicts");
  if (is_local_address(ip)) {
    if (const int rc = pelmar_api_ip_subnet_check(ip); rc != NO_ERROR) {
      ORMEL_LOG(ERROR, "[parse_api_edge] Failed to check IP subnet: %d", rc);
      return rc;
    }
  } else {
    ORMEL_LOG(INFO, "[parse_api_edge] Virtual IP is not in any subnet");
  }
  if (set_virtual_ip(ip) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "[parse_api_edge] Failed to set virtual ip");
  return ERR_CMD_FAILED;
}

std::string serial_text(json_int_t number) {
  char text[SERIAL_SIZE];
  std::ignore = std::snprintf(text, sizeof text, "%lld", static_cast<long long>(number));
  return text;
}

// The first group with a hub, "supn" if there is none.
std::string pick_region(const json_t* groups) {
  size_t index = 0;
  json_t* group = nullptr;
  json_array_foreach(groups, index, group) {
    const char* const id = json_string_value(json_object_get(group, "groupId"));
    if (!id || json_array_size(json_object_get(group, "hubs")) == 0) continue;
    ORMEL_LOG(INFO, "[resolve_auto_region] Hub found in group %s, resolving to hub", id);
    return id;
  }
  ORMEL_LOG(INFO, "[resolve_auto_region] No hub found, resolving to supernode");
  return SUPERNODE_REGION;
}

// What goes through the chain.
struct Join {
  std::string skarn_token, device_id, pelmar_token, serial, device_token;
  std::string answer{};  // of the last call
};

int call_edge(Join& join) {
  const int rc = pelmar_api_edge(join.skarn_token, join.answer);
  if (rc != NO_ERROR) ORMEL_LOG(ERROR, "Failed to call pelmar api edge: %s", join.answer.c_str());
  return rc;
}

int ask_for_agent_configuration(Join& join) {
  join.answer.clear();
  return pelmar_api_devices_cloudagent_cfg(join.device_id, join.pelmar_token, join.answer);
}

int resolve_region(Join& join) {
  join.answer.clear();
  if (pelmar_api_vpn_groups(join.pelmar_token, join.answer) != NO_ERROR)
    return ERR_PELMARAPI_VPN_GROUPS;
  if (resolve_auto_region(join.answer) != NO_ERROR)
    ORMEL_LOG(WARN, "Failed to resolve auto region, continuing");
  return NO_ERROR;
}

struct Step {
  const char* before;  // logged first; null for nothing
  int (*act)(Join& join);
  const char* failure;  // logged then; null where the step has done so
  int code;             // what a failure becomes
};

constexpr Step STEPS[] = {
    {nullptr, [](Join& join) { return get_cloudtoken(join.skarn_token); },
     "Failed to obtain skarnToken", ERR_PELMAR_GETCLOUDTOKEN},
    {"call pelmar api edge", call_edge, nullptr, ERR_PELMARAPI_EDGE},
    {"parse pelmar api edge response",
     [](Join& join) {
       return parse_api_edge(join.answer, join.device_id, join.pelmar_token, join.serial);
     },
     "Failed to parse pelmar api edge response", ERR_PELMARAPI_EDGE},
    {nullptr, [](Join& join) { return set_serial_number(join.serial); },
     "Failed to set serial number", ERR_SAVE_CONFIG},
    {"pelmar api vpn_groups", resolve_region, "Failed to call pelmar_api_vpn_groups",
     ERR_PELMARAPI_VPN_GROUPS},
    {"pelmar api devices (register device on pelmar)",
     [](Join& join) { return pelmar_api_devices(join.device_id, join.pelmar_token); },
     "Failed to call pelmar api devices", ERR_PELMARAPI_DEVICES},
    {"parse pelmar api devices response", ask_for_agent_configuration,
     "Failed to parse pelmar api devices response", ERR_PELMARAPI_DEVICES},
    {"write pelmar api devices response to cloudagent.cfg",
     [](Join& join) { return write_pelmar_api_devices_cloudagent_cfg(join.answer); },
     "Failed to write pelmar api devices response to cloudagent.cfg", ERR_PELMARAPI_DEVICES},
    {nullptr, [](Join& join) { return get_device_token(join.device_token); },
     "Failed to get pelmar device token", ERR_PELMAR_GETDEVICE_TOKEN},
};

int mark_as_member() {
  if (const int rc =
          system::setcfg_wrapper(TAMID_CONF, TAMID_SECTION, TOKEN_STATUS_KEY, JOINED_STATUS);
      rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to set tamid_token_status to '%s'", JOINED_STATUS);
    return rc;
  }
  ORMEL_LOG(INFO, "Successfully set tamid_token_status to '%s'", JOINED_STATUS);
  return NO_ERROR;
}

}  // namespace

int device_register(JsonValue& data) {
  Join join;
  for (const Step& step : STEPS) {
    if (step.before) ORMEL_LOG(INFO, "%s", step.before);
    if (step.act(join) == NO_ERROR) continue;
    if (step.failure) ORMEL_LOG(ERROR, "%s", step.failure);
    return step.code;
  }
  data["deviceId"] = join.device_id;
  data["pelmarToken"] = join.pelmar_token;
  return mark_as_member();
}

int pelmar_api_edge(const std::string& skarn_token, std::string& out) {
  EdgeFacts facts;
  if (const int rc = gather(facts); rc != NO_ERROR) return rc;
  const std::string body = edge_body(facts);
  CloudCall call{CloudOperation::REGISTER_EDGE, {.skarn_token = skarn_token}};
  ORMEL_LOG(INFO, "pelmar_api_edge jsonData is %s", body.c_str());
  if (call.perform(body, out) != NO_ERROR) return ERR_PELMARAPI_EDGE;
  ORMEL_LOG(INFO, "readBuffer_edge is %s", out.c_str());
  return NO_ERROR;
}

int parse_api_edge(const std::string& answer, std::string& device_id, std::string& pelmar_token,
                   std::string& serial) {
  ORMEL_LOG(INFO, "[parse_api_edge] start");
  const Json root{json_loadb(answer.data(), answer.size(), 0, nullptr)};
  if (!json_is_object(root.get())) {
    ORMEL_LOG(ERROR, "Failed to parse JSON response");
    return ERR_WRONG_JSON_FORMAT;
  }
  const json_t* const address = json_object_get(root.get(), "virtualIP");
  if (!json_is_string(address)) {
    ORMEL_LOG(ERROR, "[parse_api_edge] virtual_ip_json is not a string");
    return ERR_WRONG_JSON_FORMAT;
  }
  std::string ip = json_string_value(address);
  if (const int rc = settle_virtual_ip(ip); rc != NO_ERROR) return rc;

  const json_t* const id = json_object_get(root.get(), "deviceId");
  const json_t* const token = json_object_get(root.get(), "pelmarToken");
  const json_t* const number = json_object_get(root.get(), "serialNumber");
  if (!json_is_string(id) || !json_is_string(token) || !json_is_integer(number)) {
    ORMEL_LOG(ERROR, "[parse_api_edge] deviceId or pelmarToken is not a string");
    return ERR_WRONG_JSON_FORMAT;
  }
  device_id = json_string_value(id);
  pelmar_token = json_string_value(token);
  serial = serial_text(json_integer_value(number));
  if (const int rc = set_serial_number(serial); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to set serial number");
    return rc;
  }
  ORMEL_LOG(INFO,
            "[parse_api_edge] Device ID: %s, Pelmar Token: %s, Serial Number: %s, Virtual IP: %s",
            device_id.c_str(), shortened(pelmar_token).c_str(), serial.c_str(), ip.c_str());
  return NO_ERROR;
}

int resolve_auto_region(const std::string& vpn_groups_answer) {
  std::string region;
  if (get_region_id(region) != NO_ERROR || region != AUTO_REGION) return NO_ERROR;
  json_error_t error{};
  const Json root{json_loadb(vpn_groups_answer.data(), vpn_groups_answer.size(), 0, &error)};
  if (!root) {
    ORMEL_LOG(ERROR, "[resolve_auto_region] Failed to parse JSON: %s", error.text);
    return ERR_WRONG_JSON_FORMAT;
  }
  const json_t* const groups = json_object_get(json_object_get(root.get(), "data"), "vpnGroups");
  if (!json_is_array(groups)) {
    ORMEL_LOG(ERROR, "[resolve_auto_region] vpnGroups not found or not array");
    return ERR_WRONG_JSON_FORMAT;
  }
  if (system::setcfg_wrapper(PELMAR_CONF, JOIN_SECTION, REGION_ID_KEY, pick_region(groups)) ==
      NO_ERROR) {
    return NO_ERROR;
  }
  ORMEL_LOG(ERROR, "[resolve_auto_region] Failed to set region id");
  return ERR_CMD_FAILED;
}

int pelmar_api_devices(const std::string& device_id, const std::string& pelmar_token) {
  std::string ignored;
  return CloudCall{CloudOperation::REGISTER_DEVICE,
                   {.pelmar_token = pelmar_token, .device_id = device_id}}
      .perform(ignored);
}

int pelmar_api_devices_cloudagent_cfg(const std::string& device_id, const std::string& pelmar_token,
                                      std::string& out) {
  return CloudCall{CloudOperation::TELL_AGENT_CONFIGURATION,
                   {.pelmar_token = pelmar_token, .device_id = device_id}}
      .perform(out);
}

}  // namespace ormel::pelmar
