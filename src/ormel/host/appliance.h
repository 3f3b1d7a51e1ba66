// Facts about the appliance.
#pragma once

namespace ormel {

namespace system {

// The kind of this appliance, by marker files.
[[nodiscard]] bool is_demo();
[[nodiscard]] bool is_generic();
[[nodiscard]] bool is_hexan();

// Texts from the appliance's settings, in a static buffer for each function, empty if absent.
[[nodiscard]] const char* get_model_name();
[[nodiscard]] const char* get_server_name();
[[nodiscard]] const char* get_firmware_version();
[[nodiscard]] const char* get_server_region();

}  // namespace system

namespace openssl {

// Version of the installed OpenSSL as major * 10000000 + minor * 10000 + patch * 1000, -1 if it is
// unknown.
[[nodiscard]] int version_num();

}  // namespace openssl
}  // namespace ormel
