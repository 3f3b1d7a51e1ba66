#include "ormel/membership/token.h"

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/lines.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/host/bus.h"
#include "ormel/host/settings.h"
#include "ormel/membership/settings.h"

namespace ormel::pelmar {

namespace {

using system::plain_call;
using system::PlainReply;

// A line in the name of the operation that made the call.
void log_failed_call(const char* function, const char* method, int status) {
  ORMEL_LOG(ERROR, "%s: mib_call failed, method: %s, ret: %d", function, method, status);
}

// Copies a text of an answer; whether it is one.
bool take_data(const json_t* root, std::string& out) {
  const json_t* const data = json_object_get(root, "data");
  if (!json_is_string(data)) return false;
  out = json_string_value(data);
  return true;
}

// The text between the character after the first "=" and the last one of the first line with
// `mark`: both are taken for quotes. Empty when there is no such line.
std::string quoted_value(const std::string& content, const char* mark) {
  for (const std::string& line : split_lines(content)) {
    if (line.find(mark) == std::string::npos) continue;
    const std::string value = line.substr(line.find('=') + 1);
    return value.size() < 3 ? "" : value.substr(1, value.size() - 2);
  }
  return "";
}

// The whole of the agent's file. 0 or a code, logged.
int read_agent_file(std::string& out) {
  std::string folder;
  if (const int rc = get_install_path(folder); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get install path");
    return rc;
  }
  const std::string path = folder + AGENT_FILE;
  if (system::read_file(path.c_str(), out)) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to open file %s", path.c_str());
  return ERR_CMD_FAILED;
}

}  // namespace

int get_cloudtoken(std::string& out) {
  constexpr const char* METHOD = "Get_cloudtoken";
  const PlainReply answer = plain_call(TOKEN_SERVICE, METHOD);
  if (answer.status != MIB_SUCCESS) {
    log_failed_call(__func__, METHOD, answer.status);
    return ERR_CMD_FAILED;
  }
  ORMEL_LOG(INFO, "get cloud token response: %s", answer.text.c_str());
  if (!answer.document) {
    ORMEL_LOG(ERROR, "Failed to parse JSON: %s", answer.reason.c_str());
    return ERR_WRONG_JSON_FORMAT;
  }
  const json_t* const error = json_object_get(answer.document.get(), "error");
  if (!json_is_integer(error)) {
    ORMEL_LOG(ERROR, "No 'error' integer in get cloud token response");
    return ERR_WRONG_JSON_FORMAT;
  }
  if (json_integer_value(error) != 0) {
    ORMEL_LOG(ERROR, "Get_cloudtoken responded with error code: %d",
              static_cast<int>(json_integer_value(error)));
    return ERR_CMD_FAILED;
  }
  if (take_data(answer.document.get(), out)) return NO_ERROR;
  ORMEL_LOG(ERROR, "No 'data' string in get cloud token response");
  return ERR_WRONG_JSON_FORMAT;
}

int save_skarn_token(const std::string& encoded) {
  const Json request{json_pack("{s:s}", "oauth_response_encoded", encoded.c_str())};
  if (request && plain_call(TOKEN_SERVICE, "Save_cloudtoken", request.get()).status == MIB_SUCCESS)
    return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to call mibsh ormel_network_service.Save_cloudtoken");
  return ERR_CMD_FAILED;
}

int get_pelmartoken(const std::string& org_id, std::string& out) {
  constexpr const char* METHOD = "Get_pelmartoken";
  const Json request{json_pack("{s:s}", "orgId", org_id.c_str())};  // null for what is no UTF-8
  if (!request) {
    ORMEL_LOG(ERROR, "Failed to serialize request JSON");
    return ERR_CMD_FAILED;
  }
  const PlainReply answer = plain_call(TOKEN_SERVICE, METHOD, request.get());
  if (answer.status != MIB_SUCCESS) {
    log_failed_call(__func__, METHOD, answer.status);
    return ERR_CMD_FAILED;
  }
  ORMEL_LOG(INFO, "get pelmar token response: %s", answer.text.c_str());
  if (mibsh_response_checker(answer.document.get()) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to check pelmar token response");
    return ERR_CMD_FAILED;
  }
  if (take_data(answer.document.get(), out)) return NO_ERROR;
  ORMEL_LOG(ERROR, "Invalid response format");
  return ERR_WRONG_JSON_FORMAT;
}

int get_pelmartoken_wrapper(std::string& out) {
  std::string org_id;
  const int rc = system::getcfg_wrapper(PELMAR_CONF, JOIN_SECTION, ORG_ID_KEY, "", org_id);
  if (rc == NO_ERROR && !org_id.empty()) return get_pelmartoken(org_id, out);
  ORMEL_LOG(ERROR, "Failed to get PELMAR_ORG_ID from pelmar.conf");
  return ERR_CMD_FAILED;
}

int invalidate_pelmartoken() {
  return system::setcfg_wrapper(PELMAR_CONF, JOIN_SECTION, "PELMAR_TOKEN_LAST_SEEN", "0");
}

int get_device_token(std::string& out) {
  std::string content;
  if (const int rc = read_agent_file(content); rc != NO_ERROR) return rc;
  out = quoted_value(content, "DEV_TOKEN=");
  ORMEL_LOG(INFO, "device_token: %s", out.c_str());
  return NO_ERROR;
}

std::string get_device_id() {
  std::string content;
  if (read_agent_file(content) != NO_ERROR) return "";
  std::string id = quoted_value(content, "DEV_ID=");
  ORMEL_LOG(INFO, "device_id: %s", id.c_str());
  return id;
}

int get_mdevice_token(std::string& out) {
  std::string folder;
  if (get_install_path(folder) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get ormel install path");
    return ERR_CMD_FAILED;
  }
  const std::string path = folder + AGENT_FILE;
  if (system::getcfg_wrapper(path, "", "DEV_TOKEN", "", out) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get mdevice_token from %s", path.c_str());
    return ERR_CMD_FAILED;
  }
  out.erase(out.find_last_not_of('"') + 1);
  lstrip(out, '"');
  if (!out.empty()) return NO_ERROR;
  ORMEL_LOG(ERROR, "mdevice_token is empty");
  return ERR_CMD_FAILED;
}

int mibsh_get_device_token(std::string& out) {
  const PlainReply answer = plain_call(EXPRESS_SERVICE, "GetDeviceToken");
  if (answer.status == system::NO_IO) {
    ORMEL_LOG(ERROR, "Failed to create io");
    return ERR_CMD_FAILED;
  }
  if (answer.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, "Failed to call pelmar_expressd.GetDeviceToken");
    return ERR_CMD_FAILED;
  }
  if (answer.text.empty()) {
    ORMEL_LOG(ERROR, "Failed to read mibsh output");
    return ERR_CMD_FAILED;
  }
  ORMEL_LOG(INFO, "mibsh output: %s", answer.text.c_str());
  if (const int rc = mibsh_response_checker(answer.document.get()); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to parse GetDeviceToken output JSON: %s", answer.reason.c_str());
    return rc;
  }
  if (!take_data(answer.document.get(), out)) {
    ORMEL_LOG(ERROR, "GetDeviceToken output missing 'data' string");
    return ERR_WRONG_JSON_FORMAT;
  }
  ORMEL_LOG(INFO, "device_token: %s", out.c_str());
  return NO_ERROR;
}

int mibsh_response_checker(const json_t* root) {
  if (!root) {
    ORMEL_LOG(ERROR, "Failed to check mibsh response because root is NULL");
    return ERR_MIB_IO_FAILED;
  }
  const json_t* const error = json_object_get(root, "error");
  if (!json_is_integer(error)) {
    ORMEL_LOG(ERROR, "Failed to get error");
    return ERR_WRONG_JSON_FORMAT;
  }
  if (json_integer_value(error) == 0) return NO_ERROR;
  const char* const message = json_string_value(json_object_get(root, "error_message"));
  ORMEL_LOG(ERROR, "mibsh response error %s, msg = %s",
            std::to_string(json_integer_value(error)).c_str(), message ? message : "");
  return ERR_WRONG_JSON_FORMAT;
}

}  // namespace ormel::pelmar
