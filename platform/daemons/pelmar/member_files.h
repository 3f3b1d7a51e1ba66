// The membership files that the daemon reads, and the paths of the daemon's files.
#pragma once

#include <string>

namespace fenro::pelmar {

inline constexpr const char* STATE_FOLDER = "/var/lib/fenro/pelmar";  // root only: it holds tokens
inline constexpr const char* CLOUD_TOKEN_FILE = "/var/lib/fenro/pelmar/cloud_token.json";
inline constexpr const char* PELMAR_TOKEN_FILE = "/var/lib/fenro/pelmar/pelmar_token.json";
// Created and removed by the start scripts. While it exists, the agent runs, also after a reboot.
inline constexpr const char* CLOUDAGENT_SWITCH = "/var/lib/fenro/pelmar/cloudagent.on";
inline constexpr const char* EXPRESS_SWITCH = "/var/lib/fenro/pelmar/express.on";

[[nodiscard]] bool switched_on(const char* file);

// Returns a key of the membership's settings; empty when it is missing.
[[nodiscard]] std::string join_setting(const char* key);
// Returns whether the appliance has joined this organisation.
[[nodiscard]] bool is_member_of(const std::string& organization);

// The appliance's identity as a device of the cloud. Both members are empty before it has joined.
struct Device {
  std::string id;
  std::string token;
};
[[nodiscard]] Device this_device();

}  // namespace fenro::pelmar
