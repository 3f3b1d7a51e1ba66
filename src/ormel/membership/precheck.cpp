#include "ormel/membership/precheck.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/config/pool.h"
#include "ormel/host/bus.h"
#include "ormel/host/interfaces.h"
#include "ormel/host/process.h"
#include "ormel/host/settings.h"
#include "ormel/membership/gateway.h"
#include "ormel/membership/organization.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/token.h"

namespace ormel::pelmar {

namespace {

constexpr const char* NO_REGION = "NONE";
constexpr const char* CHINA = "CHN";
constexpr const char* CHINA_CODE = "CN";  // of the geographic service
constexpr int INTERNET_ROUNDS = 10;
constexpr unsigned ROUND_SECONDS = 1;
constexpr int STILL_AT_WORK = -2;  // error of the network daemon

constexpr const char* CLOUD_TOOL = "/usr/local/bin/skarn_cli";
constexpr const char* SERIAL_TOOL = "/sbin/get_hwsn";
constexpr const char* MODULES = "/lib/modules/";
constexpr std::string_view ETHERNET = "ethernet_";

// Runs a tool; its output without the line ends behind it.
int run_tool(const std::vector<std::string>& argv, std::string& out) {
  const int rc = system::do_exec_safe(argv, out);
  out.erase(out.find_last_not_of("\r\n") + 1);
  return rc;
}

// One answer of the daemon: 0, a code, or STILL_AT_WORK.
int judge_internet_reply(const PlainReply& reply, int round) {
  constexpr const char* CALL = "mibsh NetworkService.api.check_access_internet";
  if (reply.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, "Fail to execute NetworkService.api.check_access_internet");
    return ERR_MIB_API_RET_ERROR;
  }
  if (reply.text.empty()) {
    ORMEL_LOG(ERROR, "Failed to read response");
    return ERR_WRONG_JSON_FORMAT;
  }
  if (!reply.document) return ERR_WRONG_JSON_FORMAT;
  const json_t* const error = json_object_get(reply.document.get(), "error");
  if (!json_is_integer(error)) {
    ORMEL_LOG(ERROR, "Failed to get error");
    return ERR_WRONG_JSON_FORMAT;
  }
  const int code = static_cast<int>(json_integer_value(error));
  if (code == STILL_AT_WORK) {
    ORMEL_LOG(INFO, "%s is processing, retry %d times", CALL, round);
    return STILL_AT_WORK;
  }
  if (code == 0) {
    ORMEL_LOG(INFO, "%s success", CALL);
    return NO_ERROR;
  }
  ORMEL_LOG(ERROR, "%s failed with error code: %d", CALL, code);
  return ERR_MIB_API_RET_ERROR;
}

const char* find_region() {
  std::string in_china;
  std::ignore =
      system::getcfg_wrapper(PELMAR_CONF, "IsChinaRegion", "IsChinaRegion", "false", in_china);
  if (in_china == "true") return CHINA;
  std::string latitude = "23";
  std::string longitude = "120";
  std::string country = GLOBAL_REGION;
  std::string wan_ip;
  if (get_geo_info(latitude, longitude, country, wan_ip) == NO_ERROR) {
    return country == CHINA_CODE ? CHINA : GLOBAL_REGION;
  }
  ORMEL_LOG(ERROR, "Failed to get latitude or longitude or country");
  return NO_REGION;
}

void forget_login(const std::string& status) {
  ORMEL_LOG(
      INFO,
      "Tamid token exists but status is '%s' (not '%s'), removing tamid.conf to allow re-login",
      status.c_str(), JOINED_STATUS);
  if (unlink(TAMID_CONF) == 0) {
    ORMEL_LOG(INFO, "Successfully removed %s", TAMID_CONF);
  } else {
    ORMEL_LOG(ERROR, "Failed to remove %s: %s", TAMID_CONF, std::strerror(errno));
  }
}

// Whether the stored login is one that a join came of; any other is forgotten.
bool has_usable_login() {
  std::string token;
  if (get_cloudtoken(token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get skarn_token");
    return false;
  }
  std::string status;
  std::ignore = system::getcfg_wrapper(TAMID_CONF, TAMID_SECTION, TOKEN_STATUS_KEY, "", status);
  if (status != JOINED_STATUS) {
    forget_login(status);
    return false;
  }
  ORMEL_LOG(INFO, "Valid Tamid registration (status: %s)", status.c_str());
  if (set_pelmar_tamid_conf() != NO_ERROR) ORMEL_LOG(ERROR, "Failed to set pelmar tamid conf");
  return true;
}

std::string decimal(const json_t* number) {
  char text[64];
  std::snprintf(text, sizeof text, "%g", json_number_value(number));
  return text;
}

int parse_location(const std::string& output, std::string& latitude, std::string& longitude,
                   std::string& country) {
  const Json root{json_loadb(output.data(), output.size(), 0, nullptr)};
  const json_t* const result = json_object_get(root.get(), "result");
  if (!result) {
    ORMEL_LOG(ERROR, "Failed to get result");
    return ERR_CMD_FAILED;
  }
  const json_t* const north = json_object_get(result, "latitude");
  const json_t* const east = json_object_get(result, "longitude");
  const json_t* const code = json_object_get(result, "country_code");
  if (!json_is_number(north) || !json_is_number(east) || !json_is_string(code)) {
    ORMEL_LOG(ERROR, "Failed to get latitude or longitude or country");
    return ERR_CMD_FAILED;
  }
  latitude = decimal(north);
  longitude = decimal(east);
  country = json_string_value(code);
  return NO_ERROR;
}

}  // namespace

int join_pelmar_precheck(JsonValue& data) {
  const std::string gateway = get_gateway_interface_name();
  ORMEL_LOG(INFO, "gateway_ifname: %s", gateway.c_str());
  const bool online = mibsh_check_access_internet(gateway) == NO_ERROR;
  if (!online) ORMEL_LOG(ERROR, "NCSI check failed");
  std::string l2tp;
  data["ncsi"] = online;
  data["region"] = online ? find_region() : NO_REGION;
  data["tamid_exist"] = online && has_usable_login();
  std::ignore = system::getcfg_wrapper(ormel::config::VPN_CONF, "L2TP", "Enable", "FALSE", l2tp);
  data["l2tp_status"] = l2tp == "TRUE" ? "enabled" : "disabled";
  return NO_ERROR;
}

int mibsh_check_access_internet(const std::string& ifname) {
  const Json request{json_pack("{s:s}", "ifname", system::valid_utf8(ifname).c_str())};
  for (int round = 1; round <= INTERNET_ROUNDS; ++round) {
    ORMEL_LOG(INFO, "mibsh API: mibsh NetworkService.api.check_access_internet");
    const PlainReply reply = call_network_service("api.check_access_internet", request.get());
    const int rc = judge_internet_reply(reply, round);
    if (rc != STILL_AT_WORK) return rc;
    sleep(ROUND_SECONDS);
  }
  return ERR_MIB_API_RET_ERROR;
}

int get_real_wan_ip(std::string& out) {
  std::string output;
  const int rc = run_tool({CLOUD_TOOL, "-x", "13", "-e"}, output);
  ORMEL_LOG(INFO, "ret %d, output: %s", rc, output.c_str());
  if (rc != 0 || output.empty()) return ERR_CMD_FAILED;
  out = output;
  return NO_ERROR;
}

int get_geo_info(std::string& latitude, std::string& longitude, std::string& country,
                 std::string& wan_ip) {
  if (get_real_wan_ip(wan_ip) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get real wan ip");
    return ERR_CMD_FAILED;
  }
  std::string output;
  const int rc = run_tool({CLOUD_TOOL, "-g", wan_ip}, output);
  ORMEL_LOG(INFO, "ret %d, output: %s", rc, output.c_str());
  ORMEL_LOG(INFO, "Parsing output: %s", output.c_str());
  if (const int parsed = parse_location(output, latitude, longitude, country); parsed != NO_ERROR)
    return parsed;
  ORMEL_LOG(INFO, "latitude: %s, longitude: %s", latitude.c_str(), longitude.c_str());
  return NO_ERROR;
}

std::string get_ethernet_loc(const std::string& name) {
  if (name.find(ETHERNET) == std::string::npos) return "1";
  const long number = std::strtol(name.c_str() + ETHERNET.size(), nullptr, 10);
  return std::to_string(number == LONG_MAX ? number : number + 1);
}

int kernel_module_exists(const std::string& name, bool& exists) {
  if (name.find("..") != std::string::npos) {
    ORMEL_LOG(ERROR, "Invalid module name: %s, module name should not contain '..'", name.c_str());
    return ERR_CMD_FAILED;
  }
  utsname kernel{};
  if (uname(&kernel) != 0) {
    ORMEL_LOG(ERROR, "Failed to get kernel version: %s", std::strerror(errno));
    return ERR_CMD_FAILED;
  }
  struct stat info {};
  exists = stat((MODULES + std::string(kernel.release) + '/' + name).c_str(), &info) == 0;
  return NO_ERROR;
}

int get_hwsn(std::string& out) {
  const int rc = run_tool({SERIAL_TOOL}, out);
  if (rc != 0) ORMEL_LOG(ERROR, "Failed to get hwsn");
  return rc;
}

int check_device(JsonValue& data) {
  std::string folder;
  const int rc = get_install_path(folder);
  const File file{std::fopen((folder + AGENT_FILE).c_str(), "re")};
  data["is_on_pelmar"] = static_cast<bool>(file);
  return rc;
}

}  // namespace ormel::pelmar
