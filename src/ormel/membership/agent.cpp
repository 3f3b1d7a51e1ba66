#include "ormel/membership/agent.h"

#include <sys/stat.h>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/host/process.h"
#include "ormel/host/settings.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/token.h"

namespace ormel::pelmar {

namespace {

constexpr const char* REAL_AGENT_FILE = "/etc/config/ormel/cloudagent.cfg";
constexpr const char* SITE_FILE =
    "/etc/system/system_setting.json";  // below the application's folder
constexpr unsigned int PUBLIC = 0644;

constexpr const char* EXPRESS_SCRIPT = "/etc/init.d/pelmar_express.sh";
constexpr const char* CLOUDAGENT_SCRIPT = "/etc/init.d/pelmar_cloudagent.sh";

constexpr const char* TEST_SITE = "sy";
constexpr const char* TEST_SITE_FOR_AGENT = "dev";  // the agents do not know the test site
// Added for the test site, whose host the cloud does not name.
constexpr const char* TEST_SITE_LINES =
    "MQTT_URL=\"tcp://sy-test." ORMEL_CLOUD_DOMAIN
    ":31512\"\n"
    "NMS_WEB_URL=\"http://sy-test." ORMEL_CLOUD_DOMAIN ":31510\"\n";

// The agent's configuration as it came, with what the test site needs besides.
std::string with_site_lines(std::string text) {
  std::string site;
  if (get_pelmar_site(site) != NO_ERROR) ORMEL_LOG(ERROR, "Failed to get site id");
  if (site != TEST_SITE) return text;
  if (!text.empty() && text.back() != '\n') text += '\n';
  return text + TEST_SITE_LINES;
}

int link_agent_file(const std::string& link) {
  struct stat info {};
  if (lstat(link.c_str(), &info) == 0 && unlink(link.c_str()) != 0) {
    ORMEL_LOG(ERROR, "Failed to remove existing symbolic link: %s", link.c_str());
    return ERR_SAVE_FILE;
  }
  if (symlink(REAL_AGENT_FILE, link.c_str()) != 0) {
    ORMEL_LOG(ERROR, "Failed to create symbolic link from %s to %s", link.c_str(), REAL_AGENT_FILE);
    return ERR_SAVE_FILE;
  }
  ORMEL_LOG(INFO, "Created symbolic link: %s -> %s", link.c_str(), REAL_AGENT_FILE);
  return NO_ERROR;
}

int store_table_id(const char* key, const char* id) {
  if (system::setcfg_wrapper(PELMAR_CONF, JOIN_SECTION, key, id) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to set %s", key);
  return ERR_CMD_FAILED;
}

}  // namespace

int write_pelmar_api_devices_cloudagent_cfg(const std::string& answer) {
  ORMEL_LOG(INFO, "readBuffer_cloudagent_cfg %s", answer.c_str());
  const Json root{json_loadb(answer.data(), answer.size(), 0, nullptr)};
  const char* const text = json_string_value(json_object_get(root.get(), "cloudagentCfg"));
  if (!text) {
    ORMEL_LOG(ERROR, "Failed to parse JSON response");
    return ERR_WRONG_JSON_FORMAT;
  }
  std::string folder;
  if (const int rc = get_install_path(folder); rc != NO_ERROR) return rc;
  const std::string link = folder + AGENT_FILE;
  ORMEL_LOG(INFO, "cloudagent_cfg_path: %s", link.c_str());
  if (!system::replace_file(REAL_AGENT_FILE, with_site_lines(text),
                            fenro::PRIVATE_FILE)) {  // it has the device token
    ORMEL_LOG(ERROR, "Failed to open %s for writing", REAL_AGENT_FILE);
    return ERR_SAVE_FILE;
  }
  ORMEL_LOG(INFO, "Successfully wrote cloudagent_cfg_response to %s", REAL_AGENT_FILE);
  return link_agent_file(link);
}

int set_pelmar_express_cfg() {
  if (const int rc = store_table_id("router_region_table_id", "30000"); rc != NO_ERROR) return rc;
  if (const int rc = store_table_id("supernode_region_table_id", "31000"); rc != NO_ERROR)
    return rc;
  ORMEL_LOG(INFO, "set_pelmar_express_cfg done");
  return NO_ERROR;
}

int set_site_use_by_cloudagent() {
  std::string folder;
  std::string site;
  if (get_install_path(folder) != NO_ERROR || get_pelmar_site(site) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get pelmar site");
    return ERR_CMD_FAILED;
  }
  site = to_lower(site);
  if (site == TEST_SITE) site = TEST_SITE_FOR_AGENT;
  if (system::replace_file(folder + SITE_FILE, "{\"site\": \"" + site + "\"}", PUBLIC))
    return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to save install_path/etc/system/system_setting.json");
  return ERR_CMD_FAILED;
}

int invoke_pelmar_express(const std::string& action) {
  ORMEL_LOG(INFO, "invoke_pelmar_express: %s", action.c_str());
  std::string output;
  if (system::do_exec_safe({EXPRESS_SCRIPT, action}, output) == 0) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to execute pelmar_express.sh %s", action.c_str());
  return ERR_PELMAR_PELMAR_EXPRESS_SCRIPT;
}

int invoke_cloudagent(const std::string& action) {
  ORMEL_LOG(INFO, "invoke_cloudagent: %s", action.c_str());
  std::ignore = set_site_use_by_cloudagent();  // an agent that keeps the environment of before is
                                               // better than none
  std::string output;
  if (system::do_exec_safe({CLOUDAGENT_SCRIPT, action}, output) == 0) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to execute pelmar_cloudagent.sh %s", action.c_str());
  return ERR_PELMAR_CLOUDAGENT_SCRIPT;
}

}  // namespace ormel::pelmar
