// The routes that change the membership: joining, leaving, and another virtual address.
#include <fcntl.h>

#include "ormel/base/log.h"
#include "ormel/membership/agent.h"
#include "ormel/membership/organization.h"
#include "ormel/membership/registration.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/unregistration.h"
#include "ormel/membership/virtual_ip.h"
#include "ormel/web/membership.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::pelmar {

namespace {

using namespace ormel::pelmar;

constexpr const char* JOIN_PARAMETERS[] = {"org_ID", "org_name", "region_ID", "region_name"};
constexpr const char* NO_SETTINGS = "Error: Unable to open or create pelmar.conf.\n";
constexpr mode_t SETTINGS_MODE = 0644;

// Nothing is undone when one of them fails: the next join overwrites.
constexpr Work JOIN_STEPS[] = {
    [](const Request& request, JsonValue&) {
      return set_org_id(request.value("org_ID"), request.value("org_name"));
    },
    [](const Request& request, JsonValue&) {
      return set_region_id(request.value("region_ID"), request.value("region_name"));
    },
    [](const Request& request, JsonValue&) { return set_site_id(request.value("org_ID")); },
    [](const Request&, JsonValue& reply) { return device_register(reply["data"]); },
    [](const Request&, JsonValue&) { return set_pelmar_express_cfg(); },
    [](const Request&, JsonValue&) { return invoke_cloudagent("start"); },
    [](const Request&, JsonValue&) { return invoke_pelmar_express("start"); },
};

Outcome join(const Request& request, JsonValue& reply) {
  for (const char* name : JOIN_PARAMETERS) {
    if (!request.has(name)) return {ERR_MISS_OPTION};
  }
  if (!Fd{open(PELMAR_CONF, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, SETTINGS_MODE)}) {
    return {ERR_SAVE_FILE, NO_SETTINGS};
  }
  for (const Work step : JOIN_STEPS) {
    if (const int rc = step(request, reply); rc != NO_ERROR) return {rc};
  }
  return {};
}

// Ends well whatever happens: a user must always be able to leave.
int leave(const Request&, JsonValue& reply) {
  stop_pelmar_services();
  if (const int rc = device_unregister(reply["data"]); rc != NO_ERROR) {
    ORMEL_LOG(WARN, "Failed to unregister device on Pelmar (error: %d, %s)", rc,
              get_error_message(static_cast<unsigned int>(rc)));
  }
  if (remove_pelmar_configs() != NO_ERROR) {
    ORMEL_LOG(WARN, "Failed to remove Pelmar config files, but continue to stop pelmar services");
  }
  return NO_ERROR;
}

int check_address(const Request& request, JsonValue& reply) {
  if (!request.has("ip")) return ERR_MISS_OPTION;
  std::string ip = request.value("ip");
  if (!is_valid_ipv4_format(ip)) {
    ORMEL_LOG(ERROR, "Invalid IP format: %s", escape_json(ip).c_str());
    return ERR_WRONG_VIRTUAL_IP;
  }
  const bool conflict = conflicts_with_vpn_server(ip);
  const std::string candidate = ip;
  if (const int rc = pelmar_api_ip_subnet_check(ip); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to check IP subnet on Pelmar server: %d", rc);
    return ERR_PELMAR_IP_SUBNET_CHECK_FAILED;
  }
  JsonValue& data = reply["data"];
  data["valid"] = ip == candidate && !is_local_address(ip) && !conflict;
  data["suggested_ip"] = ip;
  return NO_ERROR;
}

int change_address(const Request& request, JsonValue&) {
  if (!request.has("ip")) return ERR_MISS_OPTION;
  const std::string ip = request.value("ip");
  if (!is_valid_ipv4_format(ip)) {
    ORMEL_LOG(ERROR, "Invalid IP format for modification: %s", escape_json(ip).c_str());
    return ERR_WRONG_VIRTUAL_IP;
  }
  ORMEL_LOG(INFO, "Modifying virtual IP to: %s", ip.c_str());
  return modify_virtual_ip(ip) == NO_ERROR ? NO_ERROR : ERR_CMD_FAILED;
}

constexpr Route ROWS[] = {
    {"/ormel/pelmar/device_register", ADMINISTRATOR, CHANGES, json<join>},
    {"/ormel/pelmar/device_unregister", ADMINISTRATOR, CHANGES, json<leave>},
    {"/ormel/pelmar/check_virtual_ip", ADMINISTRATOR, READS, json<check_address>},
    {"/ormel/pelmar/modify_virtual_ip", ADMINISTRATOR, CHANGES, json<change_address>},
};

}  // namespace

const Routes JOINING{ROWS};

}  // namespace ormel::cgi::pelmar
