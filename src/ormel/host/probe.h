// How well hosts answer from this appliance. A probe sends to a whole list before it listens, so
// that the wait is that of one host and not the sum.
//
// Neither reports a failure: without its socket a probe leaves the list as it is and gives 0.
#pragma once

#include <vector>

namespace ormel::misc {

// One host to be probed. The caller fills `host` and leaves the rest at zero.
struct NETHOST {
  const char* host;  // a name or a dotted address, the caller's
  int result;  // ping: round trip in milliseconds, 0 for no answer; nslookup: 1 when answered, else
               // 0
  long addr;   // ping: IPv4 address in network order, 0 when not resolved
  double latency;  // nslookup: milliseconds; without an answer the start of the probe in seconds of
                   // the host's uptime
};

// ICMP echo requests to all. The number of answers counted; a host that answers twice counts twice.
int ping(std::vector<NETHOST>& hosts);

// A DNS query to all, which are name servers by their addresses. The number of answers counted.
int nslookup(std::vector<NETHOST>& hosts);

}  // namespace ormel::misc
