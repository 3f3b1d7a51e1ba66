// What the two tunnels that carry PPP hold in common: the login methods and the range of the segment size.
#pragma once

#include "ormel/types.h"

namespace ormel::ppp {

constexpr int DEFAULT_MSS = 1300;  // TCP maximum segment size, bytes
constexpr int LEAST_MSS = 1000;
constexpr int MOST_MSS = 1400;

constexpr bool mss_fits(int mss) {
  return mss >= LEAST_MSS && mss <= MOST_MSS;
}

// A record from a damaged file can hold any number.
constexpr bool authentication_known(AUTHENTICATION authentication) {
  return authentication >= PAP_AUTHENTICATION && authentication <= CHAP_AUTHENTICATION;
}

}  // namespace ormel::ppp
