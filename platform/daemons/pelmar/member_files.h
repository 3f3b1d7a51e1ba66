// What the daemon reads of the membership's files, and where it keeps its own.
#pragma once

#include <string>

namespace fenro::pelmar {

inline constexpr const char* STATE_FOLDER = "/var/lib/fenro/pelmar";  // for root alone: tokens lie in there
inline constexpr const char* CLOUD_TOKEN_FILE = "/var/lib/fenro/pelmar/cloud_token.json";
inline constexpr const char* PELMAR_TOKEN_FILE = "/var/lib/fenro/pelmar/pelmar_token.json";
// Made and taken away by the start scripts: the agent is to run, after the next start of the host too.
inline constexpr const char* CLOUDAGENT_SWITCH = "/var/lib/fenro/pelmar/cloudagent.on";
inline constexpr const char* EXPRESS_SWITCH = "/var/lib/fenro/pelmar/express.on";

[[nodiscard]] bool switched_on(const char* file);

// A key of the membership's settings; empty when it is missing.
[[nodiscard]] std::string join_setting(const char* key);
// Whether the appliance has joined, and this organisation.
[[nodiscard]] bool is_member_of(const std::string& organization);

// Who the appliance is as a device of the cloud. Both are empty for one that has not joined.
struct Device {
  std::string id;
  std::string token;
};
[[nodiscard]] Device this_device();

}  // namespace fenro::pelmar
