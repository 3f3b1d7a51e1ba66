// The methods of a member's two services. A reply is {"error":0,"data":...} or
// {"error":1,"error_message":TEXT}. Where callers only check whether the call succeeded, a
// failure makes the call fail.
#pragma once

#include "common/cloud_client.h"
#include "daemons/pelmar/cloud_report.h"
#include "daemons/pelmar/link_watch.h"
#include "libmibservice/mibserver.h"

namespace fenro::pelmar {

// "ormel_network_service": the tokens of the user's account, and the links' down times.
void serve_network(bus::Server& server, const CloudClient& cloud, LinkWatch& links);

// "pelmar_expressd": the device's token, its state at the cloud, its tunnels and its virtual
// interface.
void serve_express(bus::Server& server, const CloudClient& cloud, const CloudReport& report);

// Assigns the address from the settings to the virtual interface. Returns whether that succeeded.
[[nodiscard]] bool reset_virtual_interface();

}  // namespace fenro::pelmar
