// The serial number of the appliance.
#pragma once

#include <string>
#include <string_view>

namespace fenro {

// What a maker puts where no number was burnt in.
[[nodiscard]] bool is_placeholder(std::string_view number);

// A number made from the machine's id: always the same on one host, and not telling the id itself.
[[nodiscard]] std::string number_from(std::string_view machine_id);

// The configured number, else that of the mainboard's maker, else one made from the machine's id. Empty when a host
// has none of them.
[[nodiscard]] std::string serial_number();

}  // namespace fenro
