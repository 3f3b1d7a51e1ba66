#include "ormel/membership/organization.h"

#include <curl/curl.h>

#include "ormel/base/error.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/host/process.h"
#include "ormel/host/settings.h"
#include "ormel/membership/cloud.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/token.h"

namespace ormel::pelmar {

namespace {

constexpr const char* FIRST_ORGANIZATION = "My Organization";
constexpr const char* EMPLOYEES = "5~9";  // the cloud wants a bracket; nobody is asked for it
constexpr const char* ORGANIZATION_TOOL = "/usr/local/bin/skarn_organization_tool";

// The document of an answer; null, and logged, when it is none.
Json parse(const std::string& answer) {
  json_error_t error{};
  Json root{json_loadb(answer.data(), answer.size(), 0, &error)};
  if (!root) ORMEL_LOG(ERROR, "Failed to parse JSON: %s", error.text);
  return root;
}

Json describe(json_t* name, json_t* id, bool is_default) {
  return Json{json_pack("{s:O, s:O, s:b}", "name", name, "organization_id", id, "is_default",
                        is_default ? 1 : 0)};
}

int copy_organizations(const json_t* result, Json& out) {
  out.reset(json_array());
  size_t index = 0;
  json_t* organization = nullptr;
  json_array_foreach(result, index, organization) {
    json_t* const name = json_object_get(organization, "name");
    json_t* const id = json_object_get(organization, "organization_id");
    if (!name || !id) {
      ORMEL_LOG(ERROR, "Failed to get name or organization_id");
      return ERR_WRONG_JSON_FORMAT;
    }
    const json_t* const creator = json_object_get(organization, "created_by");
    const bool is_default = json_is_true(json_object_get(creator, "is_default"));
    json_array_append_new(out.get(), describe(name, id, is_default).release());
  }
  return NO_ERROR;
}

int make_first_organization(Json& out) {
  ORMEL_LOG(INFO, "No organization found, create a new one");
  std::string id;
  if (create_organization(FIRST_ORGANIZATION, id) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to create organization");
    return ERR_CURL_FAIL;
  }
  const Json name{json_string(FIRST_ORGANIZATION)};
  const Json organization_id{json_string(id.c_str())};
  out.reset(json_array());
  json_array_append_new(out.get(), describe(name.get(), organization_id.get(), true).release());
  return NO_ERROR;
}

// The groups within the answer; null, and logged, when it has another shape.
json_t* groups_of(const json_t* root) {
  const json_t* const data = json_object_get(root, "data");
  if (!json_is_object(data)) {
    ORMEL_LOG(ERROR, "Failed to get data");
    return nullptr;
  }
  json_t* const groups = json_object_get(data, "vpnGroups");
  if (!groups) {
    ORMEL_LOG(ERROR, "Failed to get vpnGroups: key not found");
    return nullptr;
  }
  if (json_is_array(groups)) return groups;
  ORMEL_LOG(ERROR, "vpnGroups is not an array");
  return nullptr;
}

// The id of a new organisation from the answer of the organisation center.
int parse_creation(const std::string& answer, std::string& out_id) {
  const Json root = parse(answer);
  if (!root) return ERR_CURL_FAIL;
  const json_t* const code = json_object_get(root.get(), "code");
  if (!json_is_integer(code) || json_integer_value(code) != 0) {
    const char* const text = json_string_value(code);
    const std::string told = json_is_integer(code) ? std::to_string(json_integer_value(code))
                             : text                ? text
                                                   : "";
    ORMEL_LOG(ERROR, "Failed to create organization, code: %s", told.c_str());
    return ERR_CURL_FAIL;
  }
  const json_t* const result = json_object_get(root.get(), "result");
  if (!json_is_object(result)) {
    ORMEL_LOG(ERROR, "Failed to get result object");
    return ERR_WRONG_JSON_FORMAT;
  }
  const char* const id = json_string_value(json_object_get(result, "organization_id"));
  if (!id) {
    ORMEL_LOG(ERROR, "organization_id not found or not a string");
    return ERR_WRONG_JSON_FORMAT;
  }
  out_id = id;
  return NO_ERROR;
}

// The first of the sites that the tool lists.
int parse_sites(const std::string& output, std::string& site) {
  const Json root = parse(output);
  if (!root) return ERR_WRONG_JSON_FORMAT;
  const json_t* const result = json_object_get(root.get(), "result");
  if (json_array_size(result) == 0) {
    ORMEL_LOG(ERROR, "No results found in JSON response");
    return ERR_WRONG_JSON_FORMAT;
  }
  const char* const id =
      json_string_value(json_object_get(json_array_get(result, 0), "organization_site_id"));
  if (!id) {
    ORMEL_LOG(ERROR, "organization_site_id not found or invalid");
    return ERR_WRONG_JSON_FORMAT;
  }
  site = id;
  return NO_ERROR;
}

std::string text_of(const json_t* object, const char* key) {
  const char* const text = json_string_value(json_object_get(object, key));
  return text ? text : "";
}

int store_account(const char* key, const std::string& value, const char* failure) {
  if (system::setcfg_wrapper(TAMID_CONF, TAMID_SECTION, key, value) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "%s", failure);
  return ERR_CMD_FAILED;
}

int read_email(std::string& out) {
  return system::getcfg_wrapper(TAMID_CONF, TAMID_SECTION, EMAIL_KEY, "", out);
}

int log_no_curl() {
  ORMEL_LOG(ERROR, "Failed to initialize CURL");
  return ERR_CURL_FAIL;
}

}  // namespace

int get_organization_list(Json& out) {
  CloudValues values;
  if (get_cloudtoken(values.skarn_token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get cloud token");
    return ERR_PELMAR_GETCLOUDTOKEN;
  }
  CloudCall call{CloudOperation::LIST_ORGANIZATIONS, values};
  if (!call) return log_no_curl();
  std::string answer;
  const int rc = call.perform(answer);
  ORMEL_LOG(INFO, "Organization list API response: %s", answer.c_str());
  if (rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to fetch organization list, easycurl error: %d", rc);
    return ERR_CURL_FAIL;
  }
  const Json root = parse(answer);
  if (!root) return ERR_WRONG_JSON_FORMAT;
  const json_t* const result = json_object_get(root.get(), "result");
  if (!json_is_array(result)) {
    ORMEL_LOG(ERROR, "Failed to get result array");
    return ERR_WRONG_JSON_FORMAT;
  }
  const int listed =
      json_array_size(result) == 0 ? make_first_organization(out) : copy_organizations(result, out);
  if (listed == NO_ERROR) ORMEL_LOG(INFO, "Organization list fetched and parsed successfully");
  return listed;
}

int create_organization(const std::string& name, std::string& out_id) {
  CloudValues values;
  if (get_cloudtoken(values.skarn_token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get cloud token");
    return ERR_PELMAR_GETCLOUDTOKEN;
  }
  CloudCall call{CloudOperation::CREATE_ORGANIZATION, values};
  if (!call) return log_no_curl();
  std::string answer;
  const int rc =
      call.perform("{\"name\": \"" + name + "\", \"size\": \"" + EMPLOYEES + "\"}", answer);
  ORMEL_LOG(INFO, "Create organization API response: %s", answer.c_str());
  if (rc == NO_ERROR) return parse_creation(answer, out_id);
  ORMEL_LOG(ERROR, "Failed to create organization, easycurl error: %d", rc);
  return ERR_CURL_FAIL;
}

int get_region_list(Json& out, const std::string& org_id) {
  // The cached token may belong to another organisation.
  if (invalidate_pelmartoken() != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to invalidate cached pelmarToken in pelmar.conf");
    return ERR_SAVE_FILE;
  }
  ORMEL_LOG(INFO, "get pelmar token for orgId: %s", org_id.c_str());
  std::string token;
  if (get_pelmartoken(org_id, token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get pelmar token");
    return ERR_PELMAR_GETPELMARTOKEN;
  }
  std::string answer;
  if (pelmar_api_vpn_groups(token, answer) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to call pelmar api vpn groups");
    return ERR_PELMARAPI_VPN_GROUPS;
  }
  const Json root = parse(answer);
  if (!root) return ERR_WRONG_JSON_FORMAT;
  if (!json_is_object(root.get())) {
    ORMEL_LOG(ERROR, "error is %s", "the answer is no object");
    ORMEL_LOG(ERROR, "Failed to parse vpn_groups response");
    return ERR_PELMARAPI_VPN_GROUPS;
  }
  const json_t* const groups = groups_of(root.get());
  if (!groups) return ERR_WRONG_JSON_FORMAT;
  out.reset(json_deep_copy(groups));
  const CString dump{json_dumps(out.get(), JSON_COMPACT)};
  ORMEL_LOG(INFO, "root is %d %s", static_cast<int>(json_typeof(out.get())),
            dump ? dump.get() : "");
  return NO_ERROR;
}

int set_site_id(const std::string& org_id) {
  std::string token;
  if (get_cloudtoken(token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get skarn token");
    return ERR_PELMAR_GETCLOUDTOKEN;
  }
  std::string output;
  const int rc = system::do_exec_safe(
      {ORGANIZATION_TOOL, "get_organization_site_list", "-o", org_id, "-a", token}, output);
  ORMEL_LOG(INFO, "orgId: %s, skarnToken: %s", org_id.c_str(), token.c_str());
  if (rc != 0) {
    ORMEL_LOG(ERROR, "Failed to set site id");
    return ERR_CMD_FAILED;
  }
  std::string site;
  if (const int parsed = parse_sites(output, site); parsed != NO_ERROR) return parsed;
  return system::setcfg_wrapper(PELMAR_CONF, JOIN_SECTION, SITE_ID_KEY, site);
}

int account_center_api_me(std::string& out) {
  CloudValues values;
  if (get_cloudtoken(values.skarn_token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get cloud token");
    return ERR_CMD_FAILED;
  }
  ORMEL_LOG(INFO, "skarnToken: %s", values.skarn_token.c_str());
  CloudCall call{CloudOperation::TELL_ACCOUNT, values};
  ORMEL_LOG(INFO, "url: %s", call.url().c_str());
  if (!call) return log_no_curl();
  const int rc = call.perform(out);
  ORMEL_LOG(INFO, "readBuffer_account_center_api_me: %s", out.c_str());
  switch (rc) {
    case NO_ERROR: return NO_ERROR;
    case CURLE_COULDNT_RESOLVE_HOST:
      ORMEL_LOG(ERROR, "Could not resolve host");
      return ERR_CURL_DNS_RESOLVE;
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_COULDNT_CONNECT: ORMEL_LOG(ERROR, "Operation timed out"); return ERR_CURL_TIMEOUT;
    default:
      ORMEL_LOG(ERROR, "CURL error: %s", curl::api()->easy_strerror(static_cast<CURLcode>(rc)));
      return ERR_CURL_FAIL;
  }
}

int set_pelmar_tamid_conf() {
  std::string answer;
  if (const int rc = account_center_api_me(answer); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to call account center api /v1.1/me");
    return rc;
  }
  const Json root = parse(answer);
  if (!root) return ERR_WRONG_JSON_FORMAT;
  const json_t* const result = json_object_get(root.get(), "result");
  if (!json_is_object(result)) {
    ORMEL_LOG(ERROR, "JSON does not contain 'result' object");
    return ERR_WRONG_JSON_FORMAT;
  }
  const std::string name = text_of(result, "display_name");
  const std::string email = text_of(result, "email");
  std::string site = text_of(result, "site");
  if (site == "GLOBAL") site = GLOBAL_REGION;
  if (name.empty() || email.empty() || site.empty()) {
    ORMEL_LOG(ERROR, "Failed to get display_name, email, site");
    return ERR_CMD_FAILED;
  }
  int rc = store_account(CONTACT_KEY, name, "Failed to set display_name");
  if (rc == NO_ERROR) rc = store_account(EMAIL_KEY, email, "Failed to set email");
  if (rc == NO_ERROR) rc = store_account(CLOUD_KEY, site, "Failed to set site");
  return rc;
}

int get_contact_email(std::string& out) {
  if (read_email(out) == NO_ERROR && !out.empty()) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to run getcfg_wrapper command");
  if (set_pelmar_tamid_conf() != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to set pelmar tamid conf");
    return ERR_CMD_FAILED;
  }
  if (read_email(out) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to get tamid display name");
  return ERR_CMD_FAILED;
}

int pelmar_api_vpn_groups(const std::string& pelmar_token, std::string& out) {
  return CloudCall{CloudOperation::LIST_VPN_GROUPS, {.pelmar_token = pelmar_token}}.perform(out);
}

}  // namespace ormel::pelmar
