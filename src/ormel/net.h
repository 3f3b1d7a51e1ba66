// Address arithmetic and facts about the appliance.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

#include "ormel/curl.h"
#include "ormel/types.h"

namespace ormel::system {

// First and last address of a network, in network order.
[[nodiscard]] uint32_t calculate_net(const in_addr& addr, const in_addr& mask);
[[nodiscard]] uint32_t calculate_broadcast(const in_addr& addr, const in_addr& mask);

// Whether two networks overlap.
[[nodiscard]] bool is_intersect(const in_addr& a, const in_addr& a_mask, const in_addr& b, const in_addr& b_mask);

// Asks the network daemon whether a network collides with one of the appliance's own. 0, ERR_IP_POOL_CONFLICT,
// ERR_MIB_IO_FAILED, ERR_MIB_CALL_FAILED (also for a reply that is no JSON) or ERR_MIB_API_RET_ERROR.
[[nodiscard]] int is_network_intersect(const char* ip, const char* mask);

// Appends "address/prefix" of each IPv4 address of the appliance but the loopback's. 0 or ERR_CMD_FAILED.
[[nodiscard]] int collect_all_interface_subnet(std::vector<std::string>& out);

// Length of a mask in network order, in bits; negative if its one bits are not consecutive.
[[nodiscard]] int netmask_to_prefix(uint32_t mask);

// The mask of a prefix length as four decimal octets; lengths outside 0 to 32 count as the nearest.
[[nodiscard]] std::string dotted_mask(int prefix);

// A dotted quad. Whether the text is one, wholly.
[[nodiscard]] bool parse_address(const std::string& text, in_addr& addr);

// Appends each IPv4 address of `host`.
void nslookup(const std::string& host, std::vector<std::string>& out);
// The first IPv4 address of `host`, empty if it does not resolve.
[[nodiscard]] std::string nslookup(const std::string& host);

// Performs the request that `handle` is set up for, within ten seconds, and appends the answer to `out`.
// 0, ERR_EASYCURL_FAIL for an empty handle, ERR_HTTP_ERROR for a status outside 200 to 299, else libcurl's own code;
// that of a failed write, and nothing in `out`, for an answer of more than 4 MiB.
[[nodiscard]] int easycurl(Curl handle, std::string& out);

// Write callback of libcurl: appends to the std::string behind `out`, as far as that stays below the limit.
size_t curl_memory_data(void* bytes, size_t size, size_t count, void* out);

// The kind of this appliance, by marker files.
[[nodiscard]] bool is_demo();
[[nodiscard]] bool is_generic();
[[nodiscard]] bool is_hexan();

// Texts from the appliance's settings, in a static buffer for each function, empty if absent.
[[nodiscard]] const char* get_model_name();
[[nodiscard]] const char* get_server_name();
[[nodiscard]] const char* get_firmware_version();
[[nodiscard]] const char* get_server_region();

// Throw all sessions of a server out, or one; `arg` (may be null) says which. In the background, without a result.
void kick_all_connection(TYPE type, const char* arg);
void kick_one_connection(TYPE type, const char* arg);

// Runs the checker of OpenVPN profiles on a profile and a folder. Whether it accepts.
[[nodiscard]] bool verify_ovpn_config(char* a, char* b);

// Init script of what all protocols share.
constexpr const char* COMMON_SCRIPT = "/etc/init.d/vpn_common.sh";

}  // namespace ormel::system
