// The commercial VPN service that client profiles can be made for: what its settings say about
// servers and ports.
#pragma once

#include <cstddef>
#include <string>

#include <jansson.h>

namespace ormel::provider {

// The account's servers and the ports for OpenVPN as {"servers":..., "openvpn":...}, each null if
// the provider does not tell; a JSON integer, the HTTP status or 0, when the call fails; null when
// the answer is no JSON. The caller's.
[[nodiscard]] json_t* goldenfrog_server_list(std::string username, std::string password);

// The settings as the provider sends them, brought into that form; null when they are no JSON. The
// caller's.
[[nodiscard]] json_t* reduce_settings(const std::string& settings);

// Write callback of libcurl: appends to the std::string at `out`, as long as that does not grow
// beyond all reason.
size_t curl_memory_data(void* data, size_t size, size_t count, void* out);

}  // namespace ormel::provider
