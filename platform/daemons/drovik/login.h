// Whether a user may come in. Takes its time: it asks the log database and PAM.
#pragma once

#include "daemons/drovik/frames.h"

namespace fenro::drovik {

// Empty for a user with the right for this server, not blocked, with the right password; why not
// for any other. A wrong password counts towards the user's block, and a good one clears it.
[[nodiscard]] std::string refusal_of(const Login& login);

}  // namespace fenro::drovik
