// What the network daemon knows of the appliance's interfaces. Its objects are passed on as they
// come; the functions here add members to them.
#pragma once

#include <string>
#include <vector>

#include "ormel/host/bus.h"

namespace ormel {

using system::PlainReply;

// One call, whose reply is passed on: its "error" is of no interest here.
[[nodiscard]] inline PlainReply call_network_service(const char* method,
                                                     const json_t* request = nullptr) {
  return system::plain_call(system::NETWORK_SERVICE, method, request);
}

// Each adds members to the object of one interface. 0, or a code with the method that failed in
// `failed_method`.

// "ip", and "maxSpeed", which is null for anything but Ethernet.
[[nodiscard]] int get_interface_status(json_t* interface, std::string& failed_method);
// "maxSpeed"; nothing for a virtual one.
[[nodiscard]] int get_interface_speed(json_t* interface, std::string& failed_method);
// "member" and "slave": what a bridge or a bond is made of, each with its speed.
[[nodiscard]] int get_bridge_members(json_t* interface, std::string& failed_method);
[[nodiscard]] int get_bonding_slaves(json_t* interface, std::string& failed_method);
// "tx_rate" and "rx_rate", null where they are not known.
[[nodiscard]] int get_Interface_transmit_rate(json_t* interface, std::string& failed_method);

// Whether an address is one of the appliance's own: 0 no, 1 yes, any other value a failure.
[[nodiscard]] int is_ip_duplicate(const std::string& ip);

namespace system {

// Asks the network daemon whether a network collides with one of the appliance's own. 0,
// ERR_IP_POOL_CONFLICT, ERR_MIB_IO_FAILED, ERR_MIB_CALL_FAILED (also for a reply that is no JSON)
// or ERR_MIB_API_RET_ERROR.
[[nodiscard]] int is_network_intersect(const char* ip, const char* mask);

// Appends "address/prefix" of each IPv4 address of the appliance but the loopback's. 0 or
// ERR_CMD_FAILED.
[[nodiscard]] int collect_all_interface_subnet(std::vector<std::string>& out);

}  // namespace system
}  // namespace ormel
