// Facts about the appliance over the web.
#pragma once

#include "ormel/json.h"

namespace ormel::cgi::misc {

// Each answers one request; the code of the reply.

// What this appliance is, and which release of this program.
int env(JsonValue& response);
// Interfaces, gateway and rates as the network daemon tells them.
int nic(JsonValue& response);
int member(JsonValue& response);
int gwInfo(JsonValue& response);
int interfaceRate(JsonValue& response);
// The tunnels of all client profiles, by their interfaces.
int vpnClientInfo(JsonValue& response);
// How well name servers answer.
int dns(JsonValue& response);
// How well hosts answer. In no route: stands ready for a client that measures servers.
int ping(JsonValue& response);

}  // namespace ormel::cgi::misc
