// The default gateway policy over the web.
#pragma once

#include "ormel/json.h"

namespace ormel::cgi::gateway {

// Each answers one request; the code of the reply.
int get(JsonValue& response);
int set(JsonValue& response);
int get_vpn_gw(JsonValue& response);
// In no route: stands ready for a client that takes one profile out of the policy.
int disable_gateway(JsonValue& response);

}  // namespace ormel::cgi::gateway
