#include "ormel/membership/settings.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/lines.h"
#include "ormel/base/log.h"
#include "ormel/host/settings.h"

namespace ormel::pelmar {

namespace {

using system::getcfg_wrapper;
using system::setcfg_wrapper;

constexpr const char* PACKAGES = "/etc/config/pakrix.conf";
constexpr const char* INSTALL_PATH = "Install_Path";
constexpr const char* SITE_FILE =
    "/data/user.conf";  // below the developer switch application's folder
constexpr const char* ORG_NAME_KEY = "PELMAR_ORG_NAME";
constexpr const char* REGION_NAME_KEY = "PELMAR_REGION_NAME";
constexpr const char* VIRTUAL_IP_KEY = "virtual_ip";
constexpr const char* DEBUG_SECTION = "Debug";
constexpr const char* HOST_NAME_FILE = "/etc/hostname";
constexpr const char* TIMEZONE_FILE = "/etc/config/TZ";
constexpr const char* MAC_INTERFACE = "eth0";

constexpr const char* PLATFORM_CONF = "/etc/platform.conf";
constexpr std::string_view PLATFORM_LINE =
    "Platform";  // begins the line that tells what the appliance runs on
constexpr std::string_view VIRTUAL_MACHINE = "X86_KVM";
constexpr const char* VIRTUAL_MODEL = "Nimbrel";

// Status pages and support staff know these lines; the spelling is theirs.
constexpr const char* NAME_FAILURE = "Failed to get pelmar organizaiton name";

int read_join_key(const char* key, const char* fallback, const char* failure, std::string& out) {
  if (getcfg_wrapper(PELMAR_CONF, JOIN_SECTION, key, fallback, out) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "%s", failure);
  return ERR_CMD_FAILED;
}

int write_join_key(const char* key, const std::string& value, const char* failure) {
  if (setcfg_wrapper(PELMAR_CONF, JOIN_SECTION, key, value) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "%s", failure);
  return ERR_CMD_FAILED;
}

bool is_switched_on(const char* key) {
  std::string value;
  std::ignore = getcfg_wrapper(PELMAR_CONF, DEBUG_SECTION, key, "false", value);
  return value == "true";
}

}  // namespace

int get_install_path(std::string& out) {
  if (getcfg_wrapper(PACKAGES, "ORMEL", INSTALL_PATH, "", out) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to get install path");
  return ERR_CMD_FAILED;
}

int get_hollex_site(std::string& out) {
  std::string folder;
  if (const int rc = getcfg_wrapper(PACKAGES, "Hollex", INSTALL_PATH, "", folder); rc != NO_ERROR) {
    ORMEL_LOG(DEBUG, "Failed to get pakrixDir");
    return rc;
  }
  if (folder.empty()) {
    out = PRODUCTION_SITE;
    return NO_ERROR;
  }
  if (const int rc = getcfg_wrapper(folder + SITE_FILE, "SITE", "ENV", "", out); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get site");
    return rc;
  }
  return NO_ERROR;
}

int get_pelmar_site(std::string& out) {
  return read_join_key("pelmar_site", "Production", "Failed to get pelmar_site", out);
}

int get_org_name(std::string& out) {
  std::ignore = read_join_key(ORG_NAME_KEY, "", NAME_FAILURE, out);
  return NO_ERROR;
}

int get_region_name(std::string& out) {
  std::ignore = read_join_key(REGION_NAME_KEY, "", NAME_FAILURE, out);
  return NO_ERROR;
}

int get_virtual_ip(std::string& out) {
  constexpr const char* FAILURE = "Failed to get virtual ip";
  if (const int rc = read_join_key(VIRTUAL_IP_KEY, "", FAILURE, out); rc != NO_ERROR) return rc;
  if (!out.empty()) return NO_ERROR;
  ORMEL_LOG(ERROR, FAILURE);
  return ERR_CMD_FAILED;
}

int get_org_id(std::string& out) {
  return read_join_key(ORG_ID_KEY, "", "Failed to get org id", out);
}

int get_region_id(std::string& out) {
  return read_join_key(REGION_ID_KEY, "", "Failed to get region ID", out);
}

int get_join_pelmar_info(const std::string& key, std::string& out) {
  return read_join_key(key.c_str(), "", "Failed to run get_pelmar_region_id command", out);
}

int get_global_or_china(std::string& out) {
  return getcfg_wrapper(TAMID_CONF, TAMID_SECTION, CLOUD_KEY, GLOBAL_REGION, out);
}

int get_contact(std::string& out) {
  if (getcfg_wrapper(TAMID_CONF, TAMID_SECTION, CONTACT_KEY, "", out) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to run getcfg_wrapper command");
  return ERR_CMD_FAILED;
}

int set_org_id(const std::string& id, const std::string& name) {
  if (const int rc = write_join_key(ORG_ID_KEY, id, "Failed to set org id"); rc != NO_ERROR)
    return rc;
  return write_join_key(ORG_NAME_KEY, name, "Failed to set org display name");
}

int set_region_id(const std::string& id, const std::string& name) {
  constexpr const char* FAILURE = "Failed to set region id";
  if (const int rc = write_join_key(REGION_ID_KEY, id, FAILURE); rc != NO_ERROR) return rc;
  return write_join_key(REGION_NAME_KEY, name, FAILURE);
}

int set_virtual_ip(const std::string& ip) {
  return setcfg_wrapper(PELMAR_CONF, JOIN_SECTION, VIRTUAL_IP_KEY, ip);
}

int set_serial_number(const std::string& serial) {
  return setcfg_wrapper(PELMAR_CONF, JOIN_SECTION, SERIAL_KEY, serial);
}

int get_host_name(std::string& out) {
  std::string content;
  if (!system::read_file(HOST_NAME_FILE, content) || content.empty()) return ERR_CMD_FAILED;
  out = content.substr(0, content.find('\n'));
  return NO_ERROR;
}

int get_nas_model_name(std::string& out) {
  if (getcfg_wrapper(PLATFORM_CONF, "MISC", "DISPLAY_NAME", "", out) == NO_ERROR && !out.empty())
    return NO_ERROR;
  std::string content;
  if (!system::read_file(PLATFORM_CONF, content)) return ERR_CMD_FAILED;
  for (const std::string& line : split_lines(content)) {
    if (!line.starts_with(PLATFORM_LINE) || line.find(VIRTUAL_MACHINE) == std::string::npos)
      continue;
    out = VIRTUAL_MODEL;
    return NO_ERROR;
  }
  return ERR_CMD_FAILED;
}

int get_eth0_mac(std::string& out) {
  const Fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  if (!fd) {
    ORMEL_LOG(ERROR, "Failed to create socket");
    return ERR_CMD_FAILED;
  }
  ifreq request{};
  std::strncpy(request.ifr_name, MAC_INTERFACE, sizeof request.ifr_name - 1);
  if (ioctl(fd.get(), SIOCGIFHWADDR, &request) != 0) {
    ORMEL_LOG(ERROR, "Failed to get MAC address");
    return ERR_CMD_FAILED;
  }
  uint8_t mac[6];
  std::memcpy(mac, request.ifr_hwaddr.sa_data, sizeof mac);
  char text[sizeof "00:00:00:00:00:00"];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  out = text;
  return NO_ERROR;
}

int maskToCIDR(const std::string& mask) {
  int bits = 0;
  for (size_t at = 0; at < mask.size(); ++at) {
    bits += std::popcount(static_cast<uint8_t>(std::strtol(&mask[at], nullptr, 10)));
    at = std::min(mask.find('.', at), mask.size());
  }
  return bits;
}

std::string get_timezone() {
  std::string text;
  if (!system::read_file(TIMEZONE_FILE, text)) return "";
  std::erase(text, '\n');
  return text;
}

bool is_test_flag_set() {
  return is_switched_on("Enable");
}

bool is_insecure_curl() {
  return is_switched_on("InsecureCurl");
}

}  // namespace ormel::pelmar
