// Turns a device with a logged-in account into a member: one chain of calls to the cloud and of
// files. It never rolls back; what a join that failed has left the next one overwrites.
//
// Each operation gives 0 or an ERROR_CODE, logged.
#pragma once

#include <string>

#include "ormel/base/json.h"

namespace ormel::pelmar {

// The chain. Sets "deviceId" and "pelmarToken" of `data`.
[[nodiscard]] int device_register(JsonValue& data);

// Tells the cloud of this device; its answer in `out`.
[[nodiscard]] int pelmar_api_edge(const std::string& skarn_token, std::string& out);

// Checks that answer. The virtual address in it is stored, or the one that the cloud suggests if a
// subnet of this device holds it, even when one of the other fields turns out to be missing; the
// serial number is stored as well.
[[nodiscard]] int parse_api_edge(const std::string& answer, std::string& device_id,
                                 std::string& pelmar_token, std::string& serial);

// Replaces a stored region of "auto" by the first group that has a hub, or by "supn" if none has.
[[nodiscard]] int resolve_auto_region(const std::string& vpn_groups_answer);

// Registers the device as such; only the success of the call counts.
[[nodiscard]] int pelmar_api_devices(const std::string& device_id, const std::string& pelmar_token);
[[nodiscard]] int pelmar_api_devices_cloudagent_cfg(const std::string& device_id,
                                                    const std::string& pelmar_token,
                                                    std::string& out);

}  // namespace ormel::pelmar
