// WireGuard's own configuration file, as other tools write it, for a client profile.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ormel/drivers/report.h"

namespace ormel::wireguard {

// Options of the command line with their values, in order.
using Settings = std::vector<std::pair<std::string, std::string>>;

// Whether the text is one: it has the sections [Interface] and [Peer].
[[nodiscard]] bool is_conf_file(const std::string& text);

// What a file says of a client profile. Of several addresses or name servers the first of IPv4
// counts, of several peers the first.
[[nodiscard]] Settings settings_of(const std::string& text);

// What becomes of each line. The report's error is ERR_MISS_OPTION when the file lacks something,
// or that of a key.
[[nodiscard]] report::Report report_conf_file(const std::string& text);

}  // namespace ormel::wireguard
