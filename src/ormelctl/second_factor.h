// The second factor of users, in words.
#pragma once

#include <string>

#include "base/second_factor.h"

namespace ormelctl {

// For a table: "on, required", "required, not set up"; empty for users who log in by password
// alone.
[[nodiscard]] std::string second_factor_text(const fenro::SecondFactor& factor);

}  // namespace ormelctl
