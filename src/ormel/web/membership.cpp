// The routes that choose, tell and check; those that join and leave are in their own file, and
// so is the login.
#include "ormel/web/membership.h"

#include <algorithm>
#include <cctype>
#include <strings.h>

#include <fenro/event_log.h>

#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/notification.h"
#include "ormel/host/settings.h"
#include "ormel/membership/daemon.h"
#include "ormel/membership/organization.h"
#include "ormel/membership/precheck.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/status.h"
#include "ormel/web/log.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::pelmar {

namespace {

using namespace ormel::pelmar;

constexpr size_t LONGEST_ADDRESS = 15;
constexpr size_t LONGEST_ORG_ID = 50;
constexpr size_t LONGEST_CHOICE = 256;
constexpr size_t LONGEST_TAMID = 256;

constexpr const char* TOUR_SECTION = "Feature Guide";
constexpr const char* TOUR_KEYS[] = {"feature_intro", "feature_tip"};

constexpr const char* CATEGORY = "C004";  // those about the membership
constexpr int DEFAULT_LIMIT = 100;
constexpr int LARGEST_LIMIT = 1000;

int logged(const char* route, int rc) {
  if (rc != NO_ERROR) ORMEL_LOG(ERROR, "%s failed with error: %d", route, rc);
  return rc;
}

int tell_organizations(const Request&, JsonValue& reply) {
  Json list;
  if (const int rc = get_organization_list(list); rc != NO_ERROR)
    return logged("pelmar_organization_list", rc);
  reply["data"] = list.release();
  return NO_ERROR;
}

int check_org_id(const std::string& id) {
  if (id.empty()) {
    ORMEL_LOG(ERROR, "Organization ID is empty");
    return ERR_MISS_OPTION;
  }
  if (id.size() > LONGEST_ORG_ID) {
    ORMEL_LOG(ERROR, "Organization ID too long: %zu", id.size());
    return ERR_VALUE;
  }
  if (is_alphanumeric_safe(id)) return NO_ERROR;
  ORMEL_LOG(ERROR, "Organization ID contains invalid characters: %s", escape_json(id).c_str());
  return ERR_VALUE;
}

int tell_regions(const Request& request, JsonValue& reply) {
  if (!request.has("orgID")) return ERR_MISS_OPTION;
  const std::string id = request.value("orgID");
  if (const int rc = check_org_id(id); rc != NO_ERROR) return rc;
  Json list;
  if (const int rc = get_region_list(list, id); rc != NO_ERROR)
    return logged("pelmar_region_list", rc);
  reply["data"] = list.release();
  return NO_ERROR;
}

int tell_tamid(const Request&, JsonValue& reply) {
  ORMEL_LOG(INFO, "Getting Tamid");
  std::string tamid;
  if (const int rc = get_contact_email(tamid); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get contact email (Tamid): %d", rc);
    return rc;
  }
  if (tamid.empty()) {
    ORMEL_LOG(ERROR, "Tamid is empty");
    return ERR_CMD_FAILED;
  }
  if (tamid.size() > LONGEST_TAMID) {
    ORMEL_LOG(ERROR, "Tamid exceeds maximum length: %zu", tamid.size());
    return ERR_CMD_FAILED;
  }
  reply["data"]["tamid"] = system::valid_utf8(tamid);
  return NO_ERROR;
}

int tell_status(const Request&, JsonValue& reply) {
  ORMEL_LOG(INFO, "Getting Pelmar status");
  const int rc = get_pelmar_status(reply["data"]);
  if (rc != NO_ERROR) ORMEL_LOG(ERROR, "Failed to get Pelmar status with error: %d", rc);
  return rc;
}

int tell_traffic(const Request&, JsonValue& reply) {
  ORMEL_LOG(INFO, "Getting supernode recent billing daily traffic");
  const int rc = mibsh_supernode_recent_billing_daily_traffic(reply["data"]);
  if (rc != NO_ERROR)
    ORMEL_LOG(ERROR, "Failed to get supernode recent billing daily traffic with error: %d", rc);
  return rc;
}

int precheck(const Request&, JsonValue& reply) {
  ORMEL_LOG(INFO, "Performing Pelmar join precheck");
  return join_pelmar_precheck(reply["data"]);
}

int tell_tour(const Request&, JsonValue& reply) {
  JsonValue& data = reply["data"];
  for (const char* key : TOUR_KEYS) {
    std::string value;
    std::ignore = system::getcfg_wrapper(PELMAR_CONF, TOUR_SECTION, key, "true", value);
    data[key] = value == "true";
  }
  return NO_ERROR;
}

// Lax on purpose: clients have stored other words than these two.
bool refused_choice(const std::string& value) {
  const int from_true = strcasecmp(value.c_str(), "true");
  const int from_false = strcasecmp(value.c_str(), "false");
  return from_true == 1 && from_false == 1;
}

int feature_tour_set(const std::string& intro, const std::string& tip) {
  if (refused_choice(intro)) {
    ORMEL_LOG(ERROR, "Wrong feature intro");
    return ERR_UNKNOWN_OPTION;
  }
  if (refused_choice(tip)) {
    ORMEL_LOG(ERROR, "Wrong feature tip");
    return ERR_UNKNOWN_OPTION;
  }
  const std::string* const values[] = {&intro, &tip};
  for (size_t i = 0; i < std::size(TOUR_KEYS); ++i) {
    if (system::setcfg_wrapper(PELMAR_CONF, TOUR_SECTION, TOUR_KEYS[i], *values[i]) == NO_ERROR)
      continue;
    ORMEL_LOG(ERROR, "Failed to set org id");  // the line that support knows, for either key
    return ERR_CMD_FAILED;
  }
  return NO_ERROR;
}

int set_tour(const Request& request, JsonValue&) {
  if (!request.filled(TOUR_KEYS[0]) || !request.filled(TOUR_KEYS[1])) return ERR_MISS_OPTION;
  const std::string intro = request.value(TOUR_KEYS[0]);
  const std::string tip = request.value(TOUR_KEYS[1]);
  if (intro.size() > LONGEST_CHOICE || tip.size() > LONGEST_CHOICE) {
    ORMEL_LOG(ERROR, "feature_intro or feature_tip too long");
    return ERR_VALUE;
  }
  if (!is_alphanumeric_safe(intro) || !is_alphanumeric_safe(tip)) {
    ORMEL_LOG(ERROR, "feature_intro or feature_tip contains invalid characters");
    return ERR_VALUE;
  }
  ORMEL_LOG(INFO, "Setting feature tour preferences");
  const int rc = feature_tour_set(intro, tip);
  if (rc == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to set feature tour: %d", rc);
  return ERR_CMD_FAILED;
}

int tell_compatibility(const Request&, JsonValue& reply) {
  bool ipip = false;
  bool fou = false;
  if (const int rc = kernel_module_exists("ipip.ko", ipip); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to check ipip.ko module: %d", rc);
    return rc;
  }
  if (const int rc = kernel_module_exists("fou.ko", fou); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to check fou.ko module: %d", rc);
    return rc;
  }
  reply["data"]["is_compatible_version"] = ipip && fou;
  return NO_ERROR;
}

// Null for a variable that is missing.
const char* optional_text(const Request& request, const char* name) {
  return request.has(name) ? request.value(name) : nullptr;
}

int tell_logs(const Request& request, JsonValue& reply) {
  const int limit = request.has("limit") ? std::clamp(request.number("limit", 0), 1, LARGEST_LIMIT)
                                         : DEFAULT_LIMIT;
  const int offset = std::max(request.number("offset", 0), 0);
  const char* const message = optional_text(request, "msg_id");
  const char* const start = optional_text(request, "start_time");
  const char* const end = optional_text(request, "end_time");
  const int total = naslog_event_query_count_ex2(message, start, end, NOTICE_APPLICATION, CATEGORY);
  ORMEL_LOG(INFO, "pelmar_logs: total count = %d, offset=%d, limit=%d", total, offset, limit);
  const int last = static_cast<int>(std::min<long>(static_cast<long>(offset) + limit, total) - 1);
  JsonValue& data = reply["data"].make_array();
  if (total >= 1 && offset <= last &&
      naslog_event_query_ex2(sqlite_query_callback, offset, last, message, start, end,
                             NOTICE_APPLICATION, CATEGORY, &data) != 0) {
    ORMEL_LOG(ERROR, "pelmar_logs: naslog_event_query_ex2 failed");
    return ERR_QUERY_LOG_FAIL;
  }
  reply["total"] = total;
  reply["limit"] = limit;
  reply["offset"] = offset;
  ORMEL_LOG(INFO, "pelmar_logs: query completed, total=%d, range=[%d,%d]", total, offset, last);
  return NO_ERROR;
}

int tell_membership(const Request&, JsonValue& reply) {
  return logged("pelmar_check_device", check_device(reply["data"]));
}

int tell_fenro_version(const Request&, JsonValue& reply) {
  reply["data"]["min_version"] = "5.2.8";
  return NO_ERROR;
}

int tell_ormel_version(const Request&, JsonValue& reply) {
  reply["data"]["min_version"] = "3.3.1000";
  return NO_ERROR;
}

constexpr Route ROWS[] = {
    {"/ormel/pelmar/check_device", ADMINISTRATOR, READS, json<tell_membership>},
    {"/ormel/pelmar/get_tamid", ADMINISTRATOR, READS, json<tell_tamid>},
    {"/ormel/pelmar/get_pelmar_status", ADMINISTRATOR, READS, json<tell_status>},
    {"/ormel/pelmar/join_pelmar_precheck", ADMINISTRATOR, READS, json<precheck>},
    {"/ormel/pelmar/organization_list", ADMINISTRATOR, READS, json<tell_organizations>},
    {"/ormel/pelmar/region_list", ADMINISTRATOR, READS, json<tell_regions>},
    {"/ormel/pelmar/feature_tour/show", ADMINISTRATOR, READS, json<tell_tour>},
    {"/ormel/pelmar/feature_tour/set", ADMINISTRATOR, CHANGES, json<set_tour>},
    {"/ormel/pelmar/min_fenro_version", ADMINISTRATOR, READS, json<tell_fenro_version>},
    {"/ormel/pelmar/min_ormel_version", ADMINISTRATOR, READS, json<tell_ormel_version>},
    {"/ormel/pelmar/compatible_version", ADMINISTRATOR, READS, json<tell_compatibility>},
    {"/ormel/pelmar/supernode_recent_billing_daily_traffic", ADMINISTRATOR, READS,
     json<tell_traffic>},
    {"/ormel/pelmar/logs", ADMINISTRATOR, READS, json<tell_logs>},
};

}  // namespace

bool is_valid_ipv4_format(std::string_view text) {
  const auto fits = [](unsigned char c) { return std::isdigit(c) != 0 || c == '.'; };
  return !text.empty() && text.size() <= LONGEST_ADDRESS &&
         std::count(text.begin(), text.end(), '.') == 3 &&
         std::all_of(text.begin(), text.end(), fits);
}

bool is_alphanumeric_safe(std::string_view text) {
  const auto fits = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; };
  return !text.empty() && std::all_of(text.begin(), text.end(), fits);
}

bool has_path_traversal(std::string_view text) {
  return text.find("..") != std::string_view::npos || text.find("//") != std::string_view::npos;
}

const Routes STATUS{ROWS};

}  // namespace ormel::cgi::pelmar
