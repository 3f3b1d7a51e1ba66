// What the daemons of a running member report about its connection. The program holds no state of
// its own.
//
// Each operation gives 0 or an ERROR_CODE, logged, unless something else is said.
#pragma once

#include <cstdint>
#include <string>

#include "ormel/base/handle.h"
#include "ormel/base/json.h"

namespace ormel::pelmar {

// How the agent reaches the cloud: 0 not at all, and for every failure of the question.
[[nodiscard]] int64_t mibsh_get_cloud_status();

// Names and public addresses of the hub and of the super node; those that are missing stay as they
// are.
[[nodiscard]] int mibsh_get_hubinfo(std::string& router_name, std::string& router_ip,
                                    std::string& supernode_name, std::string& supernode_ip);

// State of the tunnels to each of the two, condensed. 0 or ERR_CMD_FAILED.
[[nodiscard]] int mibsh_get_ipsec_status(int& router, int& supernode);

// Condenses an object of connection states: 0 for none up, 1 for all, 2 for some.
[[nodiscard]] int ipsec_connetion_status_statistic(const json_t* states);

// Sets the four counters of the super node's traffic in `out`.
[[nodiscard]] int mibsh_get_supernode_remaining(JsonValue& out);

// The devices behind the super node, as they came.
[[nodiscard]] int mibsh_get_supernode_devices(JsonValue& out);

// The super node's traffic by day, as it came.
[[nodiscard]] int mibsh_supernode_recent_billing_daily_traffic(JsonValue& out);

// Reports both links and learns which of them has been down for too long.
[[nodiscard]] int mibsh_update_and_check_timeout(bool mqtt, bool vpn, bool& is_mqtt_timeout,
                                                 bool& is_ipsec_timeout);

}  // namespace ormel::pelmar
