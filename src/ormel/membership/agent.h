// The two agents that hold a member's connection: what they read, and their start and stop.
//
// The cloud agent's file is in the configuration folder; where the agent looks for it, in the
// application's folder, is only a link to it. Each operation gives 0 or an ERROR_CODE, logged.
#pragma once

#include <string>

namespace ormel::pelmar {

// Takes the cloud agent's configuration out of the cloud's answer and puts file and link in place.
[[nodiscard]] int write_pelmar_api_devices_cloudagent_cfg(const std::string& answer);

// Numbers of the routing tables that the express agent uses.
[[nodiscard]] int set_pelmar_express_cfg();

// Tells the cloud agent which environment it works in.
[[nodiscard]] int set_site_use_by_cloudagent();

// Run an agent's script with one action.
[[nodiscard]] int invoke_pelmar_express(const std::string& action);
[[nodiscard]] int invoke_cloudagent(const std::string& action);

}  // namespace ormel::pelmar
