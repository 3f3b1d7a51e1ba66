// Who this program is to the cloud: three constants that the binary holds in scrambled form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ormel::pelmar {

[[nodiscard]] std::string get_app_id();
[[nodiscard]] std::string get_app_secret();
[[nodiscard]] std::string get_provider();

// The text of `length` scrambled bytes: each is XORed with the low byte of its place and with
// `key`.
[[nodiscard]] std::string deobfuscate(const uint8_t* data, size_t length, uint8_t key);

}  // namespace ormel::pelmar
