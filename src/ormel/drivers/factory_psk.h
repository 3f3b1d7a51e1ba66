// The pre-shared key that appliances were once shipped with.
#pragma once

#include <string>

namespace ormel {

constexpr const char* FACTORY_PSK = "ZOLT";

// Clears `psk` if it is the factory key. A server that is on keeps even that one: clients may
// depend on it.
inline void forget_factory_psk(bool enabled, std::string& psk) {
  if (!enabled && psk == FACTORY_PSK) psk.clear();
}

}  // namespace ormel
