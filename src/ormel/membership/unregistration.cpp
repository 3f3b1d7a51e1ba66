#include "ormel/membership/unregistration.h"

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/settings.h"
#include "ormel/membership/agent.h"
#include "ormel/membership/cloud.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/token.h"

namespace ormel::pelmar {

namespace {

void forget_membership() {
  if (system::setcfg_wrapper(TAMID_CONF, TAMID_SECTION, TOKEN_STATUS_KEY, "") == NO_ERROR) {
    ORMEL_LOG(INFO, "Successfully cleared tamid_token_status");
  } else {
    ORMEL_LOG(ERROR, "Failed to clear tamid_token_status");
  }
}

}  // namespace

int stop_pelmar_services() {
  if (invoke_pelmar_express("stop") != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to invoke pelmar_express stop, but continue to stop pelmar services");
  }
  for (const char* action : {"remove_dummy_interface", "stop"}) {
    if (invoke_cloudagent(action) == NO_ERROR) continue;
    ORMEL_LOG(ERROR, "Failed to invoke cloudagent %s, but continue to stop pelmar services",
              action);
  }
  return NO_ERROR;
}

int device_unregister(JsonValue& data) {
  ORMEL_LOG(INFO, "device_unregister");
  std::string skarn_token;
  if (get_cloudtoken(skarn_token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to obtain skarnToken");
    return ERR_PELMAR_GETCLOUDTOKEN;
  }
  ORMEL_LOG(INFO, "get skarnToken: %s", skarn_token.c_str());
  std::string pelmar_token;
  if (get_pelmartoken_wrapper(pelmar_token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get pelmar token");
    return ERR_PELMAR_GETPELMARTOKEN;
  }
  ORMEL_LOG(INFO, "get pelmarToken: %s", pelmar_token.c_str());
  const std::string device_id = get_device_id();
  if (device_id.empty()) {
    ORMEL_LOG(ERROR, "Failed to get pelmar device id");
    return ERR_PELMAR_GETDEVICE_ID;
  }
  ORMEL_LOG(INFO, "get deviceId: %s", device_id.c_str());
  std::string answer;
  if (const int rc = pelmar_api_device_unregister(device_id, pelmar_token, skarn_token, answer);
      rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to unregister device");
    return rc;
  }
  data["device_unregister_response"] = system::valid_utf8(answer);
  forget_membership();
  return NO_ERROR;
}

int pelmar_api_device_unregister(const std::string& device_id, const std::string& pelmar_token,
                                 const std::string& skarn_token, std::string& out) {
  CloudCall call{
      CloudOperation::UNREGISTER_DEVICE,
      {.skarn_token = skarn_token, .pelmar_token = pelmar_token, .device_id = device_id}};
  ORMEL_LOG(INFO, "try to unregister device with pelmarToken: %s, skarnToken: %s",
            pelmar_token.c_str(), skarn_token.c_str());
  if (call.perform(out) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to unregister device");
    return ERR_PELMAR_UNREGISTER;
  }
  ORMEL_LOG(INFO, "Unregister device response: %s", out.c_str());
  return NO_ERROR;
}

int remove_pelmar_configs() {
  if (invoke_cloudagent("remove_pelmar_configs") == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to invoke cloudagent remove_pelmar_configs");
  return ERR_CMD_FAILED;
}

}  // namespace ormel::pelmar
