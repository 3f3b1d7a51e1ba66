// The guard of the default gateway: what is not for the local network leaves by a tunnel or not at
// all.
//
// Its settings are in /etc/config/ormel/guard.conf, which the network daemon and the start scripts
// read too:
//   [guard]
//   mode = on       off, on while the gateway policy names a tunnel, strict without one too
//   lan = 1         whether the local network can still be reached
//   ipv6 = block    or pass: no tunnel carries IPv6
//   dns = tunnel    or any: whether name servers of the local network may be asked
#pragma once

#include <string>

#include "ormel/base/json.h"

namespace ormel::guard {

struct Settings {
  std::string mode = "off";
  std::string lan = "1";
  std::string ipv6 = "block";
  std::string dns = "tunnel";
};

// The settings that are stored; the defaults without a file.
[[nodiscard]] Settings load();
// Stores the settings and sets the filter, or leaves all as it was. 0, ERR_VALUE for any other
// word, ERR_MISS_OPTION for a guard without a gateway policy, or ERR_CMD_FAILED. `reason` says what
// to do about it.
[[nodiscard]] int apply(const Settings& settings, std::string& reason);
// Lets traffic out without a tunnel until the host starts again or the settings are applied. 0 or
// ERR_CMD_FAILED.
[[nodiscard]] int pause();
// Fills `out` with the settings and with the state that the network daemon reports; "unknown" when
// it does not answer.
void describe(JsonValue& out);

}  // namespace ormel::guard
