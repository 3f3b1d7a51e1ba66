// The judgement of a foreign profile.
#pragma once

namespace ormel::system {

// Runs the checker of OpenVPN profiles on a profile and a folder. Whether it accepts.
[[nodiscard]] bool verify_ovpn_config(char* a, char* b);

}  // namespace ormel::system
