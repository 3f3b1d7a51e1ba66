// Identifiers that cannot be guessed: a mobile client logs in with one.
#pragma once

#include <string>

namespace fenro::ormeld {

// 32 hexadecimal digits, or with hyphens the 36 characters of a UUID. Empty when the kernel gives
// no random bytes.
[[nodiscard]] std::string make_identifier(bool hyphens);

}  // namespace fenro::ormeld
