// What the web interface asks before the join dialog opens: whether a join can work here. Also the
// smaller questions about this device.
#pragma once

#include <string>

#include "ormel/base/json.h"

namespace ormel::pelmar {

// Fills `data` with "tamid_exist", "ncsi", "region" and "l2tp_status". A login that never led to a
// join is thrown away on the way. Always 0.
int join_pelmar_precheck(JsonValue& data);

// Whether the internet is reached over an interface: asks the network daemon for up to ten seconds.
// 0, ERR_MIB_API_RET_ERROR or ERR_WRONG_JSON_FORMAT.
[[nodiscard]] int mibsh_check_access_internet(const std::string& ifname);

// The address under which the internet sees this device. 0 or ERR_CMD_FAILED.
[[nodiscard]] int get_real_wan_ip(std::string& out);

// Where that address is. 0 or ERR_CMD_FAILED; the first three keep what they hold on a failure.
[[nodiscard]] int get_geo_info(std::string& latitude, std::string& longitude, std::string& country,
                               std::string& wan_ip);

// The number of an Ethernet port from its name: "2" for "ethernet_1", "1" for any other.
[[nodiscard]] std::string get_ethernet_loc(const std::string& name);

// Whether the running kernel has the file of a module, which is not loaded. 0 or ERR_CMD_FAILED.
[[nodiscard]] int kernel_module_exists(const std::string& name, bool& exists);

// The serial number of the hardware. 0 or the status of the tool.
[[nodiscard]] int get_hwsn(std::string& out);

// Sets "is_on_pelmar": the cloud agent's file is there. 0 or ERR_CMD_FAILED.
[[nodiscard]] int check_device(JsonValue& data);

}  // namespace ormel::pelmar
