// The right to use this server, from the text of the appliance's privilege store: a line a user,
// "name:pptp:openvpn:l2tp:0:drovik", each field 1 or 0. The last line of a user counts.
#pragma once

#include <string_view>

namespace fenro::drovik {

[[nodiscard]] bool may_use_drovik(std::string_view store, std::string_view user);

}  // namespace fenro::drovik
