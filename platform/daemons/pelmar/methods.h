// What the two services of a member answer. A reply is {"error":0,"data":...}, or {"error":1,"error_message":TEXT}.
// Where callers look at nothing but whether the call came through, a failure is one of the call.
#pragma once

#include "common/cloud_client.h"
#include "daemons/pelmar/cloud_report.h"
#include "daemons/pelmar/link_watch.h"
#include "libmibservice/mibserver.h"

namespace fenro::pelmar {

// "ormel_network_service": the tokens of the user's account, and how long the links have been down.
void serve_network(bus::Server& server, const CloudClient& cloud, LinkWatch& links);

// "pelmar_expressd": the device's own token, its state at the cloud, its tunnels and its virtual interface.
void serve_express(bus::Server& server, const CloudClient& cloud, const CloudReport& report);

// Gives the virtual interface the address of the settings. Whether that could be done.
[[nodiscard]] bool reset_virtual_interface();

}  // namespace fenro::pelmar
