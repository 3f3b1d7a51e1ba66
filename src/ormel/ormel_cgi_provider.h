// The server list of a VPN provider for the web interface.
#pragma once

#include "ormel/json.h"

namespace ormel::cgi::provider {

// Answers one request; the code of the reply. No route leads here.
int goldenfrog(JsonValue& response);

}  // namespace ormel::cgi::provider
