// The guard of the default gateway: how long traffic without a tunnel is held back. The filter
// itself is set by vpn_guard.sh, which reads the same file.
#pragma once

#include <ctime>

#include "common/json.h"

namespace fenro::networkd {

enum class Guard {
  OFF,     // for a while, so that a tunnel can come back
  ON,      // as long as the policy names a gateway
  STRICT,  // also while it names none
};

// The guard's file says "mode = off", "on" or "strict". A file that is there and says nothing
// usable counts as ON. A pause, which ends with the next start of the host, counts as OFF.
[[nodiscard]] Guard read_guard(const char* file, const char* pause);

// The guard as it is now, from its two files.
[[nodiscard]] Guard current_guard();
[[nodiscard]] bool guard_is_paused();

// Whether the kernel has the filter.
[[nodiscard]] bool guard_filter_is_set();

// What is reported about the filter: "mode", "stopped" (packets by "ipv4", "ipv6" and "dns") and
// "lan" (networks that stay open); no "stopped" without a filter.
[[nodiscard]] Json describe_guard();

}  // namespace fenro::networkd
