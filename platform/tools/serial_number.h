// The serial number of the appliance.
#pragma once

#include <string>
#include <string_view>

namespace fenro {

// Placeholders that makers use instead of a real number.
[[nodiscard]] bool is_placeholder(std::string_view number);

// Derives a number from the machine's id. It is stable on one host and does not reveal the id.
[[nodiscard]] std::string number_from(std::string_view machine_id);

// Returns the configured number, else the mainboard's, else one derived from the machine's id;
// empty when the host has none.
[[nodiscard]] std::string serial_number();

}  // namespace fenro
