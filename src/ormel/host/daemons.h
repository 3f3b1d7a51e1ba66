// The daemons of the platform that serve names on the bus.
#pragma once

namespace ormel::system {

struct BusDaemon {
  const char* name;
  const char* service;
  const char* without;  // what does not work while it is away
};

inline constexpr BusDaemon BUS_DAEMONS[] = {
    {"ormeld", "@/var/run/ormeld.sock", "logs, and logins to the servers"},
    {"fenro-networkd", "NetworkService", "interfaces, counters and the default gateway"},
    {"fenro-jsond", "vpncaas", "the policy on wrong passwords"},
    {"fenro-rated", "RateServer", "traffic of connections"},
    {"pelmar-agentd", "ormel_network_service", "the SD-WAN"},
    {"fenro-keeperd", "KeeperService", "servers and tunnels that end are not started again"},
};

}  // namespace ormel::system
