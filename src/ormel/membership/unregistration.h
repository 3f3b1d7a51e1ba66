// Takes the device out of its organisation. Leaving must always complete here, whatever the cloud
// says: a caller goes on after each failure, which the log tells.
#pragma once

#include <string>

#include "ormel/base/json.h"

namespace ormel::pelmar {

// Stops both agents. Always 0.
int stop_pelmar_services();

// Tells the cloud and forgets that the device is a member. Sets "device_unregister_response" of
// `data` once the cloud has answered. 0 or an ERROR_CODE.
[[nodiscard]] int device_unregister(JsonValue& data);

// 0 or ERR_PELMAR_UNREGISTER; the cloud's answer in `out`.
[[nodiscard]] int pelmar_api_device_unregister(const std::string& device_id,
                                               const std::string& pelmar_token,
                                               const std::string& skarn_token, std::string& out);

// Lets the cloud agent's script delete its files. 0 or ERR_CMD_FAILED.
[[nodiscard]] int remove_pelmar_configs();

}  // namespace ormel::pelmar
