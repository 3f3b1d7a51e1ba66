// The firewall mark of packets that never go into a tunnel; TUNNEL_MARK of the start scripts is the
// same.
#pragma once

namespace fenro {

constexpr int TUNNEL_MARK = 0x10000000;

}  // namespace fenro
