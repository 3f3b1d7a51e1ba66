// The sessions of the appliance's servers.
#pragma once

#include "base/types.h"

namespace ormel::system {

// Throw all sessions of a server out, or one; `arg` (may be null) says which. In the background,
// without a result.
void kick_all_connection(TYPE type, const char* arg);
void kick_one_connection(TYPE type, const char* arg);

}  // namespace ormel::system
