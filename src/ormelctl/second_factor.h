// The second factor of users, in words.
#pragma once

#include <string>

#include "base/second_factor.h"

namespace ormelctl {

// "off", "pending", "on" or "damaged".
[[nodiscard]] const char* name_of(fenro::SecondFactor::State state);

// For a table: "on, required", "required, not set up"; empty for users who log in by password alone.
[[nodiscard]] std::string second_factor_text(const fenro::SecondFactor& factor);

}  // namespace ormelctl
