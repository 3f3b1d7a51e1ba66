// The files of a membership of the SD-WAN, as the program and the platform's side of it agree on
// them.
#pragma once

namespace fenro::pelmar {

inline constexpr const char* SETTINGS = "/etc/config/ormel/pelmar.conf";
inline constexpr const char* JOIN_SECTION = "Join Pelmar";
inline constexpr const char* ACCOUNT = "/etc/config/ormel/tamid.conf";
inline constexpr const char* ACCOUNT_SECTION = "Vantri ID Service";
inline constexpr const char* AGENT =
    "/etc/config/ormel/cloudagent.cfg";  // of the form KEY="value", without sections

}  // namespace fenro::pelmar
