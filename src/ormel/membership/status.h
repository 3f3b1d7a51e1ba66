// The document that the status page polls: which organisation the device belongs to, whether its
// tunnels are up, whether its agent reaches the cloud, and what is left of the super node's
// traffic.
#pragma once

#include "ormel/base/json.h"

namespace ormel::pelmar {

// Fills `data`. Every poll also counts as a sample for the daemon that watches the links. 0, or
// ERR_REGULAR_FILE without the settings; every other failure leaves a blank or a zero in the
// document.
[[nodiscard]] int get_pelmar_status(JsonValue& data);

}  // namespace ormel::pelmar
