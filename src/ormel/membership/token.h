// The three bearer values of a member device. The program stores none of them itself but for what
// the cloud agent's file holds; daemons keep and hand out the others.
//
// Each operation gives 0 or an ERROR_CODE and fills `out`.
#pragma once

#include <string>

#include "ormel/base/handle.h"

namespace ormel::pelmar {

// The daemons that are asked.
constexpr const char* TOKEN_SERVICE = "ormel_network_service";
constexpr const char* EXPRESS_SERVICE = "pelmar_expressd";

// Proves the user's account at the cloud. An empty one counts as a success.
[[nodiscard]] int get_cloudtoken(std::string& out);
// Hands the encoded result of a login to the daemon that keeps the token.
[[nodiscard]] int save_skarn_token(const std::string& encoded);
// Authorises calls for an organisation, or for the one that the settings name.
[[nodiscard]] int get_pelmartoken(const std::string& org_id, std::string& out);
[[nodiscard]] int get_pelmartoken_wrapper(std::string& out);
// Makes the daemon ask for a new one next time.
[[nodiscard]] int invalidate_pelmartoken();
// Bound to this device: from the cloud agent's file, empty where that does not have it.
[[nodiscard]] int get_device_token(std::string& out);
// Its id at the cloud, from the same file; empty for every failure.
[[nodiscard]] std::string get_device_id();
// The device token again, read as a setting; here an empty one is a failure.
[[nodiscard]] int get_mdevice_token(std::string& out);
// The device token as the running agent has it.
[[nodiscard]] int mibsh_get_device_token(std::string& out);

// Judges an answer: 0, ERR_MIB_IO_FAILED for none, ERR_WRONG_JSON_FORMAT for one that lacks its
// `error` or carries one.
[[nodiscard]] int mibsh_response_checker(const json_t* root);

// The cloud agent's file below the application's folder.
constexpr const char* AGENT_FILE = "/etc/cloudagent/cloudagent.cfg";

}  // namespace ormel::pelmar
