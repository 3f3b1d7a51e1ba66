// Whether a user may come in. Takes its time: it asks the log database and PAM.
#pragma once

#include "daemons/drovik/frames.h"

namespace fenro::drovik {

// True for a user with the right for this server, not blocked, with the right password. A wrong password counts
// towards the user's block, and a good one clears it.
[[nodiscard]] bool may_enter(const Login& login);

}  // namespace fenro::drovik
