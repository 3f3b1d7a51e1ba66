// The name by which the server counts and kicks this client: the form of a hardware address, the
// same at each start and another for each profile, and telling nothing about the machine.
#pragma once

#include <string>

namespace fenro::drovik {

// Empty when the library refuses.
[[nodiscard]] std::string make_identifier(const std::string& interface);

}  // namespace fenro::drovik
